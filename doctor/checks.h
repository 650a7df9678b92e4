// The doctor's checks: everything between the word processor's start and the first callback of
// the add-in's ribbon, as logic over a view of the machine. Each check is named; its findings say
// ok, warning or problem, why, and the fix. The verdict is the first problem in the order the
// word processor meets them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "doctor/machine_view.h"

namespace tabforge::doctor {

enum class Status { kOk, kWarning, kProblem };

struct Finding {
  std::string check;
  Status status = Status::kOk;
  std::string detail;
  std::string fix;
};

struct Options {
  std::string templatePath;  // empty: every template of the Startup folders that creates Main2
  int bits = 0;              // the registration's bitness; 0: the installed word processor's
  // The Windows tool checks the registration itself, in more depth, with the class created.
  bool registration = true;
};

// What --fix may do about a problem found.
struct Repairable {
  enum class Kind { kDisabledItem, kMarkOfTheWeb, kRegistration };
  Kind kind = Kind::kDisabledItem;
  std::string version;  // the word processor's, for a disabled item
  std::string key;      // the DisabledItems key
  std::string name;     // its value
  std::string path;     // the file named
  int bits = 0;         // the registration's
};

struct Diagnosis {
  std::vector<Finding> findings;
  int wordBits = 0;  // 0 when no word processor was found
  std::vector<Repairable> repairs;
  // What only an administrator may change: one line each, the key and value to ask for.
  std::vector<std::string> policies;
};

Diagnosis Diagnose(const MachineView& machine, const Options& options);

// The repairs that are safe and the user's own, one line each for what was done or why not.
// Never a policy key. Running it on a repaired machine does nothing and says so.
std::vector<std::string> Repair(MachineView& machine, const Diagnosis& diagnosis);

// The identity of the add-in's class in the registry.
inline constexpr char kClassId[] = "{CC663791-259D-4F14-9E50-74944FB9E5D1}";
inline constexpr char kProgId[] = "Tabforge.Main2";
inline constexpr char kTypeLibraryId[] = "{09A869B8-F509-4A14-A2EC-4AC3672E2B89}";

// "problem CHECK: DETAIL Fix: FIX" for the first problem in the word processor's order, or the
// line that says nothing found would hide the tab.
std::string Verdict(const std::vector<Finding>& findings);
// The problem the verdict names; null when there is none.
const Finding* FirstProblem(const std::vector<Finding>& findings);
// Where a check stands in that order: installed word processor, Startup folder, template file,
// disabled or blocked, macro security, registration, creation, document. Checks this file does
// not know (the Windows tool's registration checks) stand with the registration.
int Stage(const std::string& check);

// What the doctor prints: the verdict line, then one line per finding; or, for --json, the
// findings as an array of {"check", "status", "detail", "fix"}.
std::string Report(const std::vector<Finding>& findings, bool json);

std::string StatusName(Status status);
std::string FindingLine(const Finding& finding);
std::string FindingsJson(const std::vector<Finding>& findings);

// One value of the word processor's Resiliency\DisabledItems key: a 32-bit type, the byte lengths
// of a path and of a name, then both as UTF-16 (each with its terminating zero).
struct DisabledItem {
  std::uint32_t type = 0;
  std::string path;  // as stored: lower case
  std::string name;
};
std::optional<DisabledItem> DecodeDisabledItem(ByteSpan value);
Bytes EncodeDisabledItem(const DisabledItem& item);

// What the PE header of an executable says its processor is: 32, 64, or 0 for anything else.
int ExecutableBits(ByteSpan header);

}  // namespace tabforge::doctor
