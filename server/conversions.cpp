#include "server/conversions.h"

#include <algorithm>
#include <cstdint>
#include <cwctype>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "platform/call_budget.h"
#include "platform/failure.h"
#include "server/dispatch_adapter.h"
#include "server/windows_platform.h"

namespace tabforge::com {

namespace {

constexpr HRESULT kControlFacilityMask = static_cast<HRESULT>(0x800A0000);

// Arrays cross in both directions with the same element types, so that a core array and its
// automation form agree on element types and bounds whichever way it goes.

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

// Stores `value` as element `k` of the data of a new array, which owns what is stored from then
// on. The array is made here and nobody else sees it yet, so its slots are written in place: a
// copy through SafeArrayPutElement would allocate every string twice, and the stack handed to the
// error component on every failure is sixty-four of them.
template <class T>
void WriteElement(void* data, std::size_t k, const T& value) {
  if constexpr (std::is_same_v<T, Utf16String>) {
    static_cast<BSTR*>(data)[k] = MakeBstr(value).Detach();
  } else if constexpr (std::is_same_v<T, Ref<Object>>) {
    static_cast<IDispatch**>(data)[k] = ToDispatch(value).Detach();
  } else if constexpr (std::is_same_v<T, Variant>) {
    static_cast<VARIANT*>(data)[k] = ToAutomation(value).Detach();
  } else {
    static_cast<T*>(data)[k] = value;
  }
}

// A core array as a one-dimensional SAFEARRAY of its own element type and bounds.
SAFEARRAY* ToSafeArray(const VariantArray& array) {
  if (array.UpperBound() > std::numeric_limits<LONG>::max())
    Raise(RunTimeError::kOverflow);
  UniqueSafeArray out(::SafeArrayCreateVector(static_cast<VARTYPE>(array.ElementType()),
                                              array.lowerBound, static_cast<ULONG>(array.Count())));
  if (!out)
    Raise(RunTimeError::kOutOfMemory);
  // A new vector's slots are zero (empty strings, no objects, empty variants) until written.
  void* data = out.Get()->pvData;
  std::visit(
      [&](const auto& elements) {
        for (std::size_t k = 0; k < elements.size(); ++k)
          WriteElement(data, k, elements[k]);
      },
      array.elements);
  return out.Detach();
}

// --- What comes in ---------------------------------------------------------------------------
//
// A VARIANT from outside is read by what it really holds, never by what its tag alone claims: an
// array's elements by the type and size that the array itself records, a reference only when it
// points somewhere, and nesting (variants in arrays of variants, references to references) only
// to a fixed depth, so that an array that holds itself ends.

constexpr int kMaxNesting = 16;

// What one read may visit: values and references followed, and bytes of numbers and text. A few
// VARIANTs that refer to one another can describe a tree of any size (eight levels of eight
// references to the next level are sixteen million values), so the read stops, out of memory,
// when its allowance is used up, and before anything is made for a count past it.
struct Allowance {
  std::size_t values = 65536;
  std::size_t bytes = std::size_t{64} << 20;

