// `tabforge doctor` on Linux: the doctor's checks over a machine that a case file describes
// (doctor/case_machine.h), the template reader over a .dotm on disk, and the test templates the
// case files use, written out for a Windows machine or a fuzzer's seeds.
#pragma once

#include <string>
#include <vector>

namespace tabforge::cli {

// Runs the command with the arguments after its name and returns the exit status.
int PortableDoctor(const std::vector<std::string>& args);

}  // namespace tabforge::cli
