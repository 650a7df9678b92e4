// The doctor's checks over machines that tests/doctor_machines.txt describes: on each, the verdict
// names the expected check, the problems and warnings are exactly those set up, --fix repairs
// what it may and nothing else, and a second --fix changes nothing. Then the pieces the machines
// rest on: the values decoded from bytes (tests/doctor_bytes.txt), the order of the verdict, and
// the case format's own refusals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "doctor/case_machine.h"
#include "doctor/checks.h"
#include "golden.h"
#include "platform/utf16.h"

namespace tabforge::doctor {
namespace {

using ::testing::HasSubstr;

std::set<std::string> With(const std::vector<Finding>& findings, Status status) {
  std::set<std::string> checks;
  for (const Finding& f : findings) {
    if (f.status == status)
      checks.insert(f.check);
  }
  return checks;
}

std::string Lines(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& f : findings)
    text += "  " + FindingLine(f) + "\n";
  return text;
}

std::vector<MachineCase> Machines() {
  std::ifstream in(TABFORGE_SOURCE_DIR "/tests/doctor_machines.txt");
  std::stringstream text;
  text << in.rdbuf();
  return ReadMachineCases(text.str(), "doctor_machines.txt");
}

TEST(DoctorMachines, EachMachineGivesItsVerdictProblemsAndRepairs) {
  const std::vector<MachineCase> cases = Machines();
  ASSERT_GE(cases.size(), 45u);
  for (const MachineCase& c : cases) {
    SCOPED_TRACE("machine " + c.name + " (line " + std::to_string(c.line) + ")");
    Options options;
    options.templatePath = c.templatePath;
    options.bits = c.bits;
    const Diagnosis diagnosis = Diagnose(c.machine, options);
    const Finding* first = FirstProblem(diagnosis.findings);
    ASSERT_TRUE(c.verdict.has_value());
    EXPECT_EQ(first == nullptr ? "nothing" : first->check, *c.verdict) << Lines(diagnosis.findings);
    if (first == nullptr)
      EXPECT_EQ(Verdict(diagnosis.findings), "verdict: nothing found would hide the tab.");
    else
      EXPECT_EQ(Verdict(diagnosis.findings).rfind("verdict: " + first->check + ": ", 0), 0u);
    if (c.problems) {
      EXPECT_EQ(With(diagnosis.findings, Status::kProblem), *c.problems)
          << Lines(diagnosis.findings);
    }
    if (c.warnings) {
      EXPECT_EQ(With(diagnosis.findings, Status::kWarning), *c.warnings)
          << Lines(diagnosis.findings);
    }
    for (const Finding& f : diagnosis.findings) {
      EXPECT_FALSE(f.detail.empty()) << f.check;
      EXPECT_EQ(f.status != Status::kOk, !f.fix.empty()) << FindingLine(f);
    }
    if (c.repairs.empty() && !c.afterFix)
      continue;
    CaseMachine machine = c.machine;
    const std::vector<std::string> done = Repair(machine, diagnosis);
    ASSERT_GE(done.size(), c.repairs.size());
    for (std::size_t i = 0; i < c.repairs.size(); ++i)
      EXPECT_EQ(done[i].substr(0, c.repairs[i].size()), c.repairs[i]);
    const Diagnosis after = Diagnose(machine, options);
    if (c.afterFix) {
      EXPECT_EQ(With(after.findings, Status::kProblem), *c.afterFix) << Lines(after.findings);
    }
    // A second run finds nothing more that it may repair, and changes nothing.
    for (const std::string& line : Repair(machine, after)) {
      EXPECT_TRUE(line.rfind("not done", 0) == 0 || line.rfind("left to", 0) == 0 ||
                  line == "nothing to repair.")
          << line;
    }
    EXPECT_EQ(Lines(Diagnose(machine, options).findings), Lines(after.findings));
  }
}

// The first line of every finding on the good machine names the version, so that a machine with
// two versions tells their lines apart.
TEST(DoctorMachines, TwoVersionsAreCheckedEachOnItsOwn) {
  std::vector<MachineCase> cases = Machines();
  CaseMachine machine = cases[0].machine;
  RegistryValue path;
  path.kind = RegistryValue::Kind::kText;
  path.text = "C:\\Program Files (x86)\\Microsoft Office\\Office14";
  machine.SetValue(Hive::kLocalMachine, View::k32,
                   "SOFTWARE\\Microsoft\\Office\\14.0\\Word\\InstallRoot", "Path", path);
  RegistryValue off;
  off.kind = RegistryValue::Kind::kNumber;
  off.number = 4;
  machine.SetValue(Hive::kCurrentUser, View::k64,
                   "Software\\Microsoft\\Office\\14.0\\Word\\Security", "VBAWarnings", off);
  machine.SetValue(Hive::kCurrentUser, View::k64,
                   "Software\\Microsoft\\Office\\14.0\\Word\\Security\\Trusted Locations\\L1",
                   "Path", path);
  const Diagnosis diagnosis = Diagnose(machine, {});
  std::vector<std::string> problems;
  for (const Finding& f : diagnosis.findings) {
    if (f.status == Status::kProblem)
      problems.push_back(f.detail.substr(0, 10));
  }
  EXPECT_EQ(problems, std::vector<std::string>{"Word 14.0:"}) << Lines(diagnosis.findings);
  EXPECT_EQ(diagnosis.wordBits, 64);  // the newest, Click-to-Run's
  std::set<std::string> versions;
  for (const Finding& f : diagnosis.findings) {
    if (f.check == "word-installed")
      versions.insert(f.detail.substr(0, 9));
  }
  EXPECT_EQ(versions, (std::set<std::string>{"Word 14.0", "Word 16.0"}));
}

// How to see Word's own reason for a refused ribbon depends on whether Word shows it already.
TEST(DoctorMachines, TheCallbacksFixSaysHowToSeeWordsOwnMessage) {
  std::vector<MachineCase> cases = Machines();
  const auto bad = std::find_if(cases.begin(), cases.end(), [](const MachineCase& c) {
    return c.name == "a-callback-with-too-few-parameters";
  });
  ASSERT_NE(bad, cases.end());
  CaseMachine machine = bad->machine;
  auto callbacks = [&] {
    for (const Finding& f : Diagnose(machine, {}).findings) {
      if (f.check == "callbacks")
        return f.fix;
    }
    return std::string("no callbacks line");
  };
  EXPECT_THAT(callbacks(), HasSubstr("to see Word's own message, turn on File > Options"));
  RegistryValue on;
  on.kind = RegistryValue::Kind::kNumber;
  on.number = 1;
  machine.SetValue(Hive::kCurrentUser, View::k64,
                   "Software\\Microsoft\\Office\\16.0\\Common\\General",
                   "ReportAddinCustomUIErrors", on);
  EXPECT_THAT(callbacks(), HasSubstr("add-in user interface errors are on"));
  on.number = 0;
  machine.SetValue(Hive::kCurrentUser, View::k64,
                   "Software\\Microsoft\\Office\\16.0\\Common\\General",
                   "ReportAddinCustomUIErrors", on);
  EXPECT_THAT(callbacks(), HasSubstr("turn on"));
}

TEST(DoctorVerdict, TheFirstProblemInWordsOrderWhateverTheOrderOfTheLines) {
  const char* order[] = {"word-installed", "startup-folder", "template-content", "disabled-items",
                         "vba-warnings",   "registration",   "create",           "callbacks"};
  std::vector<Finding> findings;
  for (auto it = std::rbegin(order); it != std::rend(order); ++it)
    findings.push_back({*it, Status::kProblem, "detail of " + std::string(*it), "fix"});
  findings.insert(findings.begin(), {"word-installed", Status::kOk, "fine", ""});
  for (const char* expected : order) {
    const Finding* first = FirstProblem(findings);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->check, expected);
    EXPECT_EQ(Verdict(findings),
              "verdict: " + std::string(expected) + ": detail of " + expected + " Fix: fix");
    std::erase_if(findings, [&](const Finding& f) {
      return f.check == expected && f.status == Status::kProblem;
    });
  }
  EXPECT_EQ(FirstProblem(findings), nullptr);
  // The Windows tool's own registration checks stand with the registration.
  EXPECT_EQ(Stage("server-bitness"), Stage("registration"));
  EXPECT_LT(Stage("registration"), Stage("create"));
  EXPECT_LT(Stage("create"), Stage("document"));
  // Warnings never make the verdict.
  EXPECT_EQ(Verdict({{"vba-warnings", Status::kWarning, "asks", "fix"}}),
            "verdict: nothing found would hide the tab.");
}