  void Visit() {
    if (values == 0)
      Raise(RunTimeError::kOutOfMemory);
    --values;
  }
  void Take(std::size_t count, std::size_t& from) {
    if (count > from)
      Raise(RunTimeError::kOutOfMemory);
    from -= count;
  }
};

Variant Convert(const VARIANT& value, Allowance& allowance, int depth);

Utf16String ReadBstr(BSTR s, Allowance& allowance) {
  if (s != nullptr)
    allowance.Take(std::size_t{::SysStringLen(s)} * sizeof(wchar_t), allowance.bytes);
  return FromBstr(s);
}

// The size of one element of the core's element type `vt`.
ULONG ElementSize(VARTYPE vt) {
  switch (vt) {
    case VT_UI1:
      return 1;
    case VT_I2:
      return 2;
    case VT_I4:
      return 4;
    case VT_BSTR:
      return sizeof(BSTR);
    case VT_DISPATCH:
      return sizeof(IDispatch*);
    case VT_VARIANT:
      return sizeof(VARIANT);
    default:
      Raise(RunTimeError::kTypeMismatch);
  }
}

// The element type that `array` records for itself: its own type tag, else the kind of elements
// that it says it owns; VT_EMPTY when it records neither.
VARTYPE RecordedType(SAFEARRAY* array) {
  VARTYPE vt = VT_EMPTY;
  if (SUCCEEDED(::SafeArrayGetVartype(array, &vt)))
    return vt;
  const USHORT features = array->fFeatures;
  if ((features & FADF_BSTR) != 0)
    return VT_BSTR;
  if ((features & FADF_VARIANT) != 0)
    return VT_VARIANT;
  if ((features & FADF_DISPATCH) != 0)
    return VT_DISPATCH;
  if ((features & (FADF_UNKNOWN | FADF_RECORD | FADF_HAVEIID)) != 0)
    return VT_UNKNOWN;
  return VT_EMPTY;
}

// True when `array` holds elements of type `vt`, as a tag around it claims. An array that records
// no type may hold plain numbers of the right size, never strings, objects or variants.
bool Holds(SAFEARRAY* array, VARTYPE vt) {
  if (::SafeArrayGetElemsize(array) != ElementSize(vt))
    return false;
  const VARTYPE recorded = RecordedType(array);
  if (recorded == VT_EMPTY)
    return vt == VT_UI1 || vt == VT_I2 || vt == VT_I4;
  return recorded == vt;
}

// Keeps an array from being destroyed or reshaped while its elements are read.
class ArrayLock {
 public:
  explicit ArrayLock(SAFEARRAY* array) : array_(array) {
    if (FAILED(::SafeArrayLock(array)))
      Raise(RunTimeError::kTypeMismatch);
  }
  ArrayLock(const ArrayLock&) = delete;
  ArrayLock& operator=(const ArrayLock&) = delete;
  ~ArrayLock() { ::SafeArrayUnlock(array_); }

