#include "tools/session.h"

#include <cstdio>
#include <fstream>
#include <functional>
#include <istream>
#include <map>
#include <ostream>
#include <sstream>
#include <string_view>

#include "accessibility/accessible_tree.h"
#include "platform/call_by_name.h"
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tools/session_objects.h"

namespace tabforge::cli {
namespace {

struct Arguments {
  std::string rest;  // everything behind the member name and its blank
};

struct Session {
  PortablePlatform platform;
  VbwProtector protector{platform.View()};
  CallLog log;
  Ref<Object> signaller;
  Ref<Object> ribbon;
  Main2 main2{protector};

  explicit Session(const SessionOptions& options)
      : signaller(MakeRef<SessionSignaller>(log, options.iconDirectory)),
        ribbon(MakeRef<SessionRibbon>(log)) {
    protector.vbwInitializeProtector();
  }
};

bool ParseBool(const std::string& text, VariantBool& value) {
  if (text == "true") {
    value = kTrue;
  } else if (text == "false") {
    value = kFalse;
  } else {
    return false;
  }
  return true;
}

// Pictures answer their size in HIMETRIC, as automation pictures do; the transcript shows pixels
// at 96 dots per inch.
std::string PictureResult(const Ref<Object>& picture) {
  if (!picture)
    return "nothing";
  std::string text = "picture";
  try {
    auto pixels = [&](BstrView member) {
      const std::int64_t himetric = ToLong(CallByName(picture, member, CallKind::kPropertyGet));
      return std::to_string((himetric * 96 + 1270) / 2540);
    };
    text += " " + pixels(u"Width") + "x" + pixels(u"Height");
  } catch (const Failure&) {
  }
  return text;
}

std::string BoolResult(VariantBool value) {
  return IsTrue(value) ? "true" : "false";
}

// Builds the accessible tree of `path`, hands it to activateMorvelinTab as the command bar, and
// logs every element that was pressed.
std::string ActivateTab(Session& s, const std::string& path) {
  std::ifstream in(path);
  if (!in)
    return "!cannot read the tree file '" + path + "'";
  std::stringstream text;
  text << in.rdbuf();
  ParsedTree tree = ParseAccessibleTree(text.str());
  if (!tree.root) {
    return "!" + path + ":" + std::to_string(tree.errorLine) + ": " + tree.error;
  }
  s.main2.activateMorvelinTab(tree.root);
  tree.root->VisitAll([&](AccessibleElement& element) {
    for (int i = 0; i < element.presses(); ++i) {
      s.log.push_back("  tree.accDoDefaultAction " + Quote(element.name()));
    }
  });
  return "ok";
}

// Runs one command; returns its result text, or an error message behind "!" for a bad line.
std::string RunCommand(Session& s, const std::string& member, const std::string& rest,
                       bool hasArgument) {
  const Bstr text = FromUtf8(rest);
  VariantBool flag = kFalse;
  if (member == "Initialize") {
    s.main2.Initialize(s.signaller, text);
    return "ok";
  }
  if (member == "ribbon" && !hasArgument) {
    s.main2.ribbon(s.ribbon);
    return "ok";
  }
  if (member == "GetRibbonXML" && !hasArgument)
    return Quote(s.main2.GetRibbonXML());
  if (member == "GetLabel")
    return Quote(s.main2.GetLabel(text));
  if (member == "GetScreentip")
    return Quote(s.main2.GetScreentip(text));
  if (member == "GetEnabled")
    return BoolResult(s.main2.GetEnabled(text));
  if (member == "GetPressed")
    return BoolResult(s.main2.GetPressed(text));
  if (member == "GetImage")
    return PictureResult(s.main2.GetImage(text));
  if (member == "LoadImage")
    return PictureResult(s.main2.LoadImage(text));
  if (member == "productNameChanged") {
    s.main2.productNameChanged(text);
    return "ok";
  }
  if (member == "RibbonCallback") {
    const auto blank = rest.find(' ');
    VariantBool isOn = kFalse;
    if (blank != std::string::npos && !ParseBool(rest.substr(blank + 1), isOn)) {
      return "!RibbonCallback takes an id and optionally true or false";
    }
    s.main2.RibbonCallback(FromUtf8(rest.substr(0, blank)), isOn);
    return "ok";
  }
  if (member == "activateMorvelinTab")
    return ActivateTab(s, rest);
  using Setter = void (Main2::*)(VariantBool);
  static const std::map<std::string, Setter, std::less<>> kSetters{
      {"EnableToolbar", &Main2::EnableToolbar},
      {"EnableGotoQuickBookmark", &Main2::EnableGotoQuickBookmark},
      {"UpdateLexoscopeIcon", &Main2::UpdateLexoscopeIcon},
  };
  if (auto it = kSetters.find(member); it != kSetters.end()) {
    if (!ParseBool(rest, flag))
      return "!" + member + " takes true or false";
    (s.main2.*(it->second))(flag);
    return "ok";
  }
  return "!unknown command '" + member + "'";
}

}  // namespace

std::string Quote(const std::u16string& text) {
  std::string out = "\"";
  std::u16string plain;
  auto flush = [&] {
    out += ToUtf8(plain);
    plain.clear();
  };
  for (char16_t c : text) {
    if (c == u'"' || c == u'\\') {
      flush();
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      flush();
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(c));
      out += escape;
    } else {
      plain.push_back(c);
    }
  }
  flush();
  return out + "\"";
}

int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors,
                  const SessionOptions& options) {
  return ReplaySession(in, out, errors, options, nullptr);
}

int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors,
                  const SessionOptions& options, const std::function<void(Main2&)>& inspect) {
  Session session(options);
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
    session.log.clear();
    const std::string result = RunCommand(session, member, rest, hasArgument);
    if (!result.empty() && result[0] == '!') {
      errors << "tabforge session: line " << number << ": " << result.substr(1) << ": " << line
             << "\n";
      return 2;
    }
    for (const auto& call : session.log)
      out << call << "\n";
    out << "= " << result << "\n";
  }
  if (inspect)
    inspect(session.main2);
  return 0;
}

}  // namespace tabforge::cli
