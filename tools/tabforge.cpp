// tabforge: what the word processor would get from the library, without the word processor.
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tools/replay.h"
#include "tools/session.h"
#ifdef _WIN32
#include <windows.h>

#include <stdexcept>

#include "server/com_ptr.h"
#include "tools/com_session.h"
#include "tools/doctor.h"
#include "tools/log_command.h"
#include "tools/register_command.h"
#else
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tools/custom_ui_check.h"
#include "tools/portable_doctor.h"
#include "tools/preview.h"
#endif

using namespace tabforge;

namespace {

constexpr const char* kUsage =
    "usage: tabforge <command> [options]\n"
    "\n"
    "commands:\n"
    "  ribbon-xml [--product-name NAME] [--check]\n"
    "                                     print the custom-UI document\n"
    "  check [FILE]                       tell why the word processor would refuse a document\n"
    "  preview [--product-name NAME] [--icons DIR] [--session FILE] [-o FILE]\n"
    "                                     draw the ribbon as an HTML page\n"
    "  session [--icons DIR] [--errors ...] [--record OUT] [FILE]\n"
    "                                     replay a host session from FILE or standard input\n"
    "  session --replay RECORDING         replay a recording of a user's session (Linux)\n"
    "  register [--user | --machine] [--unregister] PATH\n"
    "                                     register Tabforge.dll at PATH, or remove it (Windows)\n"
    "  doctor [--bits 32|64] [--json] [--fix] [--template PATH]\n"
    "                                     tell why the add-in's tab is missing (Windows; on\n"
    "                                     Linux, over a machine a file describes: --machine)\n"
    "  trace on|off|show                  the user's tracing request (Windows)\n"
    "  log on|off|show [--lines N]        the flight log: switch it, or show the last start,\n"
    "                                     failures and lines (Windows)\n"
    "  record on [--minutes N] | off | show\n"
    "                                     record the word processor's sessions (Windows)\n"
    "\n"
    "Run 'tabforge <command> --help' for a command's options.\n";

constexpr const char* kRibbonXmlUsage =
    "usage: tabforge ribbon-xml [--product-name NAME] [--check]\n"
    "\n"
    "Prints the custom-UI document that Main2 gives after Initialize with NAME (default\n"
    "\"Morvelin\"), followed by one newline, and warns on standard error, naming every\n"
    "finding, when the word processor would refuse it. With --check, lists the findings as\n"
    "'tabforge check' does and exits with 1 when the word processor would refuse it.\n";

constexpr const char* kCheckUsage =
    "usage: tabforge check [FILE]\n"
    "\n"
    "Checks the custom-UI document in FILE (or standard input) and prints one line per way in\n"
    "which the word processor would refuse it, LINE:COLUMN: message. Exit status 0 when the\n"
    "document would be taken, 1 when not, 2 on bad usage.\n";

constexpr const char* kSessionUsage =
    "usage: tabforge session [--icons DIR] [--failing-macros LIST] [--errors [--answers LIST]\n"
    "                        [--dumps DIR]] [--trace] [--record OUT] [FILE]\n"
    "       tabforge session --replay RECORDING\n"
    "\n"
    "Replays a host session against a new Main2, one command a line: a member name and its\n"
    "arguments separated by one blank; a text argument that comes last takes the rest of the "
    "line;\n"
    "truth values are true or false. Blank lines and lines starting with '#' are ignored.\n"
    "\n"
    "  Initialize NAME          GetLabel ID        RibbonCallback ID [BOOL]\n"
    "  ribbon                   GetScreentip ID    productNameChanged NAME\n"
    "  GetRibbonXML             GetEnabled ID      EnableToolbar BOOL\n"
    "  GetImage ID              GetPressed ID      EnableGotoQuickBookmark BOOL\n"
    "  LoadImage ID             activateMorvelinTab TREEFILE\n"
    "                                              UpdateLexoscopeIcon BOOL\n"
    "\n"
    "For each command it prints the calls the library made on the session's objects, indented\n"
    "by two blanks, then one result line. Icons come from DIR/N.png or DIR/N.gif (default: the\n"
    "project's icons). activateMorvelinTab builds an accessibility tree from TREEFILE, passes it\n"
    "as the ribbon's command bar, and prints each element pressed; README.md gives the format.\n"
    "\n"
    "  --failing-macros LIST  the macros (comma-separated) whose run fails in the template\n"
    "  --errors               an error component of the session's own stands in for\n"
    "                         MorvelinError.Main2, and every call it receives is shown among\n"
    "                         the command's calls, \"  error.MEMBER ARGUMENTS\", its answer\n"
    "                         behind \" => \"; without it, failures are silent\n"
    "  --answers LIST         its answers to failures in turn, such as 8,7; then 7 (leave)\n"
    "  --dumps DIR            writes each dump to DIR/dump-N.txt as the component would, making "
    "DIR\n"
    "  --trace                the host's command line asks for tracing (\"/trace\")\n"
    "  --record OUT           also writes the session as a recording to OUT (Linux)\n"
    "  --replay RECORDING     replays a recording against the core (Linux): the host's calls\n"
    "                         again, every collaborator answered as recorded; prints the\n"
    "                         replay's own recording, and exits 1 naming the first line where\n"
    "                         it parts from RECORDING (tabforge record makes them on Windows)\n";

constexpr const char* kPreviewUsage =
    "usage: tabforge preview [--product-name NAME] [--icons DIR] [--session FILE] [-o FILE]\n"
    "\n"
    "Writes one self-contained HTML page (to FILE, or standard output) that draws the add-in's\n"
    "tab and its button on the References tab as the word processor lays them out: labels,\n"
    "tips, enabled and pressed states and pictures as Main2 answers them. Without --session,\n"
    "Main2 is initialized with NAME (default \"Morvelin\"); with it, the page shows the state\n"
    "after replaying FILE as 'tabforge session' does, renamed to NAME when one is given.\n";

#ifdef _WIN32
// Without the check (the Windows build has no XML library), the ways in which the product name
// alone makes the document refused: it stands, unescaped, in two labels of its own and in the
// first group's label before " Core Features", and a label has 1 to 1024 characters.
std::vector<std::string> NameRefusals(const Utf16String& name) {
  constexpr std::size_t kLongestLabel = 1024;
  constexpr std::size_t kGroupSuffix = 14;  // " Core Features"
  std::vector<std::string> reasons;
  if (name.empty())
    reasons.emplace_back("the product name is empty, so the tab and two groups get label=\"\"");
  if (name.size() > kLongestLabel) {
    reasons.push_back("the product name has " + std::to_string(name.size()) +
                      " characters, so the tab and the group on the References tab get labels "
                      "of more than 1024");
  }
  if (name.size() + kGroupSuffix > kLongestLabel) {
    reasons.push_back("the group label \"" + ToUtf8(name.substr(0, 20)) +
                      "... Core Features\" has " + std::to_string(name.size() + kGroupSuffix) +
                      " characters, more than 1024");
  }
  if (name.find_first_of(u"\"<&") != Utf16String::npos)
    reasons.emplace_back("the product name holds \", < or &, so the document is not well-formed");
  return reasons;
}
#endif

bool WantsHelp(const std::vector<std::string>& args) {
  for (const auto& a : args) {
    if (a == "--help" || a == "-h")
      return true;
  }
  return false;
}

int RibbonXml(const std::vector<std::string>& args) {
  if (WantsHelp(args)) {
    std::cout << kRibbonXmlUsage;
    return 0;
  }
  std::string name = "Morvelin";
  bool check = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--product-name" && i + 1 < args.size()) {
      name = args[++i];
    } else if (args[i] == "--check") {
      check = true;
    } else {
      std::cerr << "tabforge ribbon-xml: unexpected argument '" << args[i] << "'\n"
                << kRibbonXmlUsage;
      return 2;
    }
  }