 private:
  SAFEARRAY* array_;
};

template <class T>
T ReadElement(const void* data, std::size_t i, Allowance& allowance, int depth) {
  if constexpr (std::is_same_v<T, Utf16String>) {
    return ReadBstr(static_cast<const BSTR*>(data)[i], allowance);
  } else if constexpr (std::is_same_v<T, Ref<Object>>) {
    return WrapDispatch(static_cast<IDispatch* const*>(data)[i]);
  } else if constexpr (std::is_same_v<T, Variant>) {
    return Convert(static_cast<const VARIANT*>(data)[i], allowance, depth + 1);
  } else {
    return static_cast<const T*>(data)[i];
  }
}

// A one-dimensional array that holds elements of type `vt` as a core array.
ArrayRef FromSafeArray(SAFEARRAY* array, VARTYPE vt, Allowance& allowance, int depth) {
  if (array == nullptr)
    return nullptr;
  if (::SafeArrayGetDim(array) != 1 || !Holds(array, vt))
    Raise(RunTimeError::kTypeMismatch);
  const ArrayLock lock(array);
  const LONG lower = array->rgsabound[0].lLbound;
  const ULONG count = array->rgsabound[0].cElements;
  if ((count > 0 && array->pvData == nullptr) ||
      std::int64_t{lower} + count - 1 > std::numeric_limits<LONG>::max())
    Raise(RunTimeError::kTypeMismatch);
  // Numbers cost their bytes; strings, objects and variants a value each, besides what they hold.
  if (vt == VT_UI1 || vt == VT_I2 || vt == VT_I4)
    allowance.Take(std::size_t{count} * ElementSize(vt), allowance.bytes);
  else
    allowance.Take(count, allowance.values);
  auto out = std::make_shared<VariantArray>(VariantArray{lower, EmptyElements(vt)});
  std::visit(
      [&](auto& elements) {
        using T = typename std::decay_t<decltype(elements)>::value_type;
        elements.reserve(count);
        for (std::size_t i = 0; i < count; ++i)
          elements.push_back(ReadElement<T>(array->pvData, i, allowance, depth));
      },
      out->elements);
  return out;
}

// What a reference points at, read without copying it; a reference to nothing is a mismatch.
Variant FollowReference(const VARIANT& value, Allowance& allowance, int depth) {
  if (V_BYREF(&value) == nullptr)
    Raise(RunTimeError::kTypeMismatch);
  const VARTYPE vt = static_cast<VARTYPE>(V_VT(&value) & ~VT_BYREF);
  if (vt == VT_VARIANT)
    return Convert(*V_VARIANTREF(&value), allowance, depth + 1);
  VARIANT view;
  V_VT(&view) = vt;
  if ((vt & VT_ARRAY) != 0) {
    V_ARRAY(&view) = *V_ARRAYREF(&value);
    return Convert(view, allowance, depth + 1);
  }
  switch (vt) {
    case VT_I2:
      V_I2(&view) = *V_I2REF(&value);
      return Convert(view, allowance, depth + 1);
    case VT_I4:
      V_I4(&view) = *V_I4REF(&value);
      return Convert(view, allowance, depth + 1);
    case VT_BSTR:
      V_BSTR(&view) = *V_BSTRREF(&value);
      return Convert(view, allowance, depth + 1);
    case VT_DISPATCH:
      V_DISPATCH(&view) = *V_DISPATCHREF(&value);
      return Convert(view, allowance, depth + 1);
    case VT_UNKNOWN:
      V_UNKNOWN(&view) = *V_UNKNOWNREF(&value);
      return Convert(view, allowance, depth + 1);
    case VT_BOOL:
      V_BOOL(&view) = *V_BOOLREF(&value);
      return Convert(view, allowance, depth + 1);
    case VT_UI1:
      V_UI1(&view) = *V_UI1REF(&value);
      return Convert(view, allowance, depth + 1);
    case VT_RECORD:
      Raise(RunTimeError::kTypeMismatch);
    default: {
      // Numbers, dates and the like own nothing: the platform's copy reads them.
      UniqueVariant copy;
      if (FAILED(::VariantCopyInd(copy.Put(), const_cast<VARIANT*>(&value))))
        Raise(RunTimeError::kTypeMismatch);
      return Convert(*copy.Get(), allowance, depth + 1);
    }
  }
}

Variant Convert(const VARIANT& value, Allowance& allowance, int depth) {
  if (depth > kMaxNesting)
    Raise(RunTimeError::kTypeMismatch);
  allowance.Visit();
  const VARTYPE vt = V_VT(&value);
  if ((vt & VT_BYREF) != 0)
    return FollowReference(value, allowance, depth);
  if ((vt & VT_ARRAY) != 0) {
    const VARTYPE element = vt & VT_TYPEMASK;
    if ((vt & ~(VT_ARRAY | VT_TYPEMASK)) != 0)
      Raise(RunTimeError::kTypeMismatch);
    return Variant(static_cast<VarType>(element),
                   FromSafeArray(V_ARRAY(&value), element, allowance, depth));
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
      return Variant(ReadBstr(V_BSTR(&value), allowance));
    case VT_DISPATCH:
      return Variant(WrapDispatch(V_DISPATCH(&value)));
    case VT_BOOL:
      return Variant(FromVariantBool(V_BOOL(&value)));
    case VT_UNKNOWN:
      return Variant::Unknown(WrapUnknown(V_UNKNOWN(&value)));
    case VT_UI1:
      return Variant::Byte(V_UI1(&value));
    case VT_RECORD:
    case VT_VARIANT:
      Raise(RunTimeError::kTypeMismatch);
    default: {
      // Other numbers arrive as the nearest whole number, everything else as text.
      UniqueVariant converted;
      if (SUCCEEDED(::VariantChangeType(converted.Put(), const_cast<VARIANT*>(&value), 0, VT_I4)))
        return Variant(std::int32_t{V_I4(converted.Get())});
      if (SUCCEEDED(::VariantChangeType(converted.Put(), const_cast<VARIANT*>(&value), 0, VT_BSTR)))
        return Variant(ReadBstr(V_BSTR(converted.Get()), allowance));
      Raise(RunTimeError::kTypeMismatch);
    }
  }
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
  ComPtr<IDispatch> dispatch;
  {
    // Asking a caller's object anything runs its code: a collaborator call.
    CollaboratorCall counted;
    dispatch = ComPtr<IUnknown>(unknown).TryAs<IDispatch>();
  }
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
  // Reading an answer is the library's own work, though it happens before the collaborator's
  // call is over.
  const CallBudget::OwnWork own;
  Allowance allowance;
  return Convert(value, allowance, 0);
}

bool WellFormed(const DISPPARAMS* params) {
  return params != nullptr && params->cNamedArgs <= params->cArgs &&
         (params->cArgs == 0 || params->rgvarg != nullptr) &&
         (params->cNamedArgs == 0 || params->rgdispidNamedArgs != nullptr);
}

bool AllNamed(const LPOLESTR* names, UINT count) {
  return names != nullptr && count > 0 &&
         std::all_of(names, names + count, [](LPOLESTR name) { return name != nullptr; });
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
