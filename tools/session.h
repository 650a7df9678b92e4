// Replays a host session against Main2 and writes its transcript.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "platform/recording.h"
#include "platform/ref.h"
#include "platform/utf16.h"

namespace tabforge {
class AccessibleElement;
class Main2;
}  // namespace tabforge

namespace tabforge::cli {

struct SessionOptions {
  std::string iconDirectory;
  // Macros whose run fails in the template, as a macro that raises an error does.
  std::vector<std::string> failingMacros;
  // With `errors`, the session's own error component takes the place of "MorvelinError.Main2":
  // every call it receives is shown among the command's calls, it gives `answers` in turn (then
  // 7, leave), and it writes each dump to a file of `dumpDirectory` when one is given.
  bool errors = false;
  std::vector<std::int32_t> answers;
  std::string dumpDirectory;
  // The host's command line asks for tracing.
  bool trace = false;
  // A file to record the session into (not in the Windows build, whose recordings the library
  // itself writes).
  std::string recordFile;
};

// Lines of the calls made on the session's objects during one command, each indented by two
// blanks.
using CallLog = std::vector<std::string>;

// A picture as a result: absent, present with an unknown size, or present with its size in
// HIMETRIC, as automation pictures answer it.
struct SessionPicture {
  bool present = false;
  bool sized = false;
  std::int64_t widthHimetric = 0;
  std::int64_t heightHimetric = 0;
};

// The Main2 that a session drives, with the session's own signalling object and ribbon behind it:
// the core object directly, or the registered COM class by late binding. Every member logs the
// calls that the library makes on the session's objects into the target's log. A member throws
// `std::runtime_error` when the call itself could not be made.
class SessionTarget {
 public:
  virtual ~SessionTarget() = default;
  // Hands over the session's signalling object with the name.
  virtual void Initialize(Utf16View productName) = 0;
  // Hands over the session's ribbon.
  virtual void Ribbon() = 0;
  virtual Utf16String GetRibbonXML() = 0;
  virtual Utf16String GetLabel(Utf16View id) = 0;
  virtual Utf16String GetScreentip(Utf16View id) = 0;
  virtual bool GetEnabled(Utf16View id) = 0;
  virtual bool GetPressed(Utf16View id) = 0;
  virtual SessionPicture GetImage(Utf16View id) = 0;
  virtual SessionPicture LoadImage(Utf16View id) = 0;
  virtual void productNameChanged(Utf16View productName) = 0;
  virtual void RibbonCallback(Utf16View id, bool isOn) = 0;
  virtual void EnableToolbar(bool value) = 0;
  virtual void EnableGotoQuickBookmark(bool value) = 0;
  virtual void UpdateLexoscopeIcon(bool value) = 0;
  // Builds the tree of the file and activates the tab with it; "ok", or a message behind "!".
  virtual std::string ActivateTab(const std::string& treeFile) = 0;
};

// One command a line; blank lines and lines starting with '#' are ignored. For each command the
// transcript has one line per call logged into `log`, then one result line. Returns 0, or 2 after
// naming the first line that is no command (or whose call could not be made) on `errors`.
int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors, SessionTarget& target,
                  CallLog& log);

// Replays against a new core Main2 (not in the Windows build, which drives the registered class).
int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors,
                  const SessionOptions& options);

// Replays as above, then hands the session's Main2 to `inspect` while the session's objects are
// still alive; not called when the replay stops at a bad line.
int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors,
                  const SessionOptions& options, const std::function<void(Main2&)>& inspect);

// Reads the tree file, hands its root to `activate` (which passes it to activateMorvelinTab), and
// logs every press of an element; "ok", or a message behind "!" for a file that cannot be read or
// parsed.
std::string ActivateWithTreeFile(
    const std::string& path, CallLog& log,
    const std::function<void(const Ref<AccessibleElement>&)>& activate);

// The result line's text for a picture: pixels at 96 dots per inch.
std::string PictureResult(const SessionPicture& picture);

// A picture of the core, by its size as automation pictures answer it (not in the Windows build).
SessionPicture PictureOf(const Ref<Object>& picture);

}  // namespace tabforge::cli
