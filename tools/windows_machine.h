// The doctor's view of the Windows machine it runs on: the registry in either view, files and
// their alternate streams, the running processes. Windows build only.
#pragma once

#include "doctor/machine_view.h"

namespace tabforge::cli {

class WindowsMachine : public doctor::MachineView {
 public:
  doctor::RegistryValue Value(doctor::Hive hive, doctor::View view, const std::string& key,
                              const std::string& name) const override;
  bool KeyExists(doctor::Hive hive, doctor::View view, const std::string& key) const override;
  std::vector<std::string> ValueNames(doctor::Hive hive, doctor::View view,
                                      const std::string& key) const override;
  std::vector<std::string> Subkeys(doctor::Hive hive, doctor::View view,
                                   const std::string& key) const override;
  bool FileExists(const std::string& path) const override;
  std::optional<doctor::Bytes> ReadFile(const std::string& path, std::size_t cap) const override;
  std::optional<std::string> ReadStream(const std::string& path,
                                        const std::string& name) const override;
  std::vector<std::string> ListFiles(const std::string& folder) const override;
  std::string Environment(const std::string& name) const override;
  bool ProcessRunning(const std::string& executable) const override;
  std::string ToolFolder() const override;
  bool DeleteValue(doctor::Hive hive, doctor::View view, const std::string& key,
                   const std::string& name, std::string& error) override;
  bool DeleteStream(const std::string& path, const std::string& name, std::string& error) override;
  bool RegisterForUser(const std::string& dll, int bits, std::string& error) override;
};

}  // namespace tabforge::cli
