#include "tools/session.h"

#include <fstream>
#include <istream>
#include <map>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "accessibility/accessible_tree.h"

namespace tabforge::cli {
namespace {

bool ParseBool(const std::string& text, bool& value) {
  if (text == "true") {
    value = true;
  } else if (text == "false") {
    value = false;
  } else {
    return false;
  }
  return true;
}

std::string BoolResult(bool value) {
  return value ? "true" : "false";
}

// Runs one command; returns its result text, or an error message behind "!" for a bad line.
std::string RunCommand(SessionTarget& target, const std::string& member, const std::string& rest,
                       bool hasArgument) {
  const Utf16String text = FromUtf8(rest);
  if (member == "Initialize") {
    target.Initialize(text);
    return "ok";
  }
  if (member == "ribbon" && !hasArgument) {
    target.Ribbon();
    return "ok";
  }
  if (member == "GetRibbonXML" && !hasArgument)
    return Quote(target.GetRibbonXML());
  if (member == "GetLabel")
    return Quote(target.GetLabel(text));
  if (member == "GetScreentip")
    return Quote(target.GetScreentip(text));
  if (member == "GetEnabled")
    return BoolResult(target.GetEnabled(text));
  if (member == "GetPressed")
    return BoolResult(target.GetPressed(text));
  if (member == "GetImage")
    return PictureResult(target.GetImage(text));
  if (member == "LoadImage")
    return PictureResult(target.LoadImage(text));
  if (member == "productNameChanged") {
    target.productNameChanged(text);
    return "ok";
  }
  if (member == "RibbonCallback") {
    const auto blank = rest.find(' ');
    bool isOn = false;
    if (blank != std::string::npos && !ParseBool(rest.substr(blank + 1), isOn)) {
      return "!RibbonCallback takes an id and optionally true or false";
    }
    target.RibbonCallback(FromUtf8(rest.substr(0, blank)), isOn);
    return "ok";
  }
  if (member == "activateMorvelinTab")
    return target.ActivateTab(rest);
  using Setter = void (SessionTarget::*)(bool);
  static const std::map<std::string, Setter, std::less<>> kSetters{
      {"EnableToolbar", &SessionTarget::EnableToolbar},
      {"EnableGotoQuickBookmark", &SessionTarget::EnableGotoQuickBookmark},
      {"UpdateLexoscopeIcon", &SessionTarget::UpdateLexoscopeIcon},
  };
  if (auto it = kSetters.find(member); it != kSetters.end()) {
    bool flag = false;
    if (!ParseBool(rest, flag))
      return "!" + member + " takes true or false";
    (target.*(it->second))(flag);
    return "ok";
  }
  return "!unknown command '" + member + "'";
}

}  // namespace

std::string PictureResult(const SessionPicture& picture) {
  std::optional<std::pair<std::int64_t, std::int64_t>> size;
  if (picture.sized)
    size.emplace(picture.widthHimetric, picture.heightHimetric);
  return PictureText(picture.present, size);
}

int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors, SessionTarget& target,
                  CallLog& log) {
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    if (line.empty() || line[0] == '#')
      continue;
    const auto blank = line.find(' ');
    const std::string member = line.substr(0, blank);
    const bool hasArgument = blank != std::string::npos;
    const std::string rest = hasArgument ? line.substr(blank + 1) : std::string();
    log.clear();
    std::string result;
    try {
      result = RunCommand(target, member, rest, hasArgument);
    } catch (const std::runtime_error& failure) {
      result = std::string("!") + failure.what();
    }
    if (!result.empty() && result[0] == '!') {
      errors << "tabforge session: line " << number << ": " << result.substr(1) << ": " << line
             << "\n";
      return 2;
    }
    for (const auto& call : log)
      out << call << "\n";
    out << "= " << result << "\n";
  }
  return 0;
}

std::string ActivateWithTreeFile(
    const std::string& path, CallLog& log,
    const std::function<void(const Ref<AccessibleElement>&)>& activate) {
  std::ifstream in(path);
  if (!in)
    return "!cannot read the tree file '" + path + "'";
  std::stringstream text;
  text << in.rdbuf();
  ParsedTree tree = ParseAccessibleTree(text.str());
  if (!tree.root)
    return "!" + path + ":" + std::to_string(tree.errorLine) + ": " + tree.error;
  activate(tree.root);
  tree.root->VisitAll([&](AccessibleElement& element) {
    for (int i = 0; i < element.presses(); ++i)
      log.push_back("  tree.accDoDefaultAction " + Quote(element.name()));
  });
  return "ok";
}

}  // namespace tabforge::cli
