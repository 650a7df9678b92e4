// tabforge: what the word processor would get from the library, without the word processor.
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tools/session.h"

using namespace tabforge;

namespace {

constexpr const char* kUsage =
    "usage: tabforge <command> [options]\n"
    "\n"
    "commands:\n"
    "  ribbon-xml [--product-name NAME]   print the custom-UI document\n"
    "  session [--icons DIR] [FILE]       replay a host session from FILE or standard input\n"
    "\n"
    "Run 'tabforge <command> --help' for a command's options.\n";

constexpr const char* kRibbonXmlUsage =
    "usage: tabforge ribbon-xml [--product-name NAME]\n"
    "\n"
    "Prints the custom-UI document that Main2 gives after Initialize with NAME (default\n"
    "\"Morvelin\"), followed by one newline.\n";

constexpr const char* kSessionUsage =
    "usage: tabforge session [--icons DIR] [FILE]\n"
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
    "as the ribbon's command bar, and prints each element pressed; README.md gives the format.\n";

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
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--product-name" && i + 1 < args.size()) {
      name = args[++i];
    } else {
      std::cerr << "tabforge ribbon-xml: unexpected argument '" << args[i] << "'\n"
                << kRibbonXmlUsage;
      return 2;
    }
  }
  if (name.empty()) {
    std::cerr << "tabforge ribbon-xml: warning: the product name is empty, so the tab and two "
                 "groups get label=\"\", which the word processor refuses\n";
  }
  PortablePlatform platform;
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  Main2 main2(protector);
  main2.Initialize(nullptr, FromUtf8(name));
  std::cout << ToUtf8(main2.GetRibbonXML()) << "\n";
  return 0;
}

int Session(const std::vector<std::string>& args) {
  if (WantsHelp(args)) {
    std::cout << kSessionUsage;
    return 0;
  }
  cli::SessionOptions options;
  options.iconDirectory = TABFORGE_DEFAULT_ICONS;
  std::string file;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--icons" && i + 1 < args.size()) {
      options.iconDirectory = args[++i];
    } else if (file.empty() && args[i].rfind("--", 0) != 0) {
      file = args[i];
    } else {
      std::cerr << "tabforge session: unexpected argument '" << args[i] << "'\n" << kSessionUsage;
      return 2;
    }
  }
  if (file.empty() || file == "-")
    return cli::ReplaySession(std::cin, std::cout, std::cerr, options);
  std::ifstream in(file);
  if (!in) {
    std::cerr << "tabforge session: cannot read '" << file << "'\n";
    return 2;
  }
  return cli::ReplaySession(in, std::cout, std::cerr, options);
}

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
  std::cerr << "tabforge: unknown command '" << command << "'\n" << kUsage;
  return 2;
}
