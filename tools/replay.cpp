#include "tools/replay.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <istream>
#include <list>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/failure.h"
#include "platform/portable/portable_platform.h"
#include "platform/recording.h"
#include "ribbon/main2.h"
#include "tools/session.h"

namespace tabforge::cli {
namespace {

using recording::HostArgument;
using recording::Recorder;

// One line of the recording that the replay acts on: a host call, a collaborator call with the
// host calls made during it, or a host call's answer.
struct Item {
  enum Kind { kCommand, kCall, kResult } kind = kCommand;
  std::string text;
  std::string answer;
  bool answered = false;
  int line = 0;
  std::list<Item> nested;
};

// A recorded whole number; 0 for a text that is none or does not fit.
std::int32_t WholeNumber(std::string_view text) {
  std::int32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

// Where " => " stands outside the quotes of a line.
std::size_t FindArrow(std::string_view line) {
  bool quoted = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (quoted && line[i] == '\\') {
      ++i;
    } else if (line[i] == '"') {
      quoted = !quoted;
    } else if (!quoted && line.compare(i, 4, " => ") == 0) {
      return i;
    }
  }
  return std::string_view::npos;
}

struct Script {
  std::list<Item> items;
  // The lines that a replay writes again, with their numbers.
  std::vector<std::pair<int, std::string>> lines;
};

bool Parse(std::istream& in, Script& script, std::ostream& errors) {
  std::vector<std::list<Item>*> levels{&script.items};
  std::vector<Item*> open;
  std::string line;
  auto bad = [&](int number, const std::string& why) {
    errors << "tabforge session: line " << number << ": " << why << ": " << line << "\n";
    return false;
  };
  for (int number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    if (line.empty())
      continue;
    const std::string_view text(line);
    Item item;
    item.line = number;
    if (text.starts_with("#> ")) {
      item.kind = Item::kCall;
      const std::string_view call = text.substr(3);
      const std::size_t arrow = FindArrow(call);
      if (arrow != std::string_view::npos) {
        item.text = call.substr(0, arrow);
        item.answer = call.substr(arrow + 4);
        item.answered = true;
      } else if (call.ends_with(" {")) {
        item.text = call.substr(0, call.size() - 2);
      } else {
        return bad(number, "a call without its answer");
      }
    } else if (text.starts_with("#} => ")) {
      if (open.empty())
        return bad(number, "an answer without its call");
      open.back()->answer = text.substr(6);
      open.back()->answered = true;
      open.pop_back();
      levels.pop_back();
      script.lines.emplace_back(number, line);
      continue;
    } else if (text.starts_with("#$ ")) {
      if (open.empty())
        return bad(number, "a nested call from the host outside any call");
      item.text = text.substr(3);
    } else if (text.starts_with("#= ")) {
      item.kind = Item::kResult;
      item.text = text.substr(3);
    } else if (text[0] == '#') {
      continue;  // a comment
    } else {
      if (!open.empty())
        return bad(number, "a call from the host inside an unfinished call");
      item.text = line;
    }
    script.lines.emplace_back(number, line);
    Item& placed = levels.back()->emplace_back(std::move(item));
    if (placed.kind == Item::kCall && !placed.answered) {
      open.push_back(&placed);
      levels.push_back(&placed.nested);
    }
  }
  return true;
}

class Replay;

// A collaborator of the recording's machine: it answers each call as the recording says.
class ReplayObject final : public RibbonUi {
 public:
  explicit ReplayObject(Replay& replay) : replay_(replay) {}
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;
  Ref<RibbonUi> QueryRibbonUi() override;
  void Invalidate() override;
  void InvalidateControl(const Utf16String& controlId) override;