#ifdef _WIN32
  if (check) {
    std::cerr << "tabforge ribbon-xml: --check is not available in the Windows build\n";
    return 2;
  }
  for (const auto& reason : NameRefusals(FromUtf8(name)))
    std::cerr << "tabforge ribbon-xml: warning: " << reason
              << ", which the word processor refuses\n";
  com::ComApartment apartment;
  try {
    std::cout << ToUtf8(cli::LateBoundRibbonXml(FromUtf8(name))) << "\n";
  } catch (const std::runtime_error& failure) {
    std::cerr << "tabforge ribbon-xml: " << failure.what() << "\n";
    return 1;
  }
  return 0;
#else
  PortablePlatform platform;
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  Main2 main2(protector);
  main2.Initialize(nullptr, FromUtf8(name));
  const std::string document = ToUtf8(main2.GetRibbonXML());
  std::cout << document << "\n";
  // Every document that the check refuses is named, asked for or not.
  const auto findings = cli::CheckCustomUi(document);
  if (!check && !findings.empty()) {
    std::cerr << "tabforge ribbon-xml: warning: the word processor refuses this document:\n";
  }
  for (const auto& finding : findings)
    std::cerr << (check ? "" : "  ") << cli::FormatFinding(finding) << "\n";
  return check && !findings.empty() ? 1 : 0;
