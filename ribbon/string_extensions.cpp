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
  Bstr result;
  result.reserve(rest.size());
  std::size_t i = 0;
  std::int32_t replaced = 0;
  while (i + find.size() <= rest.size() && (count < 0 || replaced < count)) {
    if (MatchesAt(rest, i, find, compare != 0)) {
      result += replacement;
      i += find.size();
      ++replaced;
    } else {
      result.push_back(rest[i++]);
    }
  }
  result.append(rest.substr(i));
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
