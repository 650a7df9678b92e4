#include "platform/utf16.h"

namespace tabforge {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf16(Utf16String& out, char32_t c) {
  if (c >= 0x10000) {
    c -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
  } else {
    out.push_back(static_cast<char16_t>(c));
  }
}

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

}  // namespace

Utf16String FromUtf8(std::string_view text) {
  Utf16String out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    int length = lead < 0x80           ? 1
                 : (lead >> 5) == 0x6  ? 2
                 : (lead >> 4) == 0xE  ? 3
                 : (lead >> 3) == 0x1E ? 4
                                       : 0;
    if (length == 0 || i + length > text.size()) {
      AppendUtf16(out, kReplacement);
      ++i;
      continue;
    }
    char32_t c = length == 1 ? lead : lead & (0xFF >> (length + 1));
    bool valid = true;
    for (int k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      valid = valid && (next & 0xC0) == 0x80;
      c = (c << 6) | (next & 0x3F);
    }
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (!valid || c < kSmallest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
      AppendUtf16(out, kReplacement);
      ++i;
      continue;
    }
    AppendUtf16(out, c);
    i += length;
  }
  return out;
}

std::string ToUtf8(Utf16View text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = kReplacement;
    }
    AppendUtf8(out, c);
  }
  return out;
}

Utf16String DecimalText(std::int64_t value) {
  char16_t digits[24];
  int n = 0;
  // Work in the negative range so that the smallest value needs no special case.
  std::int64_t rest = value < 0 ? value : -value;
  do {
    digits[n++] = static_cast<char16_t>(u'0' - rest % 10);
    rest /= 10;
  } while (rest != 0);
  Utf16String out;
  if (value < 0)
    out.push_back(u'-');
  while (n > 0)
    out.push_back(digits[--n]);
  return out;
}

}  // namespace tabforge
