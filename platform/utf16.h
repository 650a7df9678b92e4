// Counted UTF-16 strings, the text type of everything that crosses the automation boundary.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace tabforge {

// Embedded code-0 characters are ordinary characters: the failure keys depend on that.
using Utf16String = std::u16string;
using Utf16View = std::u16string_view;

// Converts UTF-8 to UTF-16. A malformed sequence becomes U+FFFD rather than failing.
Utf16String FromUtf8(std::string_view text);

// Converts UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD.
std::string ToUtf8(Utf16View text);

// Copies `count` characters to `to` and returns the end of the copy. Most texts copied while
// composing are a few characters long, where a call to the library's copy costs more than the copy
// itself: up to 16 characters are moved as two overlapping blocks of fixed size.
inline char16_t* CopyChars(const char16_t* from, std::size_t count, char16_t* to) noexcept {
  const auto block = [](const char16_t* source, char16_t* target, auto bytes) {
    unsigned char buffer[decltype(bytes)::value];
    std::memcpy(buffer, source, sizeof buffer);
    std::memcpy(target, buffer, sizeof buffer);
  };
  if (count >= 8 && count <= 16) {
    block(from, to, std::integral_constant<std::size_t, 16>{});
    block(from + count - 8, to + count - 8, std::integral_constant<std::size_t, 16>{});
  } else if (count >= 4 && count < 8) {
    block(from, to, std::integral_constant<std::size_t, 8>{});
    block(from + count - 4, to + count - 4, std::integral_constant<std::size_t, 8>{});
  } else if (count > 16) {
    std::memcpy(to, from, count * sizeof(char16_t));
  } else {
    for (std::size_t i = 0; i < count; ++i)
      to[i] = from[i];
  }
  return to + count;
}

// Decimal text of a whole number: a leading minus sign when negative, no blank, no grouping.
Utf16String DecimalText(std::int64_t value);

}  // namespace tabforge