TEST(DoctorJson, FindingsAreAnArrayWithTextEscaped) {
  EXPECT_EQ(
      FindingsJson({{"a", Status::kWarning, "say \"hi\"\\\n", "f"}, {"b", Status::kOk, "x", ""}}),
      "[\n  {\"check\": \"a\", \"status\": \"warning\", \"detail\": \"say \\\"hi\\\"\\\\"
      "\\u000a\", \"fix\": \"f\"},\n  {\"check\": \"b\", \"status\": \"ok\", \"detail\": "
      "\"x\", \"fix\": \"\"}\n]\n");
  EXPECT_EQ(FindingLine({"c", Status::kProblem, "d.", "e."}), "problem c: d. Fix: e.");
  EXPECT_EQ(FindingLine({"c", Status::kOk, "d.", ""}), "ok      c: d.");
}

// --- Values decoded from bytes ------------------------------------------------------------

// The bytes that a case of tests/doctor_bytes.txt writes; the file tells its tokens.
Bytes Written(const std::string& text) {
  Bytes out;
  std::istringstream in(text);
  for (std::string token; in >> token;) {
    if (token.starts_with("u32:")) {
      const auto value = static_cast<std::uint32_t>(std::stoul(token.substr(4), nullptr, 0));
      for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
    } else if (token.starts_with("u16:")) {
      std::u16string units;
      std::string rest = token.substr(4);
      for (std::size_t zero; (zero = rest.find("\\0")) != std::string::npos;
           rest.erase(0, zero + 2))
        (units += FromUtf8(rest.substr(0, zero))) += u'\0';
      for (const char16_t unit : units + FromUtf8(rest)) {
        out.push_back(static_cast<unsigned char>(unit));
        out.push_back(static_cast<unsigned char>(unit >> 8));
      }
    } else if (token.starts_with("@")) {
      out.resize(std::stoul(token.substr(1), nullptr, 16));
    } else {
      out.push_back(static_cast<unsigned char>(std::stoul(token, nullptr, 16)));
    }
  }
  return out;
}

