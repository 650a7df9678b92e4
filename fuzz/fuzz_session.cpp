// Session scripts into cli::ReplaySession, with the project's icons as the template's pictures:
// every script ends with status 0 or 2, and nothing crashes.
//
// activateMorvelinTab lines are left out: they read a file named by the script, and a search that
// finds no tab waits out the session's full three-second budget. fuzz_tabs covers the search with
// tiny bounds.
#include <cstdint>
#include <regex>
#include <sstream>
#include <string>

#include "fuzz/input_bytes.h"
#include "tools/session.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Every activateMorvelinTab line becomes a comment; line numbers stay.
  static const std::regex kTabSearch("^activateMorvelinTab", std::regex::multiline);
  std::istringstream in(std::regex_replace(std::string(reinterpret_cast<const char*>(data), size),
                                           kTabSearch, "#$&"));
  std::ostringstream out;
  std::ostringstream errors;
  const int status = tabforge::cli::ReplaySession(
      in, out, errors, {.iconDirectory = TABFORGE_ICONS, .errors = true});
  tabforge::fuzzing::Expect(status == 0 || status == 2, "session status %d", status);
  return 0;
}
