#include "accessibility/accessible_tree.h"

#include <algorithm>
#include <charconv>

#include "platform/failure.h"
#include "platform/portable/portable_platform.h"

namespace tabforge {
namespace {

constexpr std::int32_t kNavigateFirstChild = 7;
constexpr std::int32_t kChildSelf = 0;
// What a refusing element reports: the generic failing status of the platform.
constexpr std::int32_t kUnspecifiedFailure = static_cast<std::int32_t>(0x80004005);

// The members answer only for the element itself; a child id other than CHILDID_SELF is refused,
// since these elements list their children as objects or leave them simple and unnamed.
void RequireSelf(std::span<Variant> arguments, std::size_t index) {
  if (arguments.size() > index && ToLong(arguments[index]) != kChildSelf)
    Raise(RunTimeError::kInvalidProcedureCall);
}

}  // namespace

AccessibleElement::AccessibleElement(std::int32_t role, Utf16String name, std::int32_t state)
    : role_(role), name_(std::move(name)), state_(state) {}

AccessibleElement::~AccessibleElement() {
  // A child that someone else still holds must not point at a parent that is gone.
  for (auto& entry : children_) {
    if (auto* owned = std::get_if<Ref<AccessibleElement>>(&entry);
        owned && (*owned)->parent_ == this)
      (*owned)->parent_ = nullptr;
  }
}

AccessibleElement& AccessibleElement::Add(Ref<AccessibleElement> child) {
  child->parent_ = this;
  AccessibleElement& added = *child;
  children_.emplace_back(std::move(child));
  return added;
}

AccessibleElement& AccessibleElement::Add(std::int32_t role, Utf16String name, std::int32_t state) {
  return Add(MakeRef<AccessibleElement>(role, std::move(name), state));
}

void AccessibleElement::AddSimpleChild(std::int32_t childId) {
  children_.emplace_back(childId);
}

void AccessibleElement::AddLink(AccessibleElement& target) {
  children_.emplace_back(&target);
}

void AccessibleElement::SetFailing(Utf16View member, bool failing) {
  auto it = std::find(failing_.begin(), failing_.end(), member);
  if (failing && it == failing_.end())
    failing_.emplace_back(member);
  else if (!failing && it != failing_.end())
    failing_.erase(it);
}

int AccessibleElement::Calls(Utf16View member) const {
  auto it = calls_.find(member);
  return it == calls_.end() ? 0 : it->second;
}

Variant AccessibleElement::EntryValue(const Entry& entry) {
  if (const auto* owned = std::get_if<Ref<AccessibleElement>>(&entry))
    return Variant(Ref<Object>(*owned));
  if (const auto* link = std::get_if<AccessibleElement*>(&entry))
    return Variant(Ref<Object>(*link));
  return Variant(std::get<std::int32_t>(entry));
}

Variant AccessibleElement::Invoke(Utf16View member, CallKind, std::span<Variant> arguments) {
  auto it = calls_.find(member);
  if (it == calls_.end())
    it = calls_.emplace(Utf16String(member), 0).first;
  ++it->second;
  if (std::find(failing_.begin(), failing_.end(), member) != failing_.end())
    Raise(kUnspecifiedFailure, u"Unspecified error");
  return Answer(member, arguments);
}

Variant AccessibleElement::Answer(Utf16View member, std::span<Variant> arguments) {
  if (member == u"accRole") {
    RequireSelf(arguments, 0);
    return Variant(role_);
  }
  if (member == u"accName") {
    RequireSelf(arguments, 0);
    return Variant(name_);
  }
  if (member == u"accState") {
    RequireSelf(arguments, 0);
    return Variant(state_);
  }
  if (member == u"accChildCount")
    return Variant(reportedCount_.value_or(static_cast<std::int32_t>(children_.size())));
  if (member == kPortableChildrenMember) {
    std::vector<Variant> entries;
    entries.reserve(children_.size());
    for (const auto& entry : children_)
      entries.push_back(EntryValue(entry));
    return Variant(VarType::VT_VARIANT, MakeArray(std::move(entries)));
  }
  if (member == u"accChild") {
    // The entry under a child id from 1: the element, or nothing for a simple child.
    const std::int32_t childId = arguments.empty() ? 0 : ToLong(arguments[0]);
    if (childId < 1 || static_cast<std::size_t>(childId) > children_.size())
      Raise(RunTimeError::kInvalidProcedureCall);
    const Variant entry = EntryValue(children_[static_cast<std::size_t>(childId) - 1]);
    return entry.type() == VarType::VT_DISPATCH ? entry : Variant();
  }
  if (member == u"accParent")
    return parent_ != nullptr ? Variant(Ref<Object>(parent_)) : Variant();
  if (member == u"accNavigate") {
    if (arguments.empty() || ToLong(arguments[0]) != kNavigateFirstChild)
      Raise(RunTimeError::kInvalidProcedureCall);
    RequireSelf(arguments, 1);
    // Like the platform: no first child is an empty answer, not a failure.
    return children_.empty() ? Variant() : EntryValue(children_.front());
  }
  if (member == u"accDoDefaultAction") {
    RequireSelf(arguments, 0);
    return Variant();
  }
  Raise(RunTimeError::kMemberNotFound);
}

AccessibleElement* AccessibleElement::Find(Utf16View name) {
  if (name_ == name)
    return this;
  for (auto& entry : children_) {
    if (auto* owned = std::get_if<Ref<AccessibleElement>>(&entry)) {
      if (AccessibleElement* found = (*owned)->Find(name))
        return found;
    }
  }
  return nullptr;
}

std::size_t AccessibleElement::CountElements() const {
  std::size_t count = 1;
  for (const auto& entry : children_) {
    if (const auto* owned = std::get_if<Ref<AccessibleElement>>(&entry))
      count += (*owned)->CountElements();
  }
  return count;
}

namespace {

struct LineParser {
  std::string_view rest;

