// Three of the four text operations that the ribbon code calls. The fourth, `stringArray`, which
// joins an array of strings, is the `PieceList` of ribbon/piece_list.h: the document's arrays are
// built and joined there without copying their pieces.
#pragma once

#include <cstdint>

#include "platform/utf16.h"
#include "platform/variant_bool.h"

namespace tabforge {

struct StringExtensions {
  // `text` with occurrences of `find` replaced, searched from `start` (1-based) in one pass, so a
  // replacement is never searched again. `count` -1 replaces every occurrence; `compare` 0 is
  // exact, 1 ignores the case of ASCII letters. As the run time's replace does, the result begins
  // at `start`. An empty `find` replaces nothing.
  static Utf16String replaceText(Utf16View text, Utf16View find, Utf16View replacement,
                                 std::int32_t start = 1, std::int32_t count = -1,
                                 std::int32_t compare = 0);

  static VariantBool endsWith(Utf16View text, Utf16View ending);

  // Removes `prefix` from the start of `text` when it is there, and says whether it was. A text
  // that does not begin with the prefix is left as it is. The text is a view: what it shows is
  // narrowed, nothing is copied.
  static VariantBool stripPrefix(Utf16View& text, Utf16View prefix);
};

}  // namespace tabforge
