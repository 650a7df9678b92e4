// Recordings into cli::ReplayRecording: a recording comes from a user's machine and is read as it
// is, so every input ends with status 0, 1 or 2, and nothing crashes or hangs.
#include <cstdint>
#include <sstream>
#include <string>

#include "fuzz/input_bytes.h"
#include "tools/replay.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::ostringstream out;
  std::ostringstream errors;
  const int status = tabforge::cli::ReplayRecording(in, out, errors);
  tabforge::fuzzing::Expect(status >= 0 && status <= 2, "replay status %d", status);
  return 0;
}
