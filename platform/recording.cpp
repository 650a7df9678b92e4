#include "platform/recording.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

#include "platform/failure.h"

namespace tabforge {

std::string Quote(Utf16View text) {
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

std::optional<Utf16String> Unquote(std::string_view text, std::string_view* rest) {
  if (text.empty() || text[0] != '"')
    return std::nullopt;
  std::string plain;
  Utf16String out;
  for (std::size_t i = 1; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      out += FromUtf8(plain);
      if (rest != nullptr)
        *rest = text.substr(i + 1);
      return out;
    }
    if (c != '\\') {
      plain += c;
      continue;
    }
    if (++i >= text.size())
      return std::nullopt;
    if (text[i] == '"' || text[i] == '\\') {
      plain += text[i];
    } else if (text[i] == 'u' && i + 4 < text.size()) {
      unsigned code = 0;
      const auto [end, error] = std::from_chars(text.data() + i + 1, text.data() + i + 5, code, 16);
      if (error != std::errc() || end != text.data() + i + 5)
        return std::nullopt;
      out += FromUtf8(plain);
      plain.clear();
      out += static_cast<char16_t>(code);
      i += 4;
    } else {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

std::string PictureText(bool present,
                        std::optional<std::pair<std::int64_t, std::int64_t>> himetric) {
  if (!present)
    return "nothing";
  if (!himetric)
    return "picture";
  auto pixels = [](std::int64_t value) { return std::to_string((value * 96 + 1270) / 2540); };
  return "picture " + pixels(himetric->first) + "x" + pixels(himetric->second);
}

namespace recording {
namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Base64(const std::vector<std::uint8_t>& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::uint32_t n = (std::uint32_t{bytes[i]} << 16) |
                            (i + 1 < bytes.size() ? std::uint32_t{bytes[i + 1]} << 8 : 0) |
                            (i + 2 < bytes.size() ? bytes[i + 2] : 0);
    out += kBase64[(n >> 18) & 63];
    out += kBase64[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kBase64[(n >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kBase64[n & 63] : '=';
  }
  return out;
}

std::optional<std::vector<std::uint8_t>> FromBase64(std::string_view text) {
  if (text.size() % 4 != 0)
    return std::nullopt;
  std::vector<std::uint8_t> out;
  std::uint32_t bits = 0;
  int held = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '=') {
      if (i + 2 < text.size() || (i + 1 < text.size() && text[i + 1] != '='))
        return std::nullopt;
      break;
    }
    const char* at = std::char_traits<char>::find(kBase64, 64, text[i]);
    if (at == nullptr)
      return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(at - kBase64);
    if ((held += 6) >= 8) {
      held -= 8;
      out.push_back(static_cast<std::uint8_t>(bits >> held));
    }
  }
  return out;
}

const char* ElementName(VarType element) {
  switch (element) {
    case VarType::VT_I2:
      return "i2";
    case VarType::VT_I4:
      return "i4";
    case VarType::VT_BSTR:
      return "str";
    case VarType::VT_DISPATCH:
      return "obj";
    case VarType::VT_UI1:
      return "byte";
    default:
      return "var";
  }
}

std::optional<VarType> ElementNamed(std::string_view name) {
  for (VarType t : {VarType::VT_I2, VarType::VT_I4, VarType::VT_BSTR, VarType::VT_DISPATCH,
                    VarType::VT_UI1, VarType::VT_VARIANT}) {
    if (name == ElementName(t))
      return t;
  }
  return std::nullopt;
}

std::string_view Word(std::string_view& text) {
  while (!text.empty() && text[0] == ' ')
    text.remove_prefix(1);
  std::size_t end = 0;
  while (end < text.size() && text[end] != ' ' && text[end] != ',' && text[end] != ']' &&
         text[end] != ';')
    ++end;
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(end);
  return word;
}

template <class T>
std::optional<T> Number(std::string_view word) {
  T value{};
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size())
    return std::nullopt;
  return value;
}

std::string CallKindText(CallKind kind) {
  switch (kind) {
    case CallKind::kPropertyGet:
      return "[get]";
    case CallKind::kPropertyPut:
      return "[let]";
    case CallKind::kPropertyPutRef:
      return "[set]";
    case CallKind::kMethod:
      break;
  }
  return "";
}

}  // namespace

namespace {

// Appends the value's text to `out` while `out` stays within `limit` characters; past it the
// text is left cut short, longer than the limit, and nothing more is made of it.
void AppendValue(std::string& out, const Variant& value,
                 const std::function<std::string(const Object*)>& nameOf, std::size_t limit,
                 int depth) {
  if (out.size() > limit)
    return;
  if (depth > kMaxValueNesting) {
    out += "deep";  // no value: nothing reads it back
    return;
  }
  if (value.IsByRef()) {
    out += "ref ";
    AppendValue(out, value.Value(), nameOf, limit, depth + 1);
    return;
  }
  const VarType t = value.type();
  if (IsArrayType(t)) {
    const ArrayRef& array = value.Array();
    const VarType element = BaseType(t);
    if (!array) {
      out += std::string("array ") + ElementName(element) + " none";
      return;
    }
    if (const auto* bytes = std::get_if<std::vector<std::uint8_t>>(&array->elements)) {
      out += "bytes " + std::to_string(array->lowerBound) + " ";
      if (bytes->size() / 3 * 4 > limit - std::min(limit, out.size()))
        out.resize(limit + 1, '.');
      else
        out += Base64(*bytes);
      return;
    }
    out += std::string("array ") + ElementName(element) + " " + std::to_string(array->lowerBound) +
           " [";
    std::visit(
        [&](const auto& elements) {
          bool first = true;
          for (const auto& e : elements) {
            if (out.size() > limit)
              return;
            out += first ? "" : ", ";
            first = false;
            if constexpr (std::is_same_v<std::decay_t<decltype(e)>, Variant>)
              AppendValue(out, e, nameOf, limit, depth + 1);
            else
              AppendValue(out, Variant(e), nameOf, limit, depth + 1);
          }
        },
        array->elements);
    out += "]";
    return;
  }
  switch (t) {
    case VarType::VT_EMPTY:
      out += "empty";
      return;
    case VarType::VT_NULL:
      out += "null";
      return;
    case VarType::VT_I2:
      out += "i2 " + std::to_string(value.Number());
      return;
    case VarType::VT_I4:
      out += "i4 " + std::to_string(value.Number());
      return;
    case VarType::VT_UI1:
      out += "byte " + std::to_string(value.Number());
      return;
    case VarType::VT_BOOL:
      out += value.Number() == -1  ? "true"
             : value.Number() == 0 ? "false"
                                   : "bool " + std::to_string(value.Number());
      return;
    case VarType::VT_BSTR:
      out += "str " + Quote(value.String());
      return;
    case VarType::VT_DISPATCH:
    case VarType::VT_UNKNOWN: {
      const Ref<Object>& object = value.ObjectRef();
      out += std::string(t == VarType::VT_DISPATCH ? "obj " : "unk ") +
             (object ? nameOf(object.get()) : "nothing");
      return;
    }
    default:
      out += "other " + std::to_string(static_cast<int>(t));
      return;
  }
}

}  // namespace

std::string ValueText(const Variant& value, const std::function<std::string(const Object*)>& nameOf,
                      std::size_t limit) {
  std::string out;
  AppendValue(out, value, nameOf, limit, 0);
  return out;
}

namespace {

std::optional<Variant> ParseValueAt(std::string_view& text,
                                    const std::function<Ref<Object>(std::string_view)>& objectNamed,
                                    int depth) {
  if (depth > kMaxValueNesting)
    return std::nullopt;
  const std::string_view kind = Word(text);
  if (kind == "empty")
    return Variant();
  if (kind == "null")
    return Variant::Null();
  if (kind == "true" || kind == "false")
    return Variant(kind == "true" ? kTrue : kFalse);
  if (kind == "i2" || kind == "i4" || kind == "byte" || kind == "bool") {
    const auto n = Number<std::int32_t>(Word(text));
    if (!n)
      return std::nullopt;
    if (kind == "i4")
      return Variant(*n);
    if (kind == "byte" && *n >= 0 && *n <= 255)
      return Variant::Byte(static_cast<std::uint8_t>(*n));
    if (*n < -32768 || *n > 32767 || kind == "byte")
      return std::nullopt;
    return kind == "i2" ? Variant(static_cast<std::int16_t>(*n))
                        : Variant(static_cast<VariantBool>(static_cast<std::int16_t>(*n)));
  }
  if (kind == "str") {
    while (!text.empty() && text[0] == ' ')
      text.remove_prefix(1);
    auto string = Unquote(text, &text);
    if (!string)
      return std::nullopt;
    return Variant(std::move(*string));
  }
  if (kind == "obj" || kind == "unk") {
    const std::string_view name = Word(text);
    Ref<Object> object = name == "nothing" ? nullptr : objectNamed(name);
    return kind == "obj" ? Variant(std::move(object)) : Variant::Unknown(std::move(object));
  }
  if (kind == "bytes") {
    const auto lowerBound = Number<std::int32_t>(Word(text));
    auto bytes = FromBase64(Word(text));
    if (!lowerBound || !bytes)
      return std::nullopt;
    return Variant(VarType::VT_UI1, MakeArray(std::move(*bytes), *lowerBound));
  }
  if (kind == "array") {
    const auto element = ElementNamed(Word(text));
    if (!element)
      return std::nullopt;
    const std::string_view bound = Word(text);
    if (bound == "none")
      return Variant(*element, ArrayRef());
    const auto lowerBound = Number<std::int32_t>(bound);
    while (!text.empty() && text[0] == ' ')
      text.remove_prefix(1);
    if (!lowerBound || text.empty() || text[0] != '[')
      return std::nullopt;
    text.remove_prefix(1);
    std::vector<Variant> values;
    while (!text.empty() && text[0] != ']') {
      auto v = ParseValueAt(text, objectNamed, depth + 1);
      if (!v)
        return std::nullopt;
      values.push_back(std::move(*v));
      if (!text.empty() && text[0] == ',')
        text.remove_prefix(1);
    }
    if (text.empty())
      return std::nullopt;
    text.remove_prefix(1);
    ArrayRef array;
    try {
      switch (*element) {
        case VarType::VT_I2: {
          std::vector<std::int16_t> v;
          for (const Variant& x : values)
            v.push_back(ToInteger(x));
          array = MakeArray(std::move(v), *lowerBound);
          break;
        }
        case VarType::VT_I4: {
          std::vector<std::int32_t> v;
          for (const Variant& x : values)
            v.push_back(ToLong(x));
          array = MakeArray(std::move(v), *lowerBound);
          break;
        }
        case VarType::VT_BSTR: {
          std::vector<Utf16String> v;
          for (const Variant& x : values)
            v.push_back(ToBstr(x));
          array = MakeArray(std::move(v), *lowerBound);
          break;
        }
        case VarType::VT_DISPATCH: {
          std::vector<Ref<Object>> v;
          for (const Variant& x : values)
            v.push_back(x.type() == VarType::VT_DISPATCH ? x.ObjectRef() : nullptr);
          array = MakeArray(std::move(v), *lowerBound);
          break;
        }
        default:
          array = MakeArray(std::move(values), *lowerBound);
          break;
      }
    } catch (const Failure&) {
      return std::nullopt;
    }
    return Variant(*element, std::move(array));
  }
  return std::nullopt;
}

}  // namespace

std::optional<Variant> ParseValue(std::string_view& text,
                                  const std::function<Ref<Object>(std::string_view)>& objectNamed) {
  return ParseValueAt(text, objectNamed, 0);
}

std::string FailureText(std::int32_t number, Utf16View description) {
  return "failure " + std::to_string(number) + " " + Quote(description);
}

std::string CommandText(std::string_view member, std::span<const HostArgument> arguments) {
  std::string out(member);
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const HostArgument& a = arguments[i];
    if (a.kind == HostArgument::kObject) {
      // An object is implied by the member; only its absence is written.
      if (!a.objectName.empty())
        out += " " + a.objectName;
      continue;
    }
    out += ' ';
    if (a.kind == HostArgument::kTruth) {
      out += a.truth ? "true" : "false";
      continue;
    }
    const bool last = i + 1 == arguments.size();
    const Utf16View nothing = u"nothing";
    bool plain = !a.text.empty() && a.text.front() != u'"' && a.text.front() != u' ' &&
                 a.text.back() != u' ' && !(a.text == nothing || a.text.starts_with(u"nothing "));
    for (char16_t c : a.text)
      plain = plain && c >= 0x20 && c != 0x7F && (last || c != u' ');
    out += plain ? ToUtf8(a.text) : Quote(a.text);
  }
  return out;
}

// --- The objects and interfaces that write their calls --------------------------------------

namespace {

// Makes `call` and writes it while recording: `text()` when it begins, and `answerText(answer)`
// or the failure it threw when it ends.
template <class Text, class Call, class AnswerText>
auto Recorded(Recorder& recorder, Text&& text, Call&& call, AnswerText&& answerText) {
  if (!recorder.On())
    return call();
  CallRecord record(recorder, text());
  try {
    auto answer = call();
    record.Answer(answerText(answer));
    return answer;
  } catch (const Failure& failure) {
    record.Answer(FailureText(failure.number, failure.description));
    throw;
  }
}

// An object from outside as the library sees it while recording. It is a ribbon as well when the
// object it stands for is one.
class RecordedObject final : public RibbonUi {
 public:
  RecordedObject(Ref<Recorder> recorder, Ref<Object> inner, Ref<RibbonUi> ribbon, std::string name)
      : recorder_(std::move(recorder)),
        inner_(std::move(inner)),
        ribbon_(std::move(ribbon)),
        name_(std::move(name)) {}

  const Ref<Object>& inner() const { return inner_; }
  const std::string& name() const { return name_; }

  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override {
    std::vector<std::string> before;
    return Recorded(
        *recorder_,
        [&] {
          std::string text = name_ + "." + ToUtf8(member) + CallKindText(kind);
          for (const Variant& argument : arguments) {
            before.push_back(recorder_->Text(argument));
            text += (before.size() == 1 ? " " : ", ") + before.back();
          }
          return text;
        },
        [&] { return recorder_->WrapAnswer(inner_->Invoke(member, kind, arguments)); },
        [&](const Variant& answer) {
          std::string out = recorder_->Text(answer);
          // What the collaborator wrote into the library's variables, where it changed them.
          for (std::size_t i = 0; i < arguments.size(); ++i) {
            if (!arguments[i].IsByRef())
              continue;
            // An object written back is seen, like an answer's, only through the recording.
            const Variant value = arguments[i].Value();
            const Variant wrapped = recorder_->WrapAnswer(value);
            if (!(wrapped == value)) {
              try {
                AssignThrough(arguments[i], wrapped);
              } catch (const Failure&) {
              }
            }
            std::string after = recorder_->Text(wrapped);
            if ("ref " + after != before[i])
              out += "; " + std::to_string(i + 1) + " := " + after;
          }
          return out;
        });
  }

  Ref<RibbonUi> QueryRibbonUi() override {
    if (ribbon_)
      return Ref<RibbonUi>(this);
    Ref<RibbonUi> ribbon = Recorded(
        *recorder_, [&] { return name_ + ".QueryRibbonUi"; },
        [&] { return inner_->QueryRibbonUi(); },
        [](const Ref<RibbonUi>& answer) { return std::string(answer ? "yes" : "no"); });
    if (!ribbon)
      return nullptr;
    return MakeRef<RecordedObject>(recorder_, inner_, std::move(ribbon), name_);
  }

  void Invalidate() override {
    Ribbon([&] { return name_ + ".Invalidate"; }, [&] { ribbon_->Invalidate(); });
  }
  void InvalidateControl(const Utf16String& controlId) override {
    Ribbon([&] { return name_ + ".InvalidateControl " + Quote(controlId); },
           [&] { ribbon_->InvalidateControl(controlId); });
  }

 private:
  template <class Text, class Call>
  void Ribbon(Text&& text, Call&& call) {
    Recorded(
        *recorder_, text,
        [&] {
          call();
          return true;
        },
        [](bool) { return std::string("ok"); });
  }

  Ref<Recorder> recorder_;
  Ref<Object> inner_;
  Ref<RibbonUi> ribbon_;
  std::string name_;
};

class RecordedHost final : public HostEnvironment {
 public:
  RecordedHost(Recorder& recorder, HostEnvironment& inner) : recorder_(recorder), inner_(inner) {}
  // Only whether the command line asks for tracing is written: it may name a document.
  Utf16String CommandLine() const override {
    return Recorded(
        recorder_, [] { return std::string("host.CommandLine"); },
        [&] { return inner_.CommandLine(); },
        [](const Utf16String& line) {
          return Quote(line.find(u"/trace") != Utf16String::npos ? u"/trace" : u"");
        });
  }
  Utf16String GetSetting(Utf16View appName, Utf16View section, Utf16View key,
                         Utf16View defaultValue) const override {
    return Recorded(
        recorder_,
        [&] {
          return "host.GetSetting " + Quote(appName) + ", " + Quote(section) + ", " + Quote(key) +
                 ", " + Quote(defaultValue);
        },
        [&] { return inner_.GetSetting(appName, section, key, defaultValue); },
        [](const Utf16String& value) { return Quote(value); });
  }

 private:
  Recorder& recorder_;
  HostEnvironment& inner_;
};

class RecordedObjects final : public ObjectFactory {
 public:
  RecordedObjects(Recorder& recorder, ObjectFactory& inner) : recorder_(recorder), inner_(inner) {}
  Ref<Object> CreateObject(Utf16View progId) override {
    return Recorded(
        recorder_, [&] { return "objects.CreateObject " + Quote(progId); },
        [&] { return recorder_.Wrap(inner_.CreateObject(progId), "error"); },
        [&](const Ref<Object>& created) { return recorder_.Text(Variant(created)); });
  }

 private:
  Recorder& recorder_;
  ObjectFactory& inner_;
};

class RecordedSystem final : public SystemFacts {
 public:
  RecordedSystem(Recorder& recorder, SystemFacts& inner) : recorder_(recorder), inner_(inner) {}
  ScreenSize Screen() const override {
    return Recorded(
        recorder_, [] { return std::string("system.Screen"); }, [&] { return inner_.Screen(); },
        [](const ScreenSize& size) {
          return std::to_string(size.width) + "x" + std::to_string(size.height);
        });
  }
  std::optional<Utf16String> DefaultPrinter() const override {
    return Recorded(
        recorder_, [] { return std::string("system.DefaultPrinter"); },
        [&] { return inner_.DefaultPrinter(); },
        [](const std::optional<Utf16String>& name) {
          return name ? Quote(*name) : std::string("nothing");
        });
  }
  // The stack is the machine's own, not the session's: never written.
  std::uintptr_t StackFloor() const override { return inner_.StackFloor(); }

 private:
  Recorder& recorder_;
  SystemFacts& inner_;
};

class RecordedMessages final : public MessageQueue {
 public:
  RecordedMessages(Recorder& recorder, MessageQueue& inner) : recorder_(recorder), inner_(inner) {}
  bool PumpOnce(std::chrono::steady_clock::time_point deadline) override {
    return Recorded(
        recorder_, [] { return std::string("messages.PumpOnce"); },
        [&] { return inner_.PumpOnce(deadline); },
        [](const bool& going) { return std::string(going ? "true" : "false"); });
  }

 private:
  Recorder& recorder_;
  MessageQueue& inner_;
};

class RecordedAccessibility final : public AccessibilityApi {
 public:
  RecordedAccessibility(Recorder& recorder, AccessibilityApi& inner)
      : recorder_(recorder), inner_(inner) {}
  std::int32_t AccessibleChildren(const Ref<Object>& container, std::int32_t firstChild,
                                  std::int32_t count, Variant* children,
                                  std::int32_t* obtained) override {
    return Recorded(
        recorder_,
        [&] {
          return "accessibility.AccessibleChildren " + recorder_.Text(Variant(container)) +
                 ", i4 " + std::to_string(firstChild) + ", i4 " + std::to_string(count);
        },
        [&] {
          return inner_.AccessibleChildren(Recorder::Unwrap(container), firstChild, count, children,
                                           obtained);
        },
        [&](std::int32_t status) {
          std::string answer = std::to_string(status) + " [";
          const std::int32_t filled = obtained != nullptr ? std::min(*obtained, count) : 0;
          for (std::int32_t i = 0; i < filled; ++i) {
            children[i] = recorder_.WrapAnswer(children[i]);
            answer += (i == 0 ? "" : ", ") + recorder_.Text(children[i]);
          }
          return answer + "]";
        });
  }

 private:
  Recorder& recorder_;
  AccessibilityApi& inner_;
};

}  // namespace

struct Recorder::Wrappers {
  std::unique_ptr<RecordedHost> host;
  std::unique_ptr<RecordedObjects> objects;
  std::unique_ptr<RecordedSystem> system;
  std::unique_ptr<RecordedMessages> messages;
  std::unique_ptr<RecordedAccessibility> accessibility;
};

CallRecord::~CallRecord() {
  if (!ended_)
    recorder_.EndCall("abandoned");
}

Recorder::Recorder(Sink sink, Limits limits)
    : sink_(std::move(sink)), limits_(limits), wrappers_(std::make_unique<Wrappers>()) {}

bool Recorder::Write(std::string_view line) {
  if (!on_)
    return false;
  const auto size = static_cast<std::int64_t>(line.size()) + 2;
  // Room is kept for the line that says why the recording ends.
  constexpr std::int64_t kEndRoom = 128;
  if (written_ + size + kEndRoom > limits_.maxBytes) {
    End("it reached " + std::to_string(limits_.maxBytes) + " bytes");
    return false;
  }
  if (!sink_(line)) {
    on_ = false;
    return false;
  }
  written_ += size;
  return true;
}

void Recorder::End(std::string_view why) {
  if (!on_)
    return;
  on_ = false;
  sink_("# recording ends: " + std::string(why));
  open_.clear();
}

void Recorder::Comment(std::string_view text) {
  Write("# " + std::string(text));
}

void Recorder::FlushOpenCalls() {
  for (OpenCall& call : open_) {
    if (!call.written) {
      Write("#> " + call.text + " {");
      call.written = true;
    }
  }
}

void Recorder::HostCall(std::string_view command) {
  if (!on_)
    return;
  if (std::chrono::system_clock::now() >= limits_.until) {
    End("its time was up");
    return;
  }
  FlushOpenCalls();
  Write((open_.empty() ? "" : "#$ ") + std::string(command));
}

void Recorder::HostAnswer(std::string_view result) {
  FlushOpenCalls();
  Write("#= " + std::string(result));
}

void Recorder::BeginCall(std::string text) {
  if (!on_)
    return;
  FlushOpenCalls();
  open_.push_back({std::move(text), false});
}

void Recorder::EndCall(std::string_view answer) {
  if (!on_ || open_.empty())
    return;
  OpenCall call = std::move(open_.back());
  open_.pop_back();
  Write(call.written ? "#} => " + std::string(answer)
                     : "#> " + call.text + " => " + std::string(answer));
}

std::string Recorder::NextName(std::string_view role) {
  // Every object of a role is named by it: the host hands over a new reference to its object with
  // every call, and which one it was tells a replay nothing.
  if (!role.empty())
    return std::string(role);
  std::string name = std::to_string(nextNumber_++);
  name.insert(name.begin(), '@');
  return name;
}

Ref<Object> Recorder::Wrap(const Ref<Object>& object, std::string_view role) {
  if (!object || dynamic_cast<RecordedObject*>(object.get()) != nullptr)
    return object;
  return MakeRef<RecordedObject>(Ref<Recorder>(this), object, nullptr, NextName(role));
}

Ref<Object> Recorder::Unwrap(const Ref<Object>& object) {
  if (auto* recorded = dynamic_cast<RecordedObject*>(object.get()))
    return recorded->inner();
  return object;
}

std::string Recorder::NameOf(const Object* object) {
  if (auto* recorded = dynamic_cast<const RecordedObject*>(object))
    return recorded->name();
  return "ours";
}

std::string Recorder::Text(const Variant& value) const {
  // No more than the recording has room for: an answer of megabytes is never written out.
  const auto room =
      static_cast<std::size_t>(std::max<std::int64_t>(0, limits_.maxBytes - written_));
  return ValueText(value, &Recorder::NameOf, room);
}

Variant Recorder::WrapAnswer(const Variant& value) {
  const VarType t = value.type();
  if (t == VarType::VT_DISPATCH)
    return Variant(Wrap(value.ObjectRef()));
  if (t == VarType::VT_UNKNOWN)
    return Variant::Unknown(Wrap(value.ObjectRef()));
  if (!IsArrayType(t) || !value.Array())
    return value;
  auto copy = std::make_shared<VariantArray>(*value.Array());
  if (auto* objects = std::get_if<std::vector<Ref<Object>>>(&copy->elements)) {
    for (Ref<Object>& o : *objects)
      o = Wrap(o);
  } else if (auto* variants = std::get_if<std::vector<Variant>>(&copy->elements)) {
    for (Variant& v : *variants)
      v = WrapAnswer(v);
  } else {
    return value;
  }
  return Variant(BaseType(t), std::move(copy));
}

Platform Recorder::Wrap(const Platform& inner) {
  Platform out = inner;
  if (inner.host != nullptr) {
    wrappers_->host = std::make_unique<RecordedHost>(*this, *inner.host);
    out.host = wrappers_->host.get();
  }
  if (inner.objects != nullptr) {
    wrappers_->objects = std::make_unique<RecordedObjects>(*this, *inner.objects);
    out.objects = wrappers_->objects.get();
  }
  if (inner.system != nullptr) {
    wrappers_->system = std::make_unique<RecordedSystem>(*this, *inner.system);
    out.system = wrappers_->system.get();
  }
  if (inner.messages != nullptr) {
    wrappers_->messages = std::make_unique<RecordedMessages>(*this, *inner.messages);
    out.messages = wrappers_->messages.get();
  }
  if (inner.accessibility != nullptr) {
    wrappers_->accessibility = std::make_unique<RecordedAccessibility>(*this, *inner.accessibility);
    out.accessibility = wrappers_->accessibility.get();
  }
  return out;
}

}  // namespace recording
}  // namespace tabforge