  void SkipBlanks() {
    while (!rest.empty() && rest.front() == ' ')
      rest.remove_prefix(1);
  }
  std::string_view Word() {
    SkipBlanks();
    const auto end = std::min(rest.find(' '), rest.size());
    const auto word = rest.substr(0, end);
    rest.remove_prefix(end);
    return word;
  }
};

std::optional<std::int32_t> ParseNumber(std::string_view text) {
  int base = 10;
  bool negative = false;
  if (!text.empty() && text.front() == '-') {
    negative = true;
    text.remove_prefix(1);
  }
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  // Hexadecimal state masks may use the top bit; they keep their bits.
  const auto bits = static_cast<std::int32_t>(value);
  return negative ? -bits : bits;
}

struct ParsedLine {
  std::int32_t role = 0;
  Utf16String name;
  std::int32_t state = 0;
  std::optional<std::int32_t> count;
  bool simple = false;
  std::vector<Utf16String> failing;
};

std::string ParseLine(std::string_view text, ParsedLine& line) {
  LineParser parser{text};
  const auto role = ParseNumber(parser.Word());
  if (!role)
    return "role must be a number";
  line.role = *role;
  parser.SkipBlanks();
  if (parser.rest.empty() || parser.rest.front() != '"')
    return "name must follow the role in double quotes";
  const auto close = parser.rest.find('"', 1);
  if (close == std::string_view::npos)
    return "name has no closing quote";
  line.name = FromUtf8(parser.rest.substr(1, close - 1));
  parser.rest.remove_prefix(close + 1);
  if (!parser.rest.empty() && parser.rest.front() != ' ')
    return "blank expected behind the name";
  for (auto field = parser.Word(); !field.empty(); field = parser.Word()) {
    if (field == "simple") {
      line.simple = true;
    } else if (field.starts_with("state=")) {
      const auto state = ParseNumber(field.substr(6));
      if (!state)
        return "state must be a number";
      line.state = *state;
    } else if (field.starts_with("count=")) {
      line.count = ParseNumber(field.substr(6));
      if (!line.count)
        return "count must be a number";
    } else if (field.starts_with("fail=")) {
      auto members = field.substr(5);
      while (!members.empty()) {
        const auto comma = std::min(members.find(','), members.size());
        if (comma == 0)
          return "empty member name in fail=";
        line.failing.push_back(FromUtf8(members.substr(0, comma)));
        members.remove_prefix(std::min(comma + 1, members.size()));
      }
      if (line.failing.empty())
        return "fail= names no member";
    } else {
      return "unknown field '" + std::string(field) + "'";
    }
  }
  return {};
}

}  // namespace

ParsedTree ParseAccessibleTree(std::string_view text) {
  ParsedTree result;
  // The open elements, one per level; a line at level n goes below entry n - 1.
  std::vector<AccessibleElement*> open;
  bool lastWasSimple = false;
  int number = 0;
  auto fail = [&](std::string message) {
    result.root = nullptr;
    result.error = std::move(message);
    result.errorLine = number;
    return result;
  };
  while (!text.empty()) {
    ++number;
    const auto end = std::min(text.find('\n'), text.size());
    std::string_view raw = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!raw.empty() && raw.back() == '\r')
      raw.remove_suffix(1);
    const auto indent = raw.find_first_not_of(' ');
    if (indent == std::string_view::npos || raw[indent] == '#')
      continue;
    if (raw.find('\t') != std::string_view::npos)
      return fail("tabs are not allowed; indent with two blanks per level");
    if (indent % 2 != 0)
      return fail("indentation must be a multiple of two blanks");
    const auto level = indent / 2;
    if (level == 0 && result.root)
      return fail("a tree has exactly one root");
    if (level > open.size())
      return fail(lastWasSimple ? "a simple child has nothing below it"
                                : "indented more than one level");

    ParsedLine line;
    if (auto error = ParseLine(raw.substr(indent), line); !error.empty())
      return fail(std::move(error));
    open.resize(level);
    lastWasSimple = line.simple;
    if (line.simple) {
      if (level == 0)
        return fail("the root cannot be a simple child");
      // Child ids count from 1 among the siblings, as the platform numbers them.
      open.back()->AddSimpleChild(static_cast<std::int32_t>(open.back()->EntryCount() + 1));
      continue;
    }
    auto element = MakeRef<AccessibleElement>(line.role, std::move(line.name), line.state);
    element->SetReportedChildCount(line.count);
    for (const auto& member : line.failing)
      element->SetFailing(member);
    AccessibleElement* added = element.get();
    if (level == 0)
      result.root = std::move(element);
    else
      open.back()->Add(std::move(element));
    open.push_back(added);
  }
  if (!result.root)
    return fail("no element");
  return result;
}

