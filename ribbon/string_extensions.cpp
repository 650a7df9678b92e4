#include "ribbon/string_extensions.h"

#include <algorithm>

namespace tabforge {
namespace {

char16_t FoldCase(char16_t c) {
  return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + (u'a' - u'A')) : c;
}

bool MatchesAt(BstrView text, std::size_t at, BstrView find, bool ignoreCase) {
  if (!ignoreCase)
    return text.compare(at, find.size(), find) == 0;
  return std::equal(find.begin(), find.end(), text.begin() + static_cast<std::ptrdiff_t>(at),
                    [](char16_t a, char16_t b) { return FoldCase(a) == FoldCase(b); });
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
  const bool ignoreCase = compare != 0;
  // The next occurrence at or behind `at`, or npos. A plain scan for the first character: the
  // texts are short, and the library's generic search for 16-bit characters is several times
  // slower here.
  auto next = [&](std::size_t at) -> std::size_t {
    if (find.size() > rest.size())
      return BstrView::npos;
    const std::size_t last = rest.size() - find.size();
    const char16_t first = ignoreCase ? FoldCase(find[0]) : find[0];
    for (; at <= last; ++at) {
      const char16_t c = ignoreCase ? FoldCase(rest[at]) : rest[at];
      if (c == first && MatchesAt(rest, at, find, ignoreCase))
        return at;
    }
    return BstrView::npos;
  };
  auto wanted = [&](std::int32_t replaced) { return count < 0 || replaced < count; };
  // Measure first, so that the result is allocated once.
  std::size_t length = rest.size();
  std::int32_t replaced = 0;
  for (std::size_t at = next(0); at != BstrView::npos && wanted(replaced);
       at = next(at + find.size())) {
    length = length - find.size() + replacement.size();
    ++replaced;
  }
  Bstr result;
  result.reserve(length);
  std::size_t copied = 0;
  replaced = 0;
  for (std::size_t at = next(0); at != BstrView::npos && wanted(replaced);
       at = next(at + find.size())) {
    result.append(rest.substr(copied, at - copied));
    result.append(replacement);
    copied = at + find.size();
    ++replaced;
  }
  result.append(rest.substr(copied));
  return result;
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
