// Replays a host session against a new Main2 and writes its transcript.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>

namespace tabforge {
class Main2;
}

namespace tabforge::cli {

struct SessionOptions {
  std::string iconDirectory;
};

// One command a line; blank lines and lines starting with '#' are ignored. For each command the
// transcript has one line per call that the library made on the session's objects, then one
// result line. Returns 0, or 2 after naming the first line that is no command on `errors`.
int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors,
                  const SessionOptions& options);

// Replays as above, then hands the session's Main2 to `inspect` while the session's objects are
// still alive; not called when the replay stops at a bad line.
int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors,
                  const SessionOptions& options, const std::function<void(Main2&)>& inspect);

// A text as a result line shows it: in double quotes, with \", \\ and \uXXXX for control
// characters, UTF-8 otherwise.
std::string Quote(const std::u16string& text);

}  // namespace tabforge::cli
