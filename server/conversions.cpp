#include "server/conversions.h"

#include <algorithm>
#include <cwctype>
#include <utility>
#include <variant>
#include <vector>

#include "platform/failure.h"
#include "server/dispatch_adapter.h"
#include "server/windows_platform.h"

namespace tabforge::com {

namespace {

constexpr HRESULT kControlFacilityMask = static_cast<HRESULT>(0x800A0000);

template <class T>
void ForEachElement(LONG lower, LONG upper, T&& visit) {
  for (LONG i = lower; i <= upper; ++i)
    visit(i);
}

// A one-dimensional array of the element type `vt` as a core array.
ArrayRef FromSafeArray(SAFEARRAY* array, VARTYPE vt) {
  if (array == nullptr)
    return nullptr;
  if (::SafeArrayGetDim(array) != 1)
    Raise(RunTimeError::kTypeMismatch);
  LONG lower = 0;
  LONG upper = -1;
  ::SafeArrayGetLBound(array, 1, &lower);
  ::SafeArrayGetUBound(array, 1, &upper);
  auto get = [&](LONG i, void* out) {
    if (FAILED(::SafeArrayGetElement(array, &i, out)))
      Raise(RunTimeError::kSubscriptOutOfRange);
  };
  switch (vt) {
    case VT_UI1: {
      std::vector<std::uint8_t> out;
      ForEachElement(lower, upper, [&](LONG i) {
        BYTE b = 0;
        get(i, &b);
        out.push_back(b);
      });
      return MakeArray(std::move(out), lower);
    }
    case VT_I2: {
      std::vector<std::int16_t> out;
      ForEachElement(lower, upper, [&](LONG i) {
        SHORT s = 0;
        get(i, &s);
        out.push_back(s);
      });
      return MakeArray(std::move(out), lower);
    }
    case VT_I4: {
      std::vector<std::int32_t> out;
      ForEachElement(lower, upper, [&](LONG i) {
        LONG l = 0;
        get(i, &l);
        out.push_back(l);
      });
      return MakeArray(std::move(out), lower);
    }
    case VT_BSTR: {
      std::vector<Bstr> out;
      ForEachElement(lower, upper, [&](LONG i) {
        UniqueBstr s;
        get(i, s.Put());
        out.push_back(FromBstr(s.get()));
      });
      return MakeArray(std::move(out), lower);
    }
    case VT_DISPATCH: {
      std::vector<Ref<Object>> out;
      ForEachElement(lower, upper, [&](LONG i) {
        ComPtr<IDispatch> d;
        get(i, d.Put());
        out.push_back(WrapDispatch(d.get()));
      });
      return MakeArray(std::move(out), lower);
    }
    case VT_VARIANT: {
      std::vector<Variant> out;
      ForEachElement(lower, upper, [&](LONG i) {
        UniqueVariant v;
        get(i, v.get());
        out.push_back(FromVariant(*v.get()));
      });
      return MakeArray(std::move(out), lower);
    }
    default:
      Raise(RunTimeError::kTypeMismatch);
  }
}

// An owner of a SAFEARRAY until it is handed to a VARIANT.
class UniqueSafeArray {
 public:
  explicit UniqueSafeArray(SAFEARRAY* array) : array_(array) {
    if (array_ == nullptr)
      Raise(RunTimeError::kOutOfMemory);
  }
  UniqueSafeArray(const UniqueSafeArray&) = delete;
  UniqueSafeArray& operator=(const UniqueSafeArray&) = delete;
  ~UniqueSafeArray() {
    if (array_ != nullptr)
      ::SafeArrayDestroy(array_);
  }
  SAFEARRAY* get() const { return array_; }
  SAFEARRAY* Detach() { return std::exchange(array_, nullptr); }

 private:
  SAFEARRAY* array_;
};

SAFEARRAY* ToSafeArray(const SafeArray& array) {
  const VarType elementType = array.ElementType();
  UniqueSafeArray out(::SafeArrayCreateVector(static_cast<VARTYPE>(elementType), array.lowerBound,
                                              static_cast<ULONG>(array.Count())));
  auto put = [&](std::int64_t k, void* value) {
    LONG i = array.lowerBound + static_cast<LONG>(k);
    if (FAILED(::SafeArrayPutElement(out.get(), &i, value)))
      Raise(RunTimeError::kOutOfMemory);
  };
  std::visit(
      [&](const auto& elements) {
        using T = typename std::decay_t<decltype(elements)>::value_type;
        for (std::size_t k = 0; k < elements.size(); ++k) {
          if constexpr (std::is_same_v<T, Bstr>) {
            UniqueBstr s = MakeBstr(elements[k]);
            put(static_cast<std::int64_t>(k), s.get());  // SafeArrayPutElement copies
          } else if constexpr (std::is_same_v<T, Ref<Object>>) {
            ComPtr<IDispatch> d = ToDispatch(elements[k]);
            put(static_cast<std::int64_t>(k), d.get());
          } else if constexpr (std::is_same_v<T, Variant>) {
            UniqueVariant v = ToVariant(elements[k]);
            put(static_cast<std::int64_t>(k), v.get());
          } else {
            T value = elements[k];
            put(static_cast<std::int64_t>(k), &value);
          }
        }
      },
      array.elements);
  return out.Detach();
}

}  // namespace

Bstr FromBstr(BSTR s) {
  if (s == nullptr)
    return {};
  return Bstr(reinterpret_cast<const char16_t*>(s), ::SysStringLen(s));
}

UniqueBstr MakeBstr(BstrView text) {
  UniqueBstr s(reinterpret_cast<const wchar_t*>(text.data()), static_cast<UINT>(text.size()));
  if (s.get() == nullptr)
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
  ComPtr<IDispatch> dispatch = ComPtr<IUnknown>(unknown).As<IDispatch>();
  if (dispatch)
    return WrapDispatch(dispatch.get());
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
  return ComPtr<IUnknown>(dispatch.get());
}

Variant FromVariant(const VARIANT& value) {
  if ((V_VT(&value) & VT_BYREF) != 0) {
    UniqueVariant copy;
    if (FAILED(::VariantCopyInd(copy.get(), const_cast<VARIANT*>(&value))))
      Raise(RunTimeError::kTypeMismatch);
    return FromVariant(*copy.get());
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
      if (SUCCEEDED(::VariantChangeType(converted.get(), const_cast<VARIANT*>(&value), 0, VT_I4)))
        return Variant(std::int32_t{V_I4(converted.get())});
      if (SUCCEEDED(::VariantChangeType(converted.get(), const_cast<VARIANT*>(&value), 0, VT_BSTR)))
        return Variant(FromBstr(V_BSTR(converted.get())));
      Raise(RunTimeError::kTypeMismatch);
    }
  }
}

UniqueVariant ToVariant(const Variant& input) {
  const Variant value = input.Value();
  UniqueVariant out;
  VARIANT* v = out.get();
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

bool SameMemberName(BstrView a, BstrView b) {
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
