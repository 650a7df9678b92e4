// Counted UTF-16 strings, the text type of everything that crosses the automation boundary.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tabforge {

// Embedded code-0 characters are ordinary characters: the failure keys depend on that.
using Bstr = std::u16string;
using BstrView = std::u16string_view;

// Converts UTF-8 to UTF-16. A malformed sequence becomes U+FFFD rather than failing.
Bstr FromUtf8(std::string_view text);

// Converts UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD.
std::string ToUtf8(BstrView text);

// Decimal text of a whole number: a leading minus sign when negative, no blank, no grouping.
Bstr DecimalText(std::int64_t value);

}  // namespace tabforge
