// `tabforge log`: the flight log's switch for the user, and what the log says; `tabforge record`:
// recordings of sessions beside it. Windows build only.
#pragma once

#include <string>
#include <vector>

#include "doctor/checks.h"

namespace tabforge::cli {

// Run the commands with the arguments after their names and return the exit status: `log`, and
// `record`, the user's request for session recordings.
int Log(const std::vector<std::string>& args);
int Record(const std::vector<std::string>& args);

// What the flight log says of the last start, for the doctor: a finding for each thing the log
// judges ("log-loaded", "log-document", "log-start-time", "log-failures"), the last start's steps
// and its last failures. A log that is off, missing or empty is evidence of nothing: a warning.
// Read it before this process creates the class: its own start says nothing of the word
// processor's.
std::vector<doctor::Finding> LogFindings();

}  // namespace tabforge::cli