#endif
}

// The session's target: the core Main2 here, the registered class on Windows.
int Replay(std::istream& in, const cli::SessionOptions& options) {
#ifdef _WIN32
  com::ComApartment apartment;
  cli::CallLog log;
  std::unique_ptr<cli::SessionTarget> target;
  try {
    target = cli::MakeLateBoundTarget(log, options);
  } catch (const std::runtime_error& failure) {
    std::cerr << "tabforge session: " << failure.what() << "\n";
    return 1;
  }
  const int status = cli::ReplaySession(in, std::cout, std::cerr, *target, log);
  target.reset();  // before the apartment ends
  return status;
#else
  try {
    return cli::ReplaySession(in, std::cout, std::cerr, options);
  } catch (const std::runtime_error& failure) {
    std::cerr << "tabforge session: " << failure.what() << "\n";
    return 2;
  }
#endif
}

// The icons beside the program: the Windows build has no source tree to point into.
std::string DefaultIcons() {
#ifdef _WIN32
  char path[MAX_PATH * 2] = {};
  const DWORD length = ::GetModuleFileNameA(nullptr, path, sizeof path);
  std::string folder(path, length);
  folder.erase(folder.find_last_of("\\/") + 1);
  return folder + "icons";
#else
  return TABFORGE_DEFAULT_ICONS;
#endif
}

#ifndef _WIN32
int Check(const std::vector<std::string>& args) {
  if (WantsHelp(args)) {
    std::cout << kCheckUsage;
    return 0;
  }
  if (args.size() > 1 || (args.size() == 1 && args[0].rfind("--", 0) == 0)) {
    std::cerr << "tabforge check: unexpected argument '" << args.back() << "'\n" << kCheckUsage;
    return 2;
  }
  std::stringstream text;
  if (args.empty() || args[0] == "-") {
    text << std::cin.rdbuf();
  } else {
    std::ifstream in(args[0], std::ios::binary);
    if (!in) {
      std::cerr << "tabforge check: cannot read '" << args[0] << "'\n";
      return 2;
    }
    text << in.rdbuf();
  }
  const auto findings = cli::CheckCustomUi(text.str());
  for (const auto& finding : findings)
    std::cout << cli::FormatFinding(finding) << "\n";
  return findings.empty() ? 0 : 1;
}
#endif

// "8,7": the answers in turn.
bool ParseAnswers(const std::string& text, std::vector<std::int32_t>& answers) {
  std::stringstream list(text);
  for (std::string item; std::getline(list, item, ',');) {
    try {
      std::size_t used = 0;
      const long long value = std::stoll(item, &used);
      if (used != item.size() || value < INT32_MIN || value > INT32_MAX)
        return false;
      answers.push_back(static_cast<std::int32_t>(value));
    } catch (const std::exception&) {
      return false;
    }
  }
  return !answers.empty();
}

