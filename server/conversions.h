// Strings and truth values across the automation boundary, both ways. Values that may hold
// objects (VARIANTs, arrays) cross in the object bridge, server/object_bridge.h.
#pragma once

#include <windows.h>

#include <oleauto.h>

#include "platform/utf16.h"
#include "platform/variant_bool.h"
#include "server/com_ptr.h"

namespace tabforge::com {

// wchar_t is 16 bits on this target, so a BSTR's units are the core's units.
static_assert(sizeof(wchar_t) == sizeof(char16_t));

// A null BSTR is the empty string.
Utf16String FromBstr(BSTR s);
UniqueBstr MakeBstr(Utf16View text);

inline VariantBool FromVariantBool(VARIANT_BOOL b) {
  return static_cast<VariantBool>(b);
}
inline VARIANT_BOOL ToVariantBoolValue(VariantBool b) {
  return static_cast<VARIANT_BOOL>(b);
}

}  // namespace tabforge::com
