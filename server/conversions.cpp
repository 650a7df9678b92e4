#include "server/conversions.h"

#include "platform/failure.h"

namespace tabforge::com {

Utf16String FromBstr(BSTR s) {
  if (s == nullptr)
    return {};
  return Utf16String(reinterpret_cast<const char16_t*>(s), ::SysStringLen(s));
}

UniqueBstr MakeBstr(Utf16View text) {
  UniqueBstr s(::SysAllocStringLen(reinterpret_cast<const wchar_t*>(text.data()),
                                   static_cast<UINT>(text.size())));
  if (!s)
    Raise(RunTimeError::kOutOfMemory);
  return s;
}

}  // namespace tabforge::com
