// Session scripts into cli::ReplaySession, with the project's icons as the template's pictures:
// every script ends with status 0 or 2, and nothing crashes.
//
// activateMorvelinTab lines are left out: they read a file named by the script, and a search that
// finds no tab waits out the session's full three-second budget. fuzz_tabs covers the search with
// tiny bounds.
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

#include "fuzz/input_bytes.h"
#include "tools/session.h"

namespace {

// The script with every activateMorvelinTab line turned into a comment; line numbers stay.
std::string WithoutTabSearches(std::string_view text) {
  std::string script;
  script.reserve(text.size());
  constexpr std::string_view kSearch = "activateMorvelinTab";
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos)
      end = text.size();
    const std::string_view line = text.substr(start, end - start);
    if (line.substr(0, kSearch.size()) == kSearch)
      script += '#';
    script += line;
    if (end < text.size())
      script += '\n';
    start = end + 1;
  }
  return script;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream in(WithoutTabSearches({reinterpret_cast<const char*>(data), size}));
  std::ostringstream out;
  std::ostringstream errors;
  const int status = tabforge::cli::ReplaySession(
      in, out, errors, {.iconDirectory = TABFORGE_ICONS, .errors = true});
  tabforge::fuzzing::Expect(status == 0 || status == 2, "session status %d", status);
  return 0;
}
