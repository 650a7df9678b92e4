// `tabforge register`: the registration of Tabforge.dll, for one user or for the machine, without
// calling the DLL.
#pragma once

#include <string>
#include <vector>

namespace tabforge::cli {

// Runs the command with the arguments after its name; returns the exit status.
int Register(const std::vector<std::string>& args);

}  // namespace tabforge::cli
