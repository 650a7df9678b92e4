#include "tools/log_command.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "platform/flight_log.h"
#include "platform/utf16.h"
#include "server/com_ptr.h"
#include "server/registry_values.h"
#include "server/windows_flight_log.h"
#include "server/windows_recording.h"
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

std::uint64_t FileTimeNow() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  return (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
}

std::string TimeText(std::uint64_t fileTime) {
  FILETIME time{static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
  SYSTEMTIME utc{};
  if (!::FileTimeToSystemTime(&time, &utc))
    return "?";
  char text[40];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u UTC", utc.wYear, utc.wMonth,
                utc.wDay, utc.wHour, utc.wMinute, utc.wSecond);
  return text;
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
  const auto until = com::RecordingRequestedUntil();
  std::cout << "recording: "
            << (until && *until > FileTimeNow() ? "on until " + TimeText(*until) : "off")
            << " (tabforge record show lists the recordings)\n";
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

constexpr const char* kRecordUsage =
    "usage: tabforge record on [--minutes N] | off | show\n"
    "\n"
    "Records the sessions of the word processor: every call it makes on the library and every\n"
    "call the library makes on its collaborators (the template, the ribbon, the error\n"
    "component, the accessibility tree), with the answers, for N minutes (default 30). Each\n"
    "start of the library's class in that time writes a file of its own,\n"
    "%LOCALAPPDATA%\\Tabforge\\Logs\\recording-*.session, of at most 1 MB; the newest five\n"
    "are kept. A recording holds control ids, the product name, macro names, the icons' bytes and\n"
    "the error component's calls, nothing of the user's documents. Replay one on Linux with\n"
    "'tabforge session --replay FILE'. 'off' stops recording at the next start; 'show' says\n"
    "until when recordings are made and lists them.\n";

int ShowRecording() {
  const auto until = com::RecordingRequestedUntil();
  if (until && *until > FileTimeNow())
    std::cout << "recording: on until " << TimeText(*until) << "\n";
  else
    std::cout << "recording: off\n";
  const std::wstring folder = com::LogFolderPath();
  if (folder.empty())
    return 0;
  std::cout << "folder: " << Narrow(folder) << "\n";
  WIN32_FIND_DATAW found{};
  const com::UniqueFind search(com::OwnedOrEmpty(
      ::FindFirstFileW((folder + L"\\" + com::kRecordingPattern).c_str(), &found)));
  if (!search)
    return 0;
  do {
    std::cout << "  " << Narrow(found.cFileName) << " ("
              << ((std::uint64_t{found.nFileSizeHigh} << 32) | found.nFileSizeLow) << " bytes)\n";
  } while (::FindNextFileW(search.Get(), &found));
  return 0;
}

}  // namespace

int Record(const std::vector<std::string>& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::cout << kRecordUsage;
    return 0;
  }
  if (args.size() == 1 && args[0] == "show")
    return ShowRecording();
  if (args.size() == 1 && args[0] == "off") {
    if (!com::DeleteValue(HKEY_CURRENT_USER, com::kLogUserKey, com::kRecordUntilValue,
                          KEY_WOW64_64KEY)) {
      std::cerr << "tabforge record: cannot write HKEY_CURRENT_USER\\Software\\Tabforge\\Log\n";
      return 1;
    }
    return ShowRecording();
  }
  std::uint64_t minutes = 30;
  const bool on = !args.empty() && args[0] == "on";
  if (on && args.size() == 3 && args[1] == "--minutes") {
    try {
      std::size_t used = 0;
      minutes = std::stoull(args[2], &used);
      if (used != args[2].size() || minutes == 0 || minutes > 7 * 24 * 60)
        throw std::out_of_range("minutes");
    } catch (const std::exception&) {
      std::cerr << "tabforge record: --minutes takes a number from 1 to 10080 (a week)\n";
      return 2;
    }
  } else if (!on || args.size() != 1) {
    std::cerr << "tabforge record: say on, off or show\n" << kRecordUsage;
    return 2;
  }
  constexpr std::uint64_t kFileTimePerMinute = 60ULL * 10'000'000ULL;
  if (!com::WriteQword(HKEY_CURRENT_USER, com::kLogUserKey, com::kRecordUntilValue,
                       FileTimeNow() + minutes * kFileTimePerMinute, KEY_WOW64_64KEY)) {
    std::cerr << "tabforge record: cannot write HKEY_CURRENT_USER\\Software\\Tabforge\\Log\n";
    return 1;
  }
  if (com::ReadLogSwitch(HKEY_LOCAL_MACHINE, com::kLogPolicyKey) == com::LogSwitch::kOff)
    std::cout << "warning: the machine's policy turns the log off, and recordings with it\n";
  std::cout << "the library's next start records its session (restart the word processor)\n";
  return ShowRecording();
}

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
