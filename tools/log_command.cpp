#include "tools/log_command.h"

#include <windows.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>

#include "platform/flight_log.h"
#include "platform/utf16.h"
#include "server/com_ptr.h"
#include "server/registry_values.h"
#include "server/windows_flight_log.h"
#include "server/windows_text.h"

namespace tabforge::cli {
namespace {

using com::Narrow;

constexpr const char* kLogUsage =
    "usage: tabforge log on|off|show [--lines N]\n"
    "\n"
    "The flight log (%LOCALAPPDATA%\\Tabforge\\Logs\\tabforge.log): what the library did in each\n"
    "process that loaded it, its start step by step and every failure. It is on unless switched\n"
    "off. 'on' and 'off' set the user's switch (HKEY_CURRENT_USER\\Software\\Tabforge\\Log,\n"
    "Enabled); an administrator's policy (HKEY_LOCAL_MACHINE\\Software\\Policies\\Tabforge\\Log,\n"
    "Enabled) decides over it. 'show' prints both switches, what the last start says (the\n"
    "library never loaded, the ribbon never asking for its document, a start longer than the\n"
    "word processor allows, failures), that start with each step's time since the library was\n"
    "loaded, the last failures and the log's last N lines (default 20).\n";

std::string SwitchText(com::LogSwitch value) {
  switch (value) {
    case com::LogSwitch::kOn:
      return "on";
    case com::LogSwitch::kOff:
      return "off";
    case com::LogSwitch::kNotSet:
      break;
  }
  return "not set";
}

bool SetUserSwitch(bool on) {
  return com::WriteDword(HKEY_CURRENT_USER, com::kLogUserKey, com::kLogEnabledValue, on ? 1 : 0,
                         KEY_WOW64_64KEY);
}

std::string ReadText(const std::wstring& path) {
  std::ifstream in(path.c_str(), std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void PrintLastStart(const std::string& text) {
  const auto start = flight::FindLastStart(text);
  if (!start) {
    std::cout << "last start: none in the log\n";
    return;
  }
  const flight::Event& loaded = start->loaded;
  const std::string hostVersion = loaded.Value("host_version").value_or("");
  std::cout << "last start: " << loaded.time << ", process " << loaded.process << ", "
            << loaded.Value("host").value_or("?")
            << (hostVersion.empty() ? "" : " (version " + hostVersion + ")") << "\n  loaded "
            << loaded.Value("path").value_or("?") << " (" << loaded.Value("version").value_or("?")
            << ", " << loaded.Value("bits").value_or("?") << "-bit)\n";
  for (const flight::StartStep& step : start->steps)
    std::cout << "  " << step.name << " at " << step.ms << " ms\n";
}

void PrintLastFailures(const std::string& text) {
  const std::vector<flight::Event> failures = flight::LastFailures(text, 5);
  std::cout << "last failures:" << (failures.empty() ? " none in the log" : "") << "\n";
  for (const flight::Event& failure : failures) {
    std::cout << "  " << failure.time << " " << failure.Value("procedure").value_or("?") << " line "
              << failure.Value("line").value_or("?") << ": "
              << failure.Value("number").value_or("?") << " "
              << failure.Value("description").value_or("") << " ("
              << failure.Value("outcome").value_or("?");
    if (const auto answer = failure.Value("answer"))
      std::cout << " " << *answer;
    std::cout << ")\n";
  }
}

int Show(std::size_t lines) {
  const com::LogSwitch machine = com::ReadLogSwitch(HKEY_LOCAL_MACHINE, com::kLogPolicyKey);
  const com::LogSwitch user = com::ReadLogSwitch(HKEY_CURRENT_USER, com::kLogUserKey);
  std::cout << "log " << (com::LogEnabled() ? "on" : "off") << ": the machine's policy is "
            << SwitchText(machine) << ", the user's switch is " << SwitchText(user) << "\n";
  const std::wstring folder = com::LogFolderPath();
  if (folder.empty()) {
    std::cout << "folder: none (LOCALAPPDATA is not set)\n";
    return 0;
  }
  const std::wstring current = folder + L"\\" + com::kLogFileName;
  std::cout << "folder: " << Narrow(folder) << "\n";
  const std::string text = ReadText(current + L".1") + ReadText(current);
  for (const flight::Finding& finding : flight::JudgeLastStart(text)) {
    std::cout << finding.status
              << std::string(8 - std::min<std::size_t>(finding.status.size(), 7), ' ')
              << finding.check << ": " << finding.detail << "\n";
  }
  PrintLastStart(text);
  PrintLastFailures(text);
  std::vector<std::string_view> all;
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t end = rest.find('\n');
    all.push_back(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  std::cout << "last lines:\n";
  for (std::size_t i = all.size() > lines ? all.size() - lines : 0; i < all.size(); ++i)
    std::cout << "  " << all[i] << "\n";
  return 0;
}

}  // namespace

int Log(const std::vector<std::string>& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::cout << kLogUsage;
    return 0;
  }
  std::size_t lines = 20;
  const bool show = !args.empty() && args[0] == "show";
  if (show && args.size() == 3 && args[1] == "--lines") {
    try {
      lines = std::stoul(args[2]);
    } catch (const std::exception&) {
      std::cerr << "tabforge log: --lines needs a number\n";
      return 2;
    }
  } else if (args.size() != 1 || (args[0] != "on" && args[0] != "off" && !show)) {
    std::cerr << "tabforge log: say on, off or show\n" << kLogUsage;
    return 2;
  }
  if (!show) {
    if (!SetUserSwitch(args[0] == "on")) {
      std::cerr << "tabforge log: cannot write HKEY_CURRENT_USER\\Software\\Tabforge\\Log\n";
      return 1;
    }
  }
  return Show(show ? lines : 0);
}

std::vector<doctor::Finding> LogFindings() {
  std::vector<doctor::Finding> findings;
  const std::wstring folder = com::LogFolderPath();
  const std::string text = folder.empty() ? std::string()
                                          : ReadText(folder + L"\\" + com::kLogFileName + L".1") +
                                                ReadText(folder + L"\\" + com::kLogFileName);
  const std::string show = "tabforge log show prints the whole of it";
  if (text.empty()) {
    findings.push_back({"log-loaded", doctor::Status::kWarning,
                        com::LogEnabled() ? "the flight log is empty: the library was never "
                                            "loaded while it was on"
                                          : "the flight log is off, so it tells nothing",
                        "start the word processor once; the log then tells how the start went"});
    return findings;
  }
  for (const flight::Finding& finding : flight::JudgeLastStart(text)) {
    const doctor::Status status = finding.status == "ok"        ? doctor::Status::kOk
                                  : finding.status == "warning" ? doctor::Status::kWarning
                                                                : doctor::Status::kProblem;
    findings.push_back({"log-" + finding.check, status, finding.detail,
                        status == doctor::Status::kOk ? std::string() : show});
  }
  if (const auto start = flight::FindLastStart(text)) {
    std::string steps;
    for (const flight::StartStep& step : start->steps)
      steps += (steps.empty() ? "" : ", ") + step.name + " at " + std::to_string(step.ms) + " ms";
    findings.push_back(
        {"log-last-start",
         doctor::Status::kOk,
         start->loaded.time + ": " + (steps.empty() ? "no step after the load" : steps),
         {}});
  }
  for (const flight::Event& failure : flight::LastFailures(text, 3)) {
    findings.push_back({"log-failure",
                        doctor::Status::kOk,
                        failure.time + " " + failure.Value("procedure").value_or("?") + " line " +
                            failure.Value("line").value_or("?") + ": " +
                            failure.Value("number").value_or("?") + " " +
                            failure.Value("description").value_or("") + " (" +
                            failure.Value("outcome").value_or("?") + ")",
                        {}});
  }
  return findings;
}

}  // namespace tabforge::cli
