#include "server/dispatch_parameters.h"

#include <algorithm>
#include <cwctype>

namespace tabforge::com {

bool WellFormed(const DISPPARAMS* params) {
  return params != nullptr && params->cNamedArgs <= params->cArgs &&
         (params->cArgs == 0 || params->rgvarg != nullptr) &&
         (params->cNamedArgs == 0 || params->rgdispidNamedArgs != nullptr);
}

bool AllNamed(const LPOLESTR* names, UINT count) {
  return names != nullptr && count > 0 &&
         std::all_of(names, names + count, [](LPOLESTR name) { return name != nullptr; });
}

bool SameMemberName(Utf16View a, Utf16View b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char16_t x, char16_t y) {
    return std::towlower(static_cast<wint_t>(x)) == std::towlower(static_cast<wint_t>(y));
  });
}

}  // namespace tabforge::com
