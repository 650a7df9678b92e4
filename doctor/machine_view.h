// What the doctor reads of a machine and the few things `--fix` writes: registry values in either
// view of either hive, files and their alternate streams, folders, the environment, the running
// processes. The checks see the machine through this alone, so that the same logic runs over the
// real registry on Windows and over a machine that a case file describes on any system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "doctor/template_reader.h"

namespace tabforge::doctor {

enum class Hive { kCurrentUser, kLocalMachine };
// The 64-bit view of a hive is the native one; the 32-bit view is what a 32-bit program reads.
enum class View { k32, k64 };

struct RegistryValue {
  enum class Kind { kAbsent, kNumber, kText, kBinary };
  Kind kind = Kind::kAbsent;
  std::uint32_t number = 0;
  std::string text;  // UTF-8, environment strings not yet expanded
  Bytes binary;

  bool Present() const { return kind != Kind::kAbsent; }
};

// Registry keys are below the hive ("Software\\Microsoft\\..."); names compare without regard to
// case, as Windows compares them. Paths are Windows paths in UTF-8.
class MachineView {
 public:
  virtual ~MachineView() = default;

  virtual RegistryValue Value(Hive hive, View view, const std::string& key,
                              const std::string& name) const = 0;
  virtual bool KeyExists(Hive hive, View view, const std::string& key) const = 0;
  virtual std::vector<std::string> ValueNames(Hive hive, View view,
                                              const std::string& key) const = 0;
  virtual std::vector<std::string> Subkeys(Hive hive, View view, const std::string& key) const = 0;

  virtual bool FileExists(const std::string& path) const = 0;
  // The file's first bytes, at most `cap`; nothing when it cannot be read.
  virtual std::optional<Bytes> ReadFile(const std::string& path, std::size_t cap) const = 0;
  // The content of the file's alternate stream `name` (Zone.Identifier).
  virtual std::optional<std::string> ReadStream(const std::string& path,
                                                const std::string& name) const = 0;
  // The names of the files (not folders) directly in `folder`.
  virtual std::vector<std::string> ListFiles(const std::string& folder) const = 0;
  virtual std::string Environment(const std::string& name) const = 0;
  virtual bool ProcessRunning(const std::string& executable) const = 0;
  // The folder of the running tabforge.exe, where the release keeps x86\ and x64\Tabforge.dll.
  virtual std::string ToolFolder() const = 0;

  // The repairs of --fix; each returns false with `error` set when it could not be done.
  virtual bool DeleteValue(Hive hive, View view, const std::string& key, const std::string& name,
                           std::string& error) = 0;
  virtual bool DeleteStream(const std::string& path, const std::string& name,
                            std::string& error) = 0;
  // Registers the DLL for the current user in the registry view of its bitness.
  virtual bool RegisterForUser(const std::string& dll, int bits, std::string& error) = 0;
};

}  // namespace tabforge::doctor
