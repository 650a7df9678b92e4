#include "tools/session_objects.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "platform/failure.h"
#include "tracing/call_by_name.h"

namespace tabforge::cli {
namespace {

// The next dump file in `directory`, which is made when it does not exist. A dump that cannot be
// written is said on standard error with the reason, and fails as a real component's would.
std::unique_ptr<std::ofstream> OpenDump(const std::string& directory, int number) {
  const std::filesystem::path folder(std::u8string(directory.begin(), directory.end()));
  const std::filesystem::path file = folder / ("dump-" + std::to_string(number) + ".txt");
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (!error) {
    errno = 0;
    auto dump = std::make_unique<std::ofstream>(file, std::ios::binary);
    if (*dump)
      return dump;
    error = std::error_code(errno != 0 ? errno : EIO, std::generic_category());
  }
  const std::u8string shown = file.u8string();
  std::fprintf(stderr, "tabforge session: dump %d cannot be written to %s: %s\n", number,
               std::string(shown.begin(), shown.end()).c_str(), error.message().c_str());
  Raise(75, u"Path/File access error");
}

bool ReadFile(const std::string& path, std::vector<std::uint8_t>& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

const char* TagName(VarType type) {
  switch (BaseType(type)) {
    case VarType::VT_EMPTY:
      return "EMPTY";
    case VarType::VT_NULL:
      return "NULL";
    case VarType::VT_I2:
      return "I2";
    case VarType::VT_I4:
      return "I4";
    case VarType::VT_BSTR:
      return "BSTR";
    case VarType::VT_DISPATCH:
      return "DISPATCH";
    case VarType::VT_ERROR:
      return "ERROR";
    case VarType::VT_BOOL:
      return "BOOL";
    case VarType::VT_VARIANT:
      return "VARIANT";
    case VarType::VT_UNKNOWN:
      return "UNKNOWN";
    case VarType::VT_UI1:
      return "UI1";
    default:
      return "?";
  }
}

// A value without its tag: numbers, truth values as true or false, texts quoted, objects as
// "object" or "nothing", arrays by their element count.
std::string Plain(const Variant& argument) {
  const Variant value = argument.Value();
  const VarType type = value.type();
  if (IsArrayType(type)) {
    return value.Array() ? std::to_string(value.Array()->Count()) + " elements" : "undimensioned";
  }
  switch (type) {
    case VarType::VT_EMPTY:
    case VarType::VT_NULL:
      return "";
    case VarType::VT_BSTR:
      return Quote(value.String());
    case VarType::VT_BOOL:
      if (value.Number() == 0 || value.Number() == -1)
        return value.Number() == 0 ? "false" : "true";
      return std::to_string(value.Number());
    case VarType::VT_DISPATCH:
    case VarType::VT_UNKNOWN:
      return value.ObjectRef() ? "object" : "nothing";
    default:
      return std::to_string(value.Number());
  }
}

// A value with its tag, as the component receives it: "I2 5", "BSTR \"x\"", "ARRAY(BSTR) 25
// elements".
std::string Shown(const Variant& argument) {
  const Variant value = argument.Value();
  const std::string plain = Plain(value);
  std::string tag = TagName(value.type());
  if (IsArrayType(value.type()))
    tag = "ARRAY(" + tag + ")";
  return plain.empty() ? tag : tag + " " + plain;
}

std::string StackNames(const Variant& depth, const Variant& stack) {
  const Variant array = stack.Value();
  if (!IsArrayType(array.type()) || !array.Array())
    return "no stack";
  const auto* names = std::get_if<std::vector<Utf16String>>(&array.Array()->elements);
  if (names == nullptr)
    return "no stack";
  std::string text;
  const std::int64_t top = std::min<std::int64_t>(ToLong(depth), array.Array()->UpperBound());
  for (std::int64_t k = array.Array()->lowerBound; k <= top; ++k) {
    if (!text.empty())
      text += ' ';
    text += Quote((*names)[static_cast<std::size_t>(k - array.Array()->lowerBound)]);
  }
  return text.empty() ? "empty" : text;
}

// The members the dump reads of the run time's objects, whichever of them an object has.
constexpr const char16_t* kObjectProperties[] = {
    u"Title",       u"EXEName", u"Major", u"Minor", u"Revision", u"Number",
    u"Description", u"Source",  u"Erl",   u"Width", u"Height",   u"DeviceName"};

}  // namespace

void SessionErrorComponent::Write(const std::string& text) {
  if (state_->dump)
    *state_->dump << text;
}

Variant SessionErrorComponent::Invoke(Utf16View member, CallKind, std::span<Variant> arguments) {
  const std::string name = ToUtf8(member);
  std::string line = "  error." + name;
  auto argument = [&](std::size_t i) -> const Variant& {
    if (i >= arguments.size())
      Raise(RunTimeError::kInvalidProcedureCall);
    return arguments[i];
  };
  if (member == u"vbwInitializeProtector") {
    static constexpr const char* kSwitches[] = {"vbwCatchException", "vbwTraceLine",
                                                "mOldTraceProc",     "vbwCallStack",
                                                "vbwSystemInfo",     "vbwScreenshot"};
    for (std::size_t i = 0; i < std::size(kSwitches); ++i)
      line.append(" ").append(kSwitches[i]).append("=").append(Plain(argument(i)));
    log_.push_back(line);
    return {};
  }
  if (member == u"vbwErrorHandler") {
    line.append(" ").append(std::to_string(ToLong(argument(0))));
    for (std::size_t i = 1; i <= 4; ++i)
      line.append(" ").append(Quote(ToBstr(argument(i))));
    line.append(" line ").append(std::to_string(ToLong(argument(5))));
    line.append(" depth ").append(std::to_string(ToLong(argument(6))));
    line.append(" stack ").append(StackNames(argument(6), argument(7)));
    std::int32_t answer = kLeaveAnswer;
    if (!state_->answers.empty()) {
      answer = state_->answers.front();
      state_->answers.pop_front();
    }
    log_.push_back(line + " => " + std::to_string(answer));
    return answer;
  }
  if (member == u"vbwOpenDumpFile") {
    log_.push_back(line);
    if (!state_->dumpDirectory.empty())
      state_->dump = OpenDump(state_->dumpDirectory, ++state_->dumps);
    return {};
  }
  if (member == u"vbwCloseDumpFile") {
    log_.push_back(line);
    if (state_->dump) {
      state_->dump->close();
      if (!*state_->dump) {
        std::fprintf(stderr, "tabforge session: dump %d was not written in full: %s\n",
                     state_->dumps, std::strerror(errno != 0 ? errno : EIO));
      }
    }
    state_->dump.reset();
    return {};
  }
  if (member == u"vbwReportToFile") {
    const Utf16String text = ToBstr(argument(0));
    log_.push_back(line + " " + Quote(text));
    Write(ToUtf8(text));
    return {};
  }
  if (member == u"vbwReportVariable") {
    const std::string variable = ToUtf8(ToBstr(argument(0)));
    const Variant value = argument(1).Value();
    log_.push_back(line + " " + Quote(FromUtf8(variable)) + " " + Shown(value) + " " +
                   std::to_string(ToLong(argument(2))));
    Write(variable + " = " + Shown(value) + "\r\n");
    // The elements of an array of texts or numbers, one a line; bytes only by their count.
    if (IsArrayType(value.type()) && value.Array() && BaseType(value.type()) != VarType::VT_UI1) {
      const auto& array = *value.Array();
      std::visit(
          [&](const auto& elements) {
            using Element = typename std::decay_t<decltype(elements)>::value_type;
            for (std::size_t k = 0; k < elements.size(); ++k) {
              Variant element;
              if constexpr (std::is_same_v<Element, std::uint8_t>) {
                element = Variant::Byte(elements[k]);
              } else {
                element = Variant(elements[k]);
              }
              Write("  " + variable + "(" + std::to_string(array.lowerBound + std::int64_t(k)) +
                    ") = " + Plain(element) + "\r\n");
            }
          },
          array.elements);
    }
    return {};
  }
  if (member == u"vbwReportObject") {
    const std::string object = ToUtf8(ToBstr(argument(0)));
    const Variant value = argument(1).Value();
    log_.push_back(line + " " + Quote(FromUtf8(object)) + " " + Shown(value) + " " +
                   std::to_string(ToLong(argument(2))));
    Write(object + " = " + Shown(value) + "\r\n");
    if (state_->dump && HoldsObject(value)) {
      const Ref<Object> target = ToObject(value);
      for (const char16_t* property : kObjectProperties) {
        try {
          const Variant read = CallByName(target, property, CallKind::kPropertyGet);
          Write("  " + object + "." + ToUtf8(property) + " = " + Plain(read) + "\r\n");
        } catch (const Failure&) {
        }
      }
    }
    return {};
  }
  if (member == u"vbwReportParameter") {
    const Utf16String piece = ToBstr(argument(0)) + u" = " + FromUtf8(Plain(argument(1)));
    log_.push_back(line + " " + Quote(ToBstr(argument(0))) + " " + Shown(argument(1)) + " => " +
                   Quote(piece));
    return piece;
  }
  if (member == u"vbwExitThread") {
    log_.push_back(line);
    return {};
  }
  Raise(RunTimeError::kMemberNotFound);
}

Variant SessionSignaller::Invoke(Utf16View member, CallKind, std::span<Variant> arguments) {
  if (member == u"Run" && arguments.size() == 1) {
    const std::string macro = ToUtf8(ToBstr(arguments[0]));
    log_.push_back("  signaller.Run " + macro);
    if (std::find(failingMacros_.begin(), failingMacros_.end(), macro) != failingMacros_.end())
      Raise(kMacroFailure, u"The macro '" + FromUtf8(macro) + u"' failed");
    return {};
  }
  if (member == u"getToolbarIconBits" && arguments.size() == 1) {
    const std::int16_t number = ToInteger(arguments[0]);
    log_.push_back("  signaller.getToolbarIconBits " + std::to_string(number));
    std::vector<std::uint8_t> bytes;
    for (const char* extension : {".png", ".gif"}) {
      if (ReadFile(iconDirectory_ + "/" + std::to_string(number) + extension, bytes)) {
        return Variant(VarType::VT_UI1, MakeArray(std::move(bytes)));
      }
    }
    return Variant(VarType::VT_UI1, nullptr);
  }
  Raise(RunTimeError::kMemberNotFound);
}

void SessionRibbon::Invalidate() {
  log_.push_back("  ribbon.Invalidate");
}

void SessionRibbon::InvalidateControl(const Utf16String& controlId) {
  log_.push_back("  ribbon.InvalidateControl " + ToUtf8(controlId));
}

Variant SessionRibbon::Invoke(Utf16View, CallKind, std::span<Variant>) {
  Raise(RunTimeError::kMemberNotFound);
}

}  // namespace tabforge::cli