TEST(DoctorBytes, EachValueDecodesAsItsCaseSays) {
  for (const auto& c : testing::ReadCases("tests/doctor_bytes.txt")) {
    const std::vector<std::string> f = testing::Fields(c.header);  // kind, bytes, expected, what
    const Bytes bytes = Written(f.at(1));
    std::string decoded = std::to_string(ExecutableBits(bytes));
    if (f[0] == "disabled") {
      const std::optional<DisabledItem> item = DecodeDisabledItem(bytes);
      decoded = item ? std::to_string(item->type) + " \"" + item->path + "\" \"" + item->name + "\""
                     : "refused";
    }
    EXPECT_EQ(decoded, f.at(2)) << c.header;
  }
}

TEST(DisabledItems, WhatIsEncodedDecodesAgain) {
  const DisabledItem written{1, "c:\\users\\ada\\tabforge.dotm", "Tabforge"};
  const Bytes encoded = EncodeDisabledItem(written);
  EXPECT_EQ(encoded.size(), 12u + 2 * (written.path.size() + 1) + 2 * (written.name.size() + 1));
  const std::optional<DisabledItem> read = DecodeDisabledItem(encoded);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->path, written.path);
  EXPECT_EQ(read->name, written.name);
}

TEST(DoctorMachines, TheCaseFormatRefusesWhatItCannotRead) {
  for (const auto& [error, body] : testing::ReadCases("tests/machine_case_refusals.txt")) {
    const std::string text = body.substr(0, body.size() - 1);
    try {
      ReadMachineCases(text, "t");
      ADD_FAILURE() << text << " was read";
    } catch (const std::runtime_error& refused) {
      EXPECT_THAT(refused.what(), HasSubstr(error)) << text;
    }
  }
}

}  // namespace
}  // namespace tabforge::doctor
