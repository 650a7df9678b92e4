// What every fuzz target shares: reading an input from the front (small numbers and byte runs,
// zeros once it has run out, so that a seed is easy to write by hand), the failure handler's
// answers, and stopping the run with a reason when a property breaks.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

namespace tabforge::fuzzing {

// Answers a failure handler can give; anything else is worth a try too.
inline constexpr std::int32_t kAnswers[] = {3, 4, 5, 6, 7, 8, 0, 9};

// Ends the run, saying what broke, unless `holds`.
[[gnu::format(printf, 2, 3)]] inline void Expect(bool holds, const char* format, ...) {
  if (holds)
    return;
  std::va_list arguments;
  va_start(arguments, format);
  std::fputs("broken: ", stderr);
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
  va_end(arguments);
  std::abort();
}

class InputBytes {
 public:
  explicit InputBytes(std::span<const std::uint8_t> data) : data_(data) {}

  std::uint8_t Byte() { return at_ < data_.size() ? data_[at_++] : 0; }
  std::uint16_t Word() {
    const std::uint16_t low = Byte();
    return static_cast<std::uint16_t>(low | (Byte() << 8));
  }
  // A number in [0, limit), from one byte.
  int Below(int limit) { return Byte() % limit; }
  std::vector<std::uint8_t> Take(std::size_t count) {
    count = count < data_.size() - at_ ? count : data_.size() - at_;
    std::vector<std::uint8_t> bytes(data_.begin() + at_, data_.begin() + at_ + count);
    at_ += count;
    return bytes;
  }
  std::vector<std::uint8_t> Rest() { return Take(data_.size() - at_); }

 private:
  std::span<const std::uint8_t> data_;
  std::size_t at_ = 0;
};

}  // namespace tabforge::fuzzing
