#include "server/status.h"

#include "platform/failure.h"
#include "server/conversions.h"

namespace tabforge::com {
namespace {

constexpr HRESULT kControlFacilityMask = static_cast<HRESULT>(0x800A0000);

}  // namespace

HRESULT ScodeOf(std::int32_t number) {
  if (number < 0)
    return static_cast<HRESULT>(number);
  return kControlFacilityMask | static_cast<HRESULT>(number & 0xFFFF);
}

std::int32_t NumberOf(HRESULT scode) {
  if ((scode & static_cast<HRESULT>(0xFFFF0000)) == kControlFacilityMask)
    return scode & 0xFFFF;
  if (scode == DISP_E_MEMBERNOTFOUND || scode == DISP_E_UNKNOWNNAME)
    return static_cast<std::int32_t>(RunTimeError::kMemberNotFound);
  if (scode == DISP_E_TYPEMISMATCH)
    return static_cast<std::int32_t>(RunTimeError::kTypeMismatch);
  if (scode == DISP_E_OVERFLOW)
    return static_cast<std::int32_t>(RunTimeError::kOverflow);
  return static_cast<std::int32_t>(scode);
}

void ThrowIfFailed(HRESULT hr, EXCEPINFO* exception) {
  if (SUCCEEDED(hr))
    return;
  if (hr == DISP_E_EXCEPTION && exception != nullptr) {
    if (exception->pfnDeferredFillIn != nullptr)
      exception->pfnDeferredFillIn(exception);
    UniqueBstr description(exception->bstrDescription);
    UniqueBstr source(exception->bstrSource);
    UniqueBstr helpFile(exception->bstrHelpFile);
    exception->bstrDescription = exception->bstrSource = exception->bstrHelpFile = nullptr;
    const std::int32_t number =
        exception->scode != 0 ? NumberOf(exception->scode) : std::int32_t{exception->wCode};
    Raise(number, FromBstr(description.Get()));
  }
  const std::int32_t number = NumberOf(hr);
  if (number >= 0 && number <= 0xFFFF)
    Raise(number, DescribeRunTimeError(static_cast<RunTimeError>(number)));
  Raise(number, u"Automation error");
}

}  // namespace tabforge::com
