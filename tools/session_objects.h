// The host objects of a replayed session: a signalling object and a ribbon that record every call
// the library makes on them.
#pragma once

#include <deque>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/object.h"
#include "platform/variant.h"
#include "tools/session.h"

namespace tabforge::cli {

// Runs macros by recording them, and hands out icons as the bytes of DIR/N.png or DIR/N.gif; a
// number without a file gets a never-dimensioned array.
// A macro named in `failingMacros` fails with kMacroFailure after it is logged.
class SessionSignaller final : public Object {
 public:
  SessionSignaller(CallLog& log, std::string iconDirectory,
                   std::vector<std::string> failingMacros = {})
      : log_(log),
        iconDirectory_(std::move(iconDirectory)),
        failingMacros_(std::move(failingMacros)) {}
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

 private:
  CallLog& log_;
  std::string iconDirectory_;
  std::vector<std::string> failingMacros_;
};

// What a macro that fails in the template raises through Run.
inline constexpr std::int32_t kMacroFailure = 1004;

// The answer that leaves the procedure, given once the listed answers are used up.
inline constexpr std::int32_t kLeaveAnswer = 7;

// What the session's error components share: the answers still to give, the dumps written so
// far, and the dump file that is open.
struct ErrorComponentState {
  std::deque<std::int32_t> answers;
  std::string dumpDirectory;
  int dumps = 0;
  std::unique_ptr<std::ofstream> dump;
};

// An error component that shows every call it receives as a line of the command's calls,
// "  error.MEMBER ARGUMENTS", with the answer behind " => "; it writes a dump as the real
// component would, one file a dump (dump-1.txt, dump-2.txt, ...), with CR LF line ends.
class SessionErrorComponent final : public Object {
 public:
  SessionErrorComponent(CallLog& log, std::shared_ptr<ErrorComponentState> state)
      : log_(log), state_(std::move(state)) {}
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

 private:
  void Write(const std::string& text);
  CallLog& log_;
  std::shared_ptr<ErrorComponentState> state_;
};

class SessionRibbon final : public RibbonUi {
 public:
  explicit SessionRibbon(CallLog& log) : log_(log) {}
  void Invalidate() override;
  void InvalidateControl(const Utf16String& controlId) override;
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

 private:
  CallLog& log_;
};

}  // namespace tabforge::cli
