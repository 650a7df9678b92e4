#include "ribbon/string_extensions.h"

#include <algorithm>

namespace tabforge {
namespace {

char16_t FoldCase(char16_t c) {
  return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + (u'a' - u'A')) : c;
}

// The first occurrence of `find` (not empty) in `text` at or behind `at`, or npos. A plain scan for
// the first character: the texts are short, and the library's generic search for 16-bit characters
// is several times slower here.
template <bool kIgnoreCase>
std::size_t NextMatch(BstrView text, BstrView find, std::size_t at) {
  if (find.size() > text.size())
    return BstrView::npos;
  auto same = [](char16_t a, char16_t b) {
    return kIgnoreCase ? FoldCase(a) == FoldCase(b) : a == b;
  };
  const std::size_t last = text.size() - find.size();
  for (; at <= last; ++at) {
    if (same(text[at], find[0]) &&
        std::equal(find.begin() + 1, find.end(), text.begin() + static_cast<std::ptrdiff_t>(at + 1),
                   same)) {
      return at;
    }
  }
  return BstrView::npos;
}

template <bool kIgnoreCase>
Bstr Replace(BstrView text, BstrView find, BstrView replacement, std::int32_t count) {
  auto wanted = [&](std::int32_t replaced) { return count < 0 || replaced < count; };
  // Measure first, so that the result is allocated once and written once.
  std::size_t length = text.size();
  std::int32_t replaced = 0;
  for (std::size_t at = NextMatch<kIgnoreCase>(text, find, 0);
       at != BstrView::npos && wanted(replaced);
       at = NextMatch<kIgnoreCase>(text, find, at + find.size())) {
    length = length - find.size() + replacement.size();
    ++replaced;
  }
  if (replaced == 0)
    return Bstr(text);
  Bstr result(length, u'\0');
  char16_t* out = result.data();
  std::size_t copied = 0;
  replaced = 0;
  for (std::size_t at = NextMatch<kIgnoreCase>(text, find, 0);
       at != BstrView::npos && wanted(replaced);
       at = NextMatch<kIgnoreCase>(text, find, at + find.size())) {
    out = std::copy(text.begin() + static_cast<std::ptrdiff_t>(copied),
                    text.begin() + static_cast<std::ptrdiff_t>(at), out);
    out = std::copy(replacement.begin(), replacement.end(), out);
    copied = at + find.size();
    ++replaced;
  }
  std::copy(text.begin() + static_cast<std::ptrdiff_t>(copied), text.end(), out);
  return result;
}

}  // namespace

Bstr StringExtensions::replaceText(BstrView text, BstrView find, BstrView replacement,
                                   std::int32_t start, std::int32_t count, std::int32_t compare) {
  const std::size_t from = start < 1 ? 0 : static_cast<std::size_t>(start - 1);
  if (from >= text.size())
    return {};
  const BstrView rest = text.substr(from);
  if (find.empty() || count == 0)
    return Bstr(rest);
  return compare != 0 ? Replace<true>(rest, find, replacement, count)
                      : Replace<false>(rest, find, replacement, count);
}

VariantBool StringExtensions::endsWith(BstrView text, BstrView ending) {
  return ToVariantBool(text.size() >= ending.size() &&
                       text.substr(text.size() - ending.size()) == ending);
}

VariantBool StringExtensions::stripPrefix(Bstr& text, BstrView prefix) {
  if (BstrView(text).substr(0, prefix.size()) != prefix)
    return kFalse;
  text.erase(0, prefix.size());
  return kTrue;
}

}  // namespace tabforge
