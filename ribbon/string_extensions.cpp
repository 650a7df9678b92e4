#include "ribbon/string_extensions.h"

#include <array>

namespace tabforge {
namespace {

char16_t FoldCase(char16_t c) {
  return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + (u'a' - u'A')) : c;
}

// The first occurrence of `find` (not empty) in `text` at or behind `at`, or npos. A plain scan for
// the first character: the texts are short, and the library's generic search for 16-bit characters
// is several times slower here.
template <bool kIgnoreCase>
std::size_t NextMatch(Utf16View text, Utf16View find, std::size_t at) {
  if (find.size() > text.size() || at > text.size() - find.size())
    return Utf16View::npos;
  const auto fold = [](char16_t c) { return kIgnoreCase ? FoldCase(c) : c; };
  const char16_t first = fold(find[0]);
  const char16_t* const begin = text.data();
  const char16_t* const last = begin + (text.size() - find.size());
  for (const char16_t* p = begin + at; p <= last; ++p) {
    if (fold(*p) != first)
      continue;
    std::size_t k = 1;
    while (k < find.size() && fold(p[k]) == fold(find[k]))
      ++k;
    if (k == find.size())
      return static_cast<std::size_t>(p - begin);
  }
  return Utf16View::npos;
}

template <bool kIgnoreCase>
Utf16String Replace(Utf16View text, Utf16View find, Utf16View replacement, std::int32_t count) {
  // One search: the places of the first matches are kept while the result is measured, so that it
  // is allocated once and written once; a text with more matches than that is searched again
  // behind the last kept one.
  constexpr std::size_t kKept = 8;
  std::array<std::size_t, kKept> kept;
  const std::size_t limit = count < 0 ? text.size() + 1 : static_cast<std::size_t>(count);
  std::size_t matches = 0;
  std::size_t next = NextMatch<kIgnoreCase>(text, find, 0);
  for (; next != Utf16View::npos && matches < limit && matches < kKept;
       next = NextMatch<kIgnoreCase>(text, find, next + find.size())) {
    kept[matches++] = next;
  }
  // Counted beyond the kept ones, not placed.
  std::size_t more = 0;
  for (std::size_t at = next; at != Utf16View::npos && matches + more < limit;
       at = NextMatch<kIgnoreCase>(text, find, at + find.size())) {
    ++more;
  }
  if (matches == 0)
    return Utf16String(text);
  const std::size_t replaced = matches + more;
  Utf16String result(text.size() - replaced * find.size() + replaced * replacement.size(), u'\0');
  char16_t* out = result.data();
  std::size_t copied = 0;
  auto write = [&](std::size_t at) {
    out = CopyChars(text.data() + copied, at - copied, out);
    out = CopyChars(replacement.data(), replacement.size(), out);
    copied = at + find.size();
  };
  for (std::size_t i = 0; i < matches; ++i)
    write(kept[i]);
  for (std::size_t i = 0; i < more; ++i)
    write(NextMatch<kIgnoreCase>(text, find, copied));
  CopyChars(text.data() + copied, text.size() - copied, out);
  return result;
}

}  // namespace

Utf16String StringExtensions::replaceText(Utf16View text, Utf16View find, Utf16View replacement,
                                          std::int32_t start, std::int32_t count,
                                          std::int32_t compare) {
  const std::size_t from = start < 1 ? 0 : static_cast<std::size_t>(start - 1);
  if (from >= text.size())
    return {};
  const Utf16View rest = text.substr(from);
  if (find.empty() || count == 0)
    return Utf16String(rest);
  return compare != 0 ? Replace<true>(rest, find, replacement, count)
                      : Replace<false>(rest, find, replacement, count);
}

VariantBool StringExtensions::endsWith(Utf16View text, Utf16View ending) {
  return ToVariantBool(text.size() >= ending.size() &&
                       text.substr(text.size() - ending.size()) == ending);
}

VariantBool StringExtensions::stripPrefix(Utf16View& text, Utf16View prefix) {
  if (text.substr(0, prefix.size()) != prefix)
    return kFalse;
  text.remove_prefix(prefix.size());
  return kTrue;
}

}  // namespace tabforge