std::string SampleRibbonText(std::u16string_view productName) {
  const std::string product = ToUtf8(productName);
  std::string text =
      "# The word processor's ribbon as its accessibility tree shows it.\n"
      "22 \"Ribbon\"\n"
      "  38 \"Ribbon\"\n"
      "    60 \"Ribbon Tabs\"\n"
      "      10 \"\"\n"
      "        37 \"Home\" state=0x2\n"
      "        37 \"Insert\"\n"
      "        37 \"Page Layout\"\n"
      "        37 \"References\"\n"
      "        37 \"Mailings\"\n"
      "        37 \"Review\"\n"
      "        37 \"View\"\n"
      "        37 \"" +
      product +
      "\"\n"
      "    20 \"Lower Ribbon\"\n"
      "      10 \"\"\n"
      "        20 \"Clipboard\"\n"
      "          43 \"Paste\"\n"
      "          43 \"Cut\"\n"
      "          43 \"Copy\"\n"
      "          40 \"\"\n"
      "        20 \"Font\"\n"
      "          43 \"Bold\"\n"
      "          43 \"Italic\" state=0x1\n"
      "          41 \"Font\"\n"
      "        20 \"Styles\"\n"
      "          43 \"Heading 1\"\n"
      "          43 \"Heading 2\" state=0x8000\n";
  return text;
}

}  // namespace tabforge