int Session(const std::vector<std::string>& args) {
  if (WantsHelp(args)) {
    std::cout << kSessionUsage;
    return 0;
  }
  cli::SessionOptions options;
  options.iconDirectory = DefaultIcons();
  std::string file;
  std::string replay;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const bool hasValue = i + 1 < args.size();
    if (args[i] == "--icons" && hasValue) {
      options.iconDirectory = args[++i];
    } else if (args[i] == "--errors") {
      options.errors = true;
    } else if (args[i] == "--answers" && hasValue) {
      if (!ParseAnswers(args[++i], options.answers)) {
        std::cerr << "tabforge session: --answers takes whole numbers separated by commas, not '"
                  << args[i] << "'\n";
        return 2;
      }
    } else if (args[i] == "--dumps" && hasValue) {
      options.dumpDirectory = args[++i];
    } else if (args[i] == "--trace" || args[i] == "/trace") {
      options.trace = true;
    } else if (args[i] == "--record" && hasValue) {
      options.recordFile = args[++i];
    } else if (args[i] == "--replay" && hasValue) {
      replay = args[++i];
    } else if (args[i] == "--failing-macros" && hasValue) {
      std::stringstream list(args[++i]);
      for (std::string macro; std::getline(list, macro, ',');)
        options.failingMacros.push_back(macro);
    } else if (file.empty() && args[i].rfind("--", 0) != 0) {
      file = args[i];
    } else {
      std::cerr << "tabforge session: unexpected argument '" << args[i] << "'\n" << kSessionUsage;
      return 2;
    }
  }
  if (!replay.empty()) {
    if (!file.empty()) {
      std::cerr << "tabforge session: --replay takes the one file\n" << kSessionUsage;
      return 2;
    }
#ifdef _WIN32
    std::cerr << "tabforge session: --replay runs on Linux; copy the recording there\n";
    return 2;
#else
    std::ifstream in(replay, std::ios::binary);
    if (!in) {
      std::cerr << "tabforge session: cannot read '" << replay << "'\n";
      return 2;
    }
    return cli::ReplayRecording(in, std::cout, std::cerr);
#endif
  }
#ifdef _WIN32
  if (options.trace)
    cli::AskForTracingOnTheCommandLine();
  if (!options.recordFile.empty()) {
    std::cerr << "tabforge session: --record runs on Linux; on Windows, 'tabforge record on'\n";
    return 2;
  }
#endif
  if (file.empty() || file == "-")
    return Replay(std::cin, options);
  std::ifstream in(file);
  if (!in) {
    std::cerr << "tabforge session: cannot read '" << file << "'\n";
    return 2;
  }
  return Replay(in, options);
}

#ifndef _WIN32
int Preview(const std::vector<std::string>& args) {
  if (WantsHelp(args)) {
    std::cout << kPreviewUsage;
    return 0;
  }
  cli::PreviewOptions options;
  options.iconDirectory = DefaultIcons();
  std::string output;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const bool hasValue = i + 1 < args.size();
    if (args[i] == "--product-name" && hasValue) {
      options.productName = args[++i];
      options.productNameGiven = true;
    } else if (args[i] == "--icons" && hasValue) {
      options.iconDirectory = args[++i];
    } else if (args[i] == "--session" && hasValue) {
      options.sessionFile = args[++i];
    } else if (args[i] == "-o" && hasValue) {
      output = args[++i];
    } else {
      std::cerr << "tabforge preview: unexpected argument '" << args[i] << "'\n" << kPreviewUsage;
      return 2;
    }
  }
  std::ostringstream page;
  const int status = cli::WritePreview(page, std::cerr, options);
  if (status != 0)
    return status;
  if (output.empty() || output == "-") {
    std::cout << page.str();
    return 0;
  }
  std::ofstream out(output, std::ios::binary);
  if (!(out << page.str())) {
    std::cerr << "tabforge preview: cannot write '" << output << "'\n";
    return 2;
  }
  return 0;
}
#endif

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    (argc < 2 ? std::cerr : std::cout) << kUsage;
    return argc < 2 ? 2 : 0;
  }
  const std::string command = argv[1];
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "ribbon-xml")
    return RibbonXml(args);
  if (command == "session")
    return Session(args);
#ifdef _WIN32
  if (command == "register")
    return cli::Register(args);
  if (command == "doctor")
    return cli::Doctor(args);
  if (command == "trace")
    return cli::Trace(args);
  if (command == "log")
    return cli::Log(args);
  if (command == "record")
    return cli::Record(args);
  if (command == "check" || command == "preview") {
    std::cerr << "tabforge " << command
              << ": not available in the Windows build; use the Linux tool\n";
    return 2;
  }
#else
  if (command == "check")
    return Check(args);
  if (command == "preview")
    return Preview(args);
  if (command == "doctor")
    return cli::PortableDoctor(args);
  if (command == "register" || command == "trace" || command == "log" || command == "record") {
    std::cerr << "tabforge " << command
              << ": not available in the Linux build; use tabforge.exe on Windows\n";
    return 2;
  }
#endif
  std::cerr << "tabforge: unknown command '" << command << "'\n" << kUsage;
  return 2;
}
