#include "server/conversions.h"

#include <algorithm>
#include <cwctype>
#include <limits>
#include <memory>
#include <utility>
#include <variant>
#include <vector>

#include "platform/failure.h"
#include "server/dispatch_adapter.h"
#include "server/windows_platform.h"

namespace tabforge::com {

namespace {

constexpr HRESULT kControlFacilityMask = static_cast<HRESULT>(0x800A0000);

// Arrays cross in both directions through the same pair of element functions, so that a core
// array and its automation form agree on element types and bounds whichever way it goes.

// An empty list of the core's element type for automation element type `vt`.
VariantArray::Elements EmptyElements(VARTYPE vt) {
  switch (vt) {
    case VT_UI1:
      return std::vector<std::uint8_t>();
    case VT_I2:
      return std::vector<std::int16_t>();
    case VT_I4:
      return std::vector<std::int32_t>();
    case VT_BSTR:
      return std::vector<Utf16String>();
    case VT_DISPATCH:
      return std::vector<Ref<Object>>();
    case VT_VARIANT:
      return std::vector<Variant>();
    default:
      Raise(RunTimeError::kTypeMismatch);
  }
}

// Element `i` of `array` as the core holds it; SafeArrayGetElement hands over a copy.
template <class T>
T ReadElement(SAFEARRAY* array, LONG i) {
  auto get = [&](void* out) {
    if (FAILED(::SafeArrayGetElement(array, &i, out)))
      Raise(RunTimeError::kSubscriptOutOfRange);
  };
  if constexpr (std::is_same_v<T, Utf16String>) {
    UniqueBstr s;
    get(s.Put());
    return FromBstr(s.Get());
  } else if constexpr (std::is_same_v<T, Ref<Object>>) {
    ComPtr<IDispatch> d;
    get(d.Put());
    return WrapDispatch(d.Get());
  } else if constexpr (std::is_same_v<T, Variant>) {
    UniqueVariant v;
    get(v.Put());
    return FromAutomation(*v.Get());
  } else {
    T value{};
    get(&value);
    return value;
  }
}

// Stores `value` as element `i` of `array`; SafeArrayPutElement takes a copy, and takes strings
// and objects themselves rather than their address.
template <class T>
void WriteElement(SAFEARRAY* array, LONG i, const T& value) {
  auto put = [&](void* in) {
    if (FAILED(::SafeArrayPutElement(array, &i, in)))
      Raise(RunTimeError::kOutOfMemory);
  };
  if constexpr (std::is_same_v<T, Utf16String>) {
    UniqueBstr s = MakeBstr(value);
    put(s.Get());
  } else if constexpr (std::is_same_v<T, Ref<Object>>) {
    ComPtr<IDispatch> d = ToDispatch(value);
    put(d.Get());
  } else if constexpr (std::is_same_v<T, Variant>) {
    UniqueVariant v = ToAutomation(value);
    put(v.Get());
  } else {
    T copy = value;
    put(&copy);
  }
}

// A one-dimensional array of the element type `vt` as a core array.
ArrayRef FromSafeArray(SAFEARRAY* array, VARTYPE vt) {
  if (array == nullptr)
    return nullptr;
  LONG lower = 0;
  LONG upper = -1;
  if (::SafeArrayGetDim(array) != 1 || FAILED(::SafeArrayGetLBound(array, 1, &lower)) ||
      FAILED(::SafeArrayGetUBound(array, 1, &upper)))
    Raise(RunTimeError::kTypeMismatch);
  auto out = std::make_shared<VariantArray>(VariantArray{lower, EmptyElements(vt)});
  std::visit(
      [&](auto& elements) {
        using T = typename std::decay_t<decltype(elements)>::value_type;
        for (LONG i = lower; i <= upper; ++i)
          elements.push_back(ReadElement<T>(array, i));
      },
      out->elements);
  return out;
}

// A core array as a one-dimensional SAFEARRAY of its own element type and bounds.
SAFEARRAY* ToSafeArray(const VariantArray& array) {
  if (array.UpperBound() > std::numeric_limits<LONG>::max())
    Raise(RunTimeError::kOverflow);
  UniqueSafeArray out(::SafeArrayCreateVector(static_cast<VARTYPE>(array.ElementType()),
                                              array.lowerBound, static_cast<ULONG>(array.Count())));
  if (!out)
    Raise(RunTimeError::kOutOfMemory);
  std::visit(
      [&](const auto& elements) {
        for (std::size_t k = 0; k < elements.size(); ++k)
          WriteElement(out.Get(), array.lowerBound + static_cast<LONG>(k), elements[k]);
      },
      array.elements);
  return out.Detach();
}

}  // namespace

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

Ref<Object> WrapDispatch(IDispatch* dispatch) {
  if (dispatch == nullptr)
    return nullptr;
  // An adapter of ours going back into the core is the core object it stands for.
  if (Ref<Object> inner = DispatchAdapter::Unwrap(dispatch))
    return inner;
  return MakeRef<WindowsObject>(ComPtr<IUnknown>(dispatch));
}

Ref<Object> WrapUnknown(IUnknown* unknown) {
  if (unknown == nullptr)
    return nullptr;
  ComPtr<IDispatch> dispatch = ComPtr<IUnknown>(unknown).TryAs<IDispatch>();
  if (dispatch)
    return WrapDispatch(dispatch.Get());
  return MakeRef<WindowsObject>(ComPtr<IUnknown>(unknown));
}

ComPtr<IDispatch> ToDispatch(const Ref<Object>& object) {
  if (!object)
    return nullptr;
  if (auto* outside = dynamic_cast<WindowsObject*>(object.get()))
    return outside->Dispatch();
  return DispatchAdapter::Create(object);
}

ComPtr<IUnknown> ToUnknown(const Ref<Object>& object) {
  if (auto* outside = dynamic_cast<WindowsObject*>(object.get()))
    return outside->Unknown();
  ComPtr<IDispatch> dispatch = ToDispatch(object);
  return ComPtr<IUnknown>(dispatch.Get());
}

Variant FromAutomation(const VARIANT& value) {
  if ((V_VT(&value) & VT_BYREF) != 0) {
    UniqueVariant copy;
    if (FAILED(::VariantCopyInd(copy.Put(), const_cast<VARIANT*>(&value))))
      Raise(RunTimeError::kTypeMismatch);
    return FromAutomation(*copy.Get());
  }
  const VARTYPE vt = V_VT(&value);
  if ((vt & VT_ARRAY) != 0) {
    const VARTYPE element = vt & VT_TYPEMASK;
    return Variant(static_cast<VarType>(element), FromSafeArray(V_ARRAY(&value), element));
  }
  switch (vt) {
    case VT_EMPTY:
      return Variant();
    case VT_NULL:
      return Variant::Null();
    case VT_I2:
      return Variant(std::int16_t{V_I2(&value)});
    case VT_I4:
      return Variant(std::int32_t{V_I4(&value)});
    case VT_BSTR:
      return Variant(FromBstr(V_BSTR(&value)));
    case VT_DISPATCH:
      return Variant(WrapDispatch(V_DISPATCH(&value)));
    case VT_BOOL:
      return Variant(FromVariantBool(V_BOOL(&value)));
    case VT_UNKNOWN:
      return Variant::Unknown(WrapUnknown(V_UNKNOWN(&value)));
    case VT_UI1:
      return Variant::Byte(V_UI1(&value));
    default: {
      // Other numbers arrive as the nearest whole number, everything else as text.
      UniqueVariant converted;
      if (SUCCEEDED(::VariantChangeType(converted.Put(), const_cast<VARIANT*>(&value), 0, VT_I4)))
        return Variant(std::int32_t{V_I4(converted.Get())});
      if (SUCCEEDED(::VariantChangeType(converted.Put(), const_cast<VARIANT*>(&value), 0, VT_BSTR)))
        return Variant(FromBstr(V_BSTR(converted.Get())));
      Raise(RunTimeError::kTypeMismatch);
    }
  }
}

UniqueVariant ToAutomation(const Variant& input) {
  const Variant value = input.Value();
  UniqueVariant out;
  VARIANT* v = out.Get();
  const VarType type = value.type();
  if (IsArrayType(type)) {
    const ArrayRef& array = value.Array();
    V_VT(v) = static_cast<VARTYPE>(VT_ARRAY | static_cast<VARTYPE>(BaseType(type)));
    V_ARRAY(v) = array ? ToSafeArray(*array) : nullptr;
    return out;
  }
  switch (type) {
    case VarType::VT_EMPTY:
      break;
    case VarType::VT_NULL:
      V_VT(v) = VT_NULL;
      break;
    case VarType::VT_I2:
      V_VT(v) = VT_I2;
      V_I2(v) = static_cast<SHORT>(value.Number());
      break;
    case VarType::VT_I4:
      V_VT(v) = VT_I4;
      V_I4(v) = value.Number();
      break;
    case VarType::VT_ERROR:
      V_VT(v) = VT_ERROR;
      V_ERROR(v) = value.Number();
      break;
    case VarType::VT_BOOL:
      V_VT(v) = VT_BOOL;
      V_BOOL(v) = static_cast<VARIANT_BOOL>(value.Number());
      break;
    case VarType::VT_UI1:
      V_VT(v) = VT_UI1;
      V_UI1(v) = static_cast<BYTE>(value.Number());
      break;
    case VarType::VT_BSTR:
      V_VT(v) = VT_BSTR;
      V_BSTR(v) = MakeBstr(value.String()).Detach();
      break;
    case VarType::VT_DISPATCH:
      V_VT(v) = VT_DISPATCH;
      V_DISPATCH(v) = ToDispatch(value.ObjectRef()).Detach();
      break;
    case VarType::VT_UNKNOWN:
      V_VT(v) = VT_UNKNOWN;
      V_UNKNOWN(v) = ToUnknown(value.ObjectRef()).Detach();
      break;
    default:
      Raise(RunTimeError::kTypeMismatch);
  }
  return out;
}

bool SameMemberName(Utf16View a, Utf16View b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char16_t x, char16_t y) {
    return std::towlower(static_cast<wint_t>(x)) == std::towlower(static_cast<wint_t>(y));
  });
}

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

}  // namespace tabforge::com
