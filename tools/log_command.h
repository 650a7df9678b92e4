// `tabforge log`: the flight log's switch for the user, and what the log says. Windows build only.
#pragma once

#include <string>
#include <vector>

namespace tabforge::cli {

// Runs the command with the arguments after its name and returns the exit status.
int Log(const std::vector<std::string>& args);

}  // namespace tabforge::cli
