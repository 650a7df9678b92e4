// Values across the automation boundary: strings, truth values, variants and objects, both ways.
#pragma once

#include <windows.h>

#include <oleauto.h>

#include "platform/object.h"
#include "platform/utf16.h"
#include "platform/variant.h"
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

// An object handed in by a caller, as the core holds it; nothing for a null pointer.
Ref<Object> WrapDispatch(IDispatch* dispatch);
Ref<Object> WrapUnknown(IUnknown* unknown);
// A core object for a caller: the caller's own interface when the object came from outside,
// otherwise an adapter that lets the caller reach its members by name.
ComPtr<IDispatch> ToDispatch(const Ref<Object>& object);
ComPtr<IUnknown> ToUnknown(const Ref<Object>& object);

// A VARIANT from outside as a core value; references are followed. Every VARIANT that comes in
// is read here and nowhere else: an array by the type and size of elements it really holds, not
// by the type its tag claims. Throws `Failure` (type mismatch) for a type the core does not know,
// an array that does not hold what its tag says, a reference to nothing, or nesting past a fixed
// depth.
Variant FromAutomation(const VARIANT& value);
// The most arguments that an object we hand out reads from one call; its members take a few, and a
// count from outside sizes nothing past this.
inline constexpr UINT kMaxArguments = 64;
// True when `params` can be read as the caller's arguments: present, with as many named as there
// are arguments at most, and the lists there for what they count.
bool WellFormed(const DISPPARAMS* params);
// True when a GetIDsOfNames request has at least one name and every name is there.
bool AllNamed(const LPOLESTR* names, UINT count);
// A core value as an owned VARIANT; references are followed. Throws `Failure` for what has no
// automation form.
UniqueVariant ToAutomation(const Variant& value);

// Member names compare without regard to case, as everywhere in automation.
bool SameMemberName(Utf16View a, Utf16View b);
// A name as the automation calls hand it over.
inline Utf16View NameView(const wchar_t* name) {
  return Utf16View(reinterpret_cast<const char16_t*>(name));
}

// The automation status that stands for a failure number: HRESULTs pass as they are, run-time
// numbers get the run time's facility.
HRESULT ScodeOf(std::int32_t number);
// The failure number for an automation status, the reverse of `ScodeOf`.
std::int32_t NumberOf(HRESULT scode);

}  // namespace tabforge::com
