// `tabforge doctor`: everything that decides whether a word processor of a given bitness can
// create Tabforge.Main2, and `tabforge trace`: the per-user tracing setting. Windows build only.
#pragma once

#include <string>
#include <vector>

namespace tabforge::cli {

// Each runs the command with the arguments after its name and returns the exit status.
int Doctor(const std::vector<std::string>& args);
int Trace(const std::vector<std::string>& args);

}  // namespace tabforge::cli
