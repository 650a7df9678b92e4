// A session recording: every call from the host and every call that the library makes on its
// collaborators, with the answers, written as a session file whose comment lines hold the calls.
//
//   # tabforge recording ...                 a comment: the header, and why a recording ended
//   GetLabel MVN9x                           a call from the host, as a session command
//   #> error.vbwErrorHandler i4 13, ... => i4 7
//                                            a call on a collaborator and its answer
//   #= "Apply Morvelin"                      the answer of the host's call
//
// A collaborator call during which the host calls the library again (a macro that calls back)
// opens with "#> CALL {", holds the nested host calls as "#$ COMMAND" lines with their own calls
// and answers, and closes with "#} => ANSWER". Values are written as `ValueText` writes them, so
// that a replay can answer with them; objects are named by their role ("signaller", "ribbon",
// "bar", "error") or, when a collaborator hands one out, "@N" in order of appearance.
//
// The recording keeps what the calls carry and nothing else: control ids, the product name, macro
// names, settings of the library's own, the icons' bytes, the error component's calls; of the
// host's command line only whether it asks for tracing, since a word processor's command line may
// name a document.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/object.h"
#include "platform/platform.h"
#include "platform/ref.h"
#include "platform/utf16.h"
#include "platform/variant.h"

namespace tabforge {

// A text as the session's results show it: in double quotes, with \", \\ and \uXXXX for control
// characters, UTF-8 otherwise.
std::string Quote(Utf16View text);
// The text that `Quote` wrote, from the opening quote on; nothing when it is not one. `rest` is
// left after the closing quote.
std::optional<Utf16String> Unquote(std::string_view text, std::string_view* rest = nullptr);

// A picture as a result line shows it: "nothing", "picture" without a known size, or
// "picture WxH" in pixels at 96 dots per inch from a size in HIMETRIC.
std::string PictureText(bool present,
                        std::optional<std::pair<std::int64_t, std::int64_t>> himetric);

namespace recording {

inline constexpr std::string_view kHeader = "# tabforge recording";

// The roles of the objects that the host hands over: Initialize's signalling object, the ribbon,
// and the command bar that activateMorvelinTab searches.
inline constexpr std::string_view kSignallerRole = "signaller";
inline constexpr std::string_view kRibbonRole = "ribbon";
inline constexpr std::string_view kBarRole = "bar";

// What a recording may take: a file of at most `maxBytes`, written until `until`.
struct Limits {
  std::int64_t maxBytes = 1024 * 1024;
  std::chrono::system_clock::time_point until = std::chrono::system_clock::time_point::max();
};

// How a parameter of a host call is written: a text, a truth value, or an object (named by role).
struct HostArgument {
  enum Kind { kText, kTruth, kObject } kind = kText;
  Utf16String text;
  bool truth = false;
  std::string objectName;
};

// A host call as a command line: the member, then each argument after one blank. A text is
// written as it is when it is not empty, holds no control character, does not start with a quote
// or the word "nothing" and has no blank where a blank would end it (at either end, or anywhere
// when more arguments follow); otherwise quoted. An object is implied by the member and not
// written; its absence is written as "nothing" (the `objectName`).
std::string CommandText(std::string_view member, std::span<const HostArgument> arguments);

class Recorder;

// How deep arrays within arrays may be written and read: deeper than any answer the library
// takes from outside.
inline constexpr int kMaxValueNesting = 32;

// A value as text: "empty", "null", "true", "false", "bool N", "i2 N", "i4 N", "byte N",
// "str \"...\"", "obj NAME" (or nothing), "unk NAME", "bytes LOWER BASE64", "array TYPE none",
// "array TYPE LOWER [VALUE, ...]", a reference as "ref VALUE". Objects are named by `nameOf`.
// A text that would pass `limit` characters is cut short just past it.
std::string ValueText(const Variant& value, const std::function<std::string(const Object*)>& nameOf,
                      std::size_t limit = std::string::npos - 1);

// Reads a value that `ValueText` wrote, from the start of `text`; an object's name is turned into
// an object by `objectNamed` (which may answer nothing). Nothing when the text is no value.
std::optional<Variant> ParseValue(std::string_view& text,
                                  const std::function<Ref<Object>(std::string_view)>& objectNamed);

// The writer of one recording. Lines go to `sink` (false: not written, which ends the recording).
class Recorder : public RefCounted {
 public:
  using Sink = std::function<bool(std::string_view line)>;
  Recorder(Sink sink, Limits limits);

  bool On() const noexcept { return on_; }
  // Ends the recording with a comment that says why.
  void End(std::string_view why);
  void Comment(std::string_view text);

  // A call from the host begins (written as a command, or nested in an open collaborator call),
  // and ends with its answer's text.
  void HostCall(std::string_view command);
  void HostAnswer(std::string_view result);

  // A call on a collaborator: its text when it begins, its answer's text when it ends.
  void BeginCall(std::string text);
  void EndCall(std::string_view answer);

  // The object as the library should see it: every call on it is written. `role` names it; an
  // empty role gives it the next "@N". Nothing stays nothing, and a wrapped object stays as it is.
  Ref<Object> Wrap(const Ref<Object>& object, std::string_view role = {});
  // The wrapped object's inner one, or the object itself when it is none of ours.
  static Ref<Object> Unwrap(const Ref<Object>& object);
  // The name of a wrapped object, or "ours" for any other.
  static std::string NameOf(const Object* object);

  // The platform's collaborators written too; `inner` must outlive what is returned, and so must
  // this recorder.
  Platform Wrap(const Platform& inner);

  // Values as this recording writes them, objects of answers wrapped first.
  std::string Text(const Variant& value) const;
  Variant WrapAnswer(const Variant& value);

 private:
  struct OpenCall {
    std::string text;
    bool written = false;
  };
  bool Write(std::string_view line);
  void FlushOpenCalls();
  std::string NextName(std::string_view role);

  Sink sink_;
  Limits limits_;
  bool on_ = true;
  std::int64_t written_ = 0;
  std::vector<OpenCall> open_;
  int nextNumber_ = 1;
  struct Wrappers;
  std::unique_ptr<Wrappers> wrappers_;
};

// The end of a collaborator call, written when it leaves: its answer, or the failure it threw.
class CallRecord {
 public:
  CallRecord(Recorder& recorder, std::string text) : recorder_(recorder) {
    recorder_.BeginCall(std::move(text));
  }
  ~CallRecord();
  void Answer(std::string_view text) {
    recorder_.EndCall(text);
    ended_ = true;
  }
  CallRecord(const CallRecord&) = delete;
  CallRecord& operator=(const CallRecord&) = delete;

 private:
  Recorder& recorder_;
  bool ended_ = false;
};

// The text of a failure as an answer: "failure N \"description\"".
std::string FailureText(std::int32_t number, Utf16View description);

}  // namespace recording
}  // namespace tabforge