 private:
  Replay& replay_;
};

class Replay final : public HostEnvironment,
                     public ObjectFactory,
                     public SystemFacts,
                     public MessageQueue,
                     public AccessibilityApi {
 public:
  explicit Replay(Script& script) : levels_{{&script.items, script.items.begin()}} {
    Platform platform = portable_.View();
    platform.host = this;
    platform.objects = this;
    platform.system = this;
    platform.messages = this;
    platform.accessibility = this;
    recorder_ = MakeRef<Recorder>(
        [this](std::string_view line) {
          lines_.emplace_back(line);
          return true;
        },
        recording::Limits{INT64_MAX});
    platform_ = recorder_->Wrap(platform);
    protector_ = std::make_unique<VbwProtector>(platform_);
    protector_->vbwInitializeProtector();
    main2_ = std::make_unique<Main2>(*protector_);
  }

  // Runs the recording's host calls in turn.
  void Run() {
    while (Item* item = TakeAny()) {
      if (item->kind == Item::kCommand)
        RunCommand(*item);
    }
  }

  const std::vector<std::string>& lines() const { return lines_; }

  // The next item, which must be a collaborator call: anything else means the replay has parted
  // from the recording, and the call fails.
  Item& Call() {
    Item* call = Take(Item::kCall);
    if (call == nullptr)
      Raise(RunTimeError::kCannotPerformOperation);
    return *call;
  }

  // Runs the host calls made during `call`, then gives its answer: a value, "ok", or the failure
  // it threw, which is thrown here.
  std::string_view Answer(Item& call) {
    levels_.push_back({&call.nested, call.nested.begin()});
    while (Item* item = TakeAny()) {
      if (item->kind == Item::kCommand)
        RunCommand(*item);
    }
    levels_.pop_back();
    std::string_view answer = call.answer;
    if (answer.starts_with("failure ")) {
      answer.remove_prefix(8);
      const std::size_t blank = answer.find(' ');
      Failure failure;
      failure.number = WholeNumber(answer.substr(0, blank));
      if (blank != std::string_view::npos)
        failure.description = Unquote(answer.substr(blank + 1)).value_or(Utf16String());
      throw failure;
    }
    if (!call.answered || answer == "abandoned")
      Raise(RunTimeError::kCannotPerformOperation);
    return answer;
  }

  // A value of an answer; a recorded object becomes a new collaborator.
  Variant Value(std::string_view& text) {
    auto value = recording::ParseValue(
        text, [this](std::string_view) { return Ref<Object>(MakeRef<ReplayObject>(*this)); });
    if (!value)
      Raise(RunTimeError::kCannotPerformOperation);
    return std::move(*value);
  }

  // --- The platform of the recording's machine -------------------------------------------------

  Utf16String CommandLine() const override { return Text(); }
  Utf16String GetSetting(Utf16View, Utf16View, Utf16View, Utf16View) const override {
    return Text();
  }
  Ref<Object> CreateObject(Utf16View) override {
    std::string_view answer = Answer(Call());
    return ToObject(Value(answer));
  }
  ScreenSize Screen() const override {
    const std::string answer(self().Answer(self().Call()));
    ScreenSize size;
    if (std::sscanf(answer.c_str(), "%dx%d", &size.width, &size.height) != 2)
      Raise(RunTimeError::kCannotPerformOperation);
    return size;
  }
  std::optional<Utf16String> DefaultPrinter() const override {
    const std::string_view answer = self().Answer(self().Call());
    if (answer == "nothing")
      return std::nullopt;
    return Unquote(answer).value_or(Utf16String());
  }
  std::uintptr_t StackFloor() const override { return portable_.system.StackFloor(); }
  bool PumpOnce(std::chrono::steady_clock::time_point) override { return Answer(Call()) == "true"; }
  std::int32_t AccessibleChildren(const Ref<Object>&, std::int32_t, std::int32_t count,
                                  Variant* children, std::int32_t* obtained) override {
    *obtained = 0;
    std::string_view answer;
    try {
      answer = Answer(Call());
    } catch (const Failure&) {
      return -1;
    }
    const std::size_t open = answer.find(" [");
    const std::int32_t status = WholeNumber(answer.substr(0, open));
    if (open == std::string_view::npos)
      return status;
    answer.remove_prefix(open + 2);
    while (!answer.empty() && answer[0] != ']' && *obtained < count) {
      try {
        children[(*obtained)++] = Value(answer);
      } catch (const Failure&) {
        break;
      }
      if (!answer.empty() && answer[0] == ',')
        answer.remove_prefix(1);
    }
    return status;
  }

 private:
  struct Level {
    std::list<Item>* items;
    std::list<Item>::iterator next;
  };

  Replay& self() const { return const_cast<Replay&>(*this); }

  Item* TakeAny() {
    Level& level = levels_.back();
    return level.next == level.items->end() ? nullptr : &*level.next++;
  }
  Item* Take(Item::Kind kind) {
    Level& level = levels_.back();
    if (level.next == level.items->end() || level.next->kind != kind)
      return nullptr;
    return &*level.next++;
  }
  Utf16String Text() const {
    const std::string_view answer = self().Answer(self().Call());
    auto text = Unquote(answer);
    if (!text)
      Raise(RunTimeError::kCannotPerformOperation);
    return *text;
  }

  void RunCommand(const Item& command);

  PortablePlatform portable_;
  std::vector<Level> levels_;
  Ref<Recorder> recorder_;
  Platform platform_;
  std::unique_ptr<VbwProtector> protector_;
  std::unique_ptr<Main2> main2_;
  std::vector<std::string> lines_;
};

Variant ReplayObject::Invoke(Utf16View, CallKind, std::span<Variant> arguments) {
  Item& call = replay_.Call();
  std::string_view answer = replay_.Answer(call);
  Variant value = replay_.Value(answer);
  // Values written back into the library's variables: "; N := VALUE".
  while (answer.starts_with("; ")) {
    answer.remove_prefix(2);
    const std::size_t assign = answer.find(" := ");
    const std::size_t index =
        static_cast<std::size_t>(std::max(0, WholeNumber(answer.substr(0, assign))));
    if (assign == std::string_view::npos || index < 1 || index > arguments.size())
      Raise(RunTimeError::kCannotPerformOperation);
    answer.remove_prefix(assign + 4);
    AssignThrough(arguments[index - 1], replay_.Value(answer));
  }
  return value;
}

Ref<RibbonUi> ReplayObject::QueryRibbonUi() {
  if (replay_.Answer(replay_.Call()) != "yes")
    return nullptr;
  return Ref<RibbonUi>(this);
}

void ReplayObject::Invalidate() {
  replay_.Answer(replay_.Call());
}

void ReplayObject::InvalidateControl(const Utf16String&) {
  replay_.Answer(replay_.Call());
}

// The parameters of a host call, as the recording writes them.
struct Member {
  std::string_view name;
  std::vector<HostArgument::Kind> parameters;
  std::string_view role;  // of its object parameter
};

const std::vector<Member>& Members() {
  using enum HostArgument::Kind;
  static const std::vector<Member> members{
      {"Initialize", {kObject, kText}, recording::kSignallerRole},
      {"ribbon", {kObject}, recording::kRibbonRole},
      {"GetRibbonXML", {}, {}},
      {"productNameChanged", {kText}, {}},
      {"GetLabel", {kText}, {}},
      {"GetEnabled", {kText}, {}},
      {"GetPressed", {kText}, {}},
      {"GetScreentip", {kText}, {}},
      {"GetImage", {kText}, {}},
      {"LoadImage", {kText}, {}},
      {"RibbonCallback", {kText, kTruth}, {}},
      {"EnableGotoQuickBookmark", {kTruth}, {}},
      {"UpdateLexoscopeIcon", {kTruth}, {}},
      {"EnableToolbar", {kTruth}, {}},
      {"activateMorvelinTab", {kObject}, recording::kBarRole},
  };
  return members;
}

// Reads a command's arguments from what follows the member's name; false when the line does not
// fit the member.
bool ParseArguments(const Member& member, std::string_view rest,
                    std::vector<HostArgument>& arguments) {
  for (std::size_t i = 0; i < member.parameters.size(); ++i) {
    HostArgument argument;
    argument.kind = member.parameters[i];
    if (argument.kind == HostArgument::kObject) {
      if (rest == " nothing" || rest.starts_with(" nothing ")) {
        argument.objectName = "nothing";
        rest.remove_prefix(8);
      }
      arguments.push_back(std::move(argument));
      continue;
    }
    if (!rest.starts_with(' '))
      return false;
    rest.remove_prefix(1);
    const bool last = i + 1 == member.parameters.size();
    if (argument.kind == HostArgument::kTruth) {
      const std::string_view word = rest.substr(0, rest.find(' '));
      if (word != "true" && word != "false")
        return false;
      argument.truth = word == "true";
      rest.remove_prefix(word.size());
    } else if (rest.starts_with('"')) {
      auto text = Unquote(rest, &rest);
      if (!text)
        return false;
      argument.text = std::move(*text);
    } else {
      const std::string_view word = last ? rest : rest.substr(0, rest.find(' '));
      argument.text = FromUtf8(word);
      rest.remove_prefix(word.size());
    }
    arguments.push_back(std::move(argument));
  }
  return rest.empty();
}

VariantBool Flag(bool value) {
  return value ? kTrue : kFalse;
}

void Replay::RunCommand(const Item& command) {
  const std::string_view line = command.text;
  const std::string_view name = line.substr(0, line.find(' '));
  const Member* member = nullptr;
  for (const Member& m : Members()) {
    if (m.name == name)
      member = &m;
  }
  std::vector<HostArgument> arguments;
  if (member == nullptr || !ParseArguments(*member, line.substr(name.size()), arguments)) {
    // Written as it stands, so that the transcripts part here.
    recorder_->HostCall("?" + command.text);
    return;
  }
  Ref<Object> object;
  for (const HostArgument& argument : arguments) {
    if (argument.kind == HostArgument::kObject && argument.objectName.empty())
      object = recorder_->Wrap(MakeRef<ReplayObject>(*this), member->role);
  }
  recorder_->HostCall(recording::CommandText(name, arguments));
  auto text = [&](std::size_t i) { return arguments[i].text; };
  auto truth = [&](std::size_t i) { return Flag(arguments[i].truth); };
  std::string result = "ok";
  Main2& m = *main2_;
  if (name == "Initialize")
    m.Initialize(object, text(1));
  else if (name == "ribbon")
    m.ribbon(object);
  else if (name == "GetRibbonXML")
    result = Quote(m.GetRibbonXML());
  else if (name == "productNameChanged")
    m.productNameChanged(text(0));
  else if (name == "GetLabel")
    result = Quote(m.GetLabel(text(0)));
  else if (name == "GetEnabled")
    result = IsTrue(m.GetEnabled(text(0))) ? "true" : "false";
  else if (name == "GetPressed")
    result = IsTrue(m.GetPressed(text(0))) ? "true" : "false";
  else if (name == "GetScreentip")
    result = Quote(m.GetScreentip(text(0)));
  else if (name == "GetImage")
    result = PictureResult(PictureOf(m.GetImage(text(0))));
  else if (name == "LoadImage")
    result = PictureResult(PictureOf(m.LoadImage(text(0))));
  else if (name == "RibbonCallback")
    m.RibbonCallback(text(0), truth(1));
  else if (name == "EnableGotoQuickBookmark")
    m.EnableGotoQuickBookmark(truth(0));
  else if (name == "UpdateLexoscopeIcon")
    m.UpdateLexoscopeIcon(truth(0));
  else if (name == "EnableToolbar")
    m.EnableToolbar(truth(0));
  else if (name == "activateMorvelinTab")
    m.activateMorvelinTab(object);
  recorder_->HostAnswer(result);
  Take(Item::kResult);
}

}  // namespace

int ReplayRecording(std::istream& in, std::ostream& out, std::ostream& errors) {
  Script script;
  if (!Parse(in, script, errors))
    return 2;
  Replay replay(script);
  replay.Run();
  const auto& replayed = replay.lines();
  for (const std::string& line : replayed)
    out << line << "\n";
  for (std::size_t i = 0; i < std::max(replayed.size(), script.lines.size()); ++i) {
    if (i < replayed.size() && i < script.lines.size() && replayed[i] == script.lines[i].second)
      continue;
    const int number = i < script.lines.size() ? script.lines[i].first : -1;
    errors << "tabforge session: the replay parts from the recording ";
    if (number > 0)
      errors << "at line " << number << ": recorded '" << script.lines[i].second << "'";
    else
      errors << "after its end";
    errors << ", replayed '" << (i < replayed.size() ? replayed[i] : std::string("nothing"))
           << "'\n";
    return 1;
  }
  return 0;
}

}  // namespace tabforge::cli
