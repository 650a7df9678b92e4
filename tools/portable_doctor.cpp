#include "tools/portable_doctor.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "doctor/case_machine.h"
#include "doctor/checks.h"
#include "doctor/template_reader.h"

namespace tabforge::cli {
namespace {

constexpr const char* kUsage =
    "usage: tabforge doctor --machine FILE [--case NAME] [--template PATH] [--bits 32|64]\n"
    "                       [--json] [--fix]\n"
    "       tabforge doctor --read-template PATH\n"
    "       tabforge doctor --write-template PATH [CHANGE...]\n"
    "\n"
    "The Linux build has no registry of its own: it runs the doctor's checks over a machine that\n"
    "a case file describes (the format is at the top of doctor/case_machine.h; FILE may hold\n"
    "several, --case picks one, the first by default). The verdict comes first: the first cause\n"
    "in the order Word meets them, or that nothing found would hide the tab; then one line per\n"
    "check. --fix carries out the repairs on the described machine, prints one line for each,\n"
    "and checks again.\n"
    "\n"
    "--read-template prints what the template reader finds in a .dotm: its ribbon part, its\n"
    "modules and procedures, the callbacks and the ones Word cannot call.\n"
    "--write-template writes the add-in's own test template, with the case files' changes\n"
    "(no-ui, old-ui, no-macros, no-main2, toggle-one-parameter, class-module, private-callback,\n"
    "signed, damaged).\n"
    "\n"
    "Exit status 0 when nothing would hide the tab (or the template reads), 1 when something\n"
    "would, 2 on bad usage.\n";

int Usage(const std::string& message) {
  std::cerr << "tabforge doctor: " << message << "\n" << kUsage;
  return 2;
}

int ReadTemplateFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::cerr << "tabforge doctor: cannot read " << path << "\n";
    return 1;
  }
  const doctor::Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  try {
    const doctor::TemplateContent content = doctor::ReadTemplate(bytes);
    std::cout << "ribbon part: " << (content.customUiPart.empty() ? "none" : content.customUiPart)
              << "\nmacros: "
              << (content.hasMacros ? (content.signedMacros ? "signed" : "not signed") : "none")
              << "\ncreates Tabforge.Main2: " << (content.createsMain2 ? "yes" : "no") << "\n";
    for (const doctor::Module& module : content.modules)
      std::cout << "module " << module.name << " (" << (module.standard ? "standard" : "class")
                << "), " << module.source.size() << " characters of source\n";
    for (const doctor::Procedure& p : content.procedures)
      std::cout << "  " << (p.isPublic ? "Public " : "Private ") << (p.isSub ? "Sub " : "Function ")
                << p.module << "." << p.name << ", " << p.parameters << " parameters\n";
    for (const doctor::Callback& c : content.callbacks)
      std::cout << "callback " << c.attribute << "=\"" << c.name << "\" of <" << c.element << ">, "
                << c.parameters << " parameters\n";
    const std::vector<std::string> mismatches = doctor::CallbackMismatches(content);
    for (const std::string& mismatch : mismatches)
      std::cout << "cannot call: " << mismatch << "\n";
    return mismatches.empty() ? 0 : 1;
  } catch (const doctor::Damaged& damaged) {
    std::cout << "damaged: " << damaged.what() << "\n";
    return 1;
  }
}

int WriteTemplateFile(const std::string& path, const std::vector<std::string>& changes) {
  try {
    const doctor::Bytes bytes = doctor::TemplateFromChanges(changes);
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) {
      std::cerr << "tabforge doctor: cannot write " << path << "\n";
      return 1;
    }
    return 0;
  } catch (const std::runtime_error& error) {
    return Usage(error.what());
  }
}

}  // namespace

int PortableDoctor(const std::vector<std::string>& args) {
  std::string machineFile;
  std::string caseName;
  doctor::Options options;
  bool json = false;
  bool fix = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const bool hasValue = i + 1 < args.size();
    if (arg == "--help" || arg == "-h") {
      std::cout << kUsage;
      return 0;
    }
    if (arg == "--read-template" && hasValue && i + 2 == args.size())
      return ReadTemplateFile(args[i + 1]);
    if (arg == "--write-template" && hasValue)
      return WriteTemplateFile(args[i + 1],
                               {args.begin() + static_cast<std::ptrdiff_t>(i + 2), args.end()});
    if (arg == "--machine" && hasValue) {
      machineFile = args[++i];
    } else if (arg == "--case" && hasValue) {
      caseName = args[++i];
    } else if (arg == "--template" && hasValue) {
      options.templatePath = args[++i];
    } else if (arg == "--bits" && hasValue && (args[i + 1] == "32" || args[i + 1] == "64")) {
      options.bits = args[++i] == "32" ? 32 : 64;
    } else if (arg == "--json") {
      json = true;
    } else if (arg == "--fix") {
      fix = true;
    } else {
      return Usage("unexpected argument '" + arg + "'");
    }
  }
  if (machineFile.empty())
    return Usage("the Linux build checks a described machine: give --machine FILE");
  std::ifstream in(machineFile);
  if (!in) {
    std::cerr << "tabforge doctor: cannot read " << machineFile << "\n";
    return 2;
  }
  std::stringstream text;
  text << in.rdbuf();
  std::vector<doctor::MachineCase> cases;
  try {
    cases = doctor::ReadMachineCases(text.str(), machineFile);
  } catch (const std::runtime_error& error) {
    std::cerr << "tabforge doctor: " << error.what() << "\n";
    return 2;
  }
  doctor::MachineCase* chosen = cases.empty() ? nullptr : &cases[0];
  if (!caseName.empty()) {
    chosen = nullptr;
    for (doctor::MachineCase& c : cases) {
      if (c.name == caseName)
        chosen = &c;
    }
  }
  if (chosen == nullptr)
    return Usage(caseName.empty() ? "the file describes no machine" : "no machine " + caseName);
  if (options.templatePath.empty())
    options.templatePath = chosen->templatePath;
  if (options.bits == 0)
    options.bits = chosen->bits;
  doctor::Diagnosis diagnosis = doctor::Diagnose(chosen->machine, options);
  if (fix) {
    for (const std::string& line : doctor::Repair(chosen->machine, diagnosis))
      (json ? std::cerr : std::cout) << "fix: " << line << "\n";
    diagnosis = doctor::Diagnose(chosen->machine, options);
  }
  std::cout << doctor::Report(diagnosis.findings, json);
  return doctor::FirstProblem(diagnosis.findings) == nullptr ? 0 : 1;
}

}  // namespace tabforge::cli
