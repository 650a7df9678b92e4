// A machine that a text describes, for the checks' tests on every system and for
// `tabforge doctor --machine FILE` on Linux. A file holds one machine or several, each with what
// the doctor should find on it:
//
//   machine NAME                       starts a machine; lines before the first belong to one
//                                      named after the file
//   machine NAME : BASE                starts a machine that is a copy of machine BASE
//   drop reg HIVE KEY | NAME           removes a value (of a copied machine)
//   drop key HIVE KEY                  removes a key with everything below it
//   drop file PATH                     removes a file
//   option template PATH               runs the doctor with --template PATH
//   option bits 32|64                  runs the doctor with --bits
//   reg HIVE KEY | NAME = TYPE DATA    a registry value; HIVE is HKCU (both views, as most of the
//                                      user's keys are), HKLM (the 64-bit view), or either with 32
//                                      or 64 behind it for that view alone; NAME @ is the default
//                                      value; TYPE DATA is one of
//                                        sz TEXT, dword NUMBER, hex BYTES,
//                                        disabled TYPE PATH  (a Resiliency\DisabledItems record
//                                                            of that type, the path lower-cased
//                                                            as the word processor writes it)
//   key HIVE KEY                       a key without values
//   env NAME = VALUE                   an environment variable
//   file PATH = KIND                   a file: template [CHANGE...] (the add-in's own, changed by
//                                      no-ui, old-ui, unrelated-ui, no-macros, no-main2,
//                                      toggle-one-parameter,
//                                      class-module, private-callback, signed, damaged), dotx,
//                                      pe32 or pe64 (an executable's header), text TEXT
//   stream PATH | NAME = TEXT          the file's alternate stream; \n in TEXT is a line break
//   process NAME                       a running process
//   tool FOLDER                        where tabforge.exe stands
//   expect verdict CHECK|nothing       the check the verdict names
//   expect problems CHECK...           every check with a problem, in any order
//   expect warnings CHECK...           every check with a warning, in any order
//   expect repair TEXT                 the start of the next line --fix prints
//   expect after-fix CHECK...          every check with a problem once --fix has run
//
// Lines starting with # and empty lines are skipped.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "doctor/machine_view.h"

namespace tabforge::doctor {

class CaseMachine : public MachineView {
 public:
  RegistryValue Value(Hive hive, View view, const std::string& key,
                      const std::string& name) const override;
  bool KeyExists(Hive hive, View view, const std::string& key) const override;
  std::vector<std::string> ValueNames(Hive hive, View view, const std::string& key) const override;
  std::vector<std::string> Subkeys(Hive hive, View view, const std::string& key) const override;
  bool FileExists(const std::string& path) const override;
  std::optional<Bytes> ReadFile(const std::string& path, std::size_t cap) const override;
  std::optional<std::string> ReadStream(const std::string& path,
                                        const std::string& name) const override;
  std::vector<std::string> ListFiles(const std::string& folder) const override;
  std::string Environment(const std::string& name) const override;
  bool ProcessRunning(const std::string& executable) const override;
  std::string ToolFolder() const override { return tool_; }
  bool DeleteValue(Hive hive, View view, const std::string& key, const std::string& name,
                   std::string& error) override;
  bool DeleteStream(const std::string& path, const std::string& name, std::string& error) override;
  bool RegisterForUser(const std::string& dll, int bits, std::string& error) override;

  void SetValue(Hive hive, View view, const std::string& key, const std::string& name,
                const RegistryValue& value);
  void AddKey(Hive hive, View view, const std::string& key);
  void SetFile(const std::string& path, Bytes content);
  void SetStream(const std::string& path, const std::string& name, const std::string& text);
  void SetEnvironment(const std::string& name, const std::string& value);
  void AddProcess(const std::string& name) { processes_.insert(name); }
  void SetToolFolder(const std::string& folder) { tool_ = folder; }
  void DropFile(const std::string& path);
  void DropKey(Hive hive, View view, const std::string& key);

 private:
  struct Key {
    std::string path;                                                     // as first written
    std::map<std::string, std::pair<std::string, RegistryValue>> values;  // by lower-case name
  };
  struct File {
    std::string path;
    Bytes content;
    std::map<std::string, std::string> streams;  // by lower-case name
  };
  static std::string KeyId(Hive hive, View view, const std::string& key);

  std::map<std::string, Key> keys_;  // by hive, view and lower-case path
  std::map<std::string, File> files_;
  std::map<std::string, std::string> environment_;
  std::set<std::string> processes_;
  std::string tool_;
};

struct MachineCase {
  std::string name;
  int line = 0;
  CaseMachine machine;
  std::string templatePath;
  int bits = 0;
  std::optional<std::string> verdict;
  std::optional<std::set<std::string>> problems;
  std::optional<std::set<std::string>> warnings;
  std::vector<std::string> repairs;
  std::optional<std::set<std::string>> afterFix;
};

// Throws std::runtime_error naming the line of a line it cannot read.
std::vector<MachineCase> ReadMachineCases(const std::string& text, const std::string& fileName);

// The template that `file PATH = template CHANGE...` describes.
Bytes TemplateFromChanges(const std::vector<std::string>& changes);

}  // namespace tabforge::doctor
