#include "server/object_bridge.h"

#include <windows.h>

#include <dispex.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "platform/failure.h"
#include "platform/recording.h"
#include "server/barrier.h"
#include "server/conversions.h"
#include "server/dispatch_parameters.h"
#include "server/status.h"
#include "server/windows_text.h"
#include "tracing/call_budget.h"

namespace tabforge::com {

// --- Values: what comes in and what goes out
// ------------------------------------------------------

namespace {

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

// A foreign object that a recording stands in front of goes back out as itself.
ComPtr<IDispatch> ToDispatch(const Ref<Object>& object) {
  if (!object)
    return nullptr;
  const Ref<Object> own = recording::Recorder::Unwrap(object);
  if (auto* outside = dynamic_cast<WindowsObject*>(own.get()))
    return outside->Dispatch();
  return DispatchAdapter::Create(object);
}

ComPtr<IUnknown> ToUnknown(const Ref<Object>& object) {
  const Ref<Object> own = recording::Recorder::Unwrap(object);
  if (auto* outside = dynamic_cast<WindowsObject*>(own.get()))
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

namespace {

// Points `slot` at the value inside `temporary`, with the reference form of its type; a variable
// of the caller's own variant type gets a reference to the whole VARIANT.
void PointAt(VARIANT* slot, VARIANT* temporary, bool wholeVariant) {
  if (wholeVariant || V_VT(temporary) == VT_EMPTY || V_VT(temporary) == VT_NULL) {
    V_VT(slot) = VT_BYREF | VT_VARIANT;
    V_VARIANTREF(slot) = temporary;
    return;
  }
  V_VT(slot) = static_cast<VARTYPE>(VT_BYREF | V_VT(temporary));
  // Every member of the value union starts at the same address.
  V_BYREF(slot) = &V_UI1(temporary);
}

}  // namespace

// --- WindowsObject ------------------------------------------------------------------------------

namespace {

// The object's answer to QueryInterface: its own code runs, so the call is a collaborator's.
template <class Interface>
ComPtr<Interface> Query(const ComPtr<IUnknown>& object) {
  CollaboratorCall counted;
  return object.TryAs<Interface>();
}

}  // namespace

WindowsObject::WindowsObject(ComPtr<IUnknown> unknown)
    : unknown_(std::move(unknown)), dispatch_(Query<IDispatch>(unknown_)) {}

DISPID WindowsObject::FindMember(Utf16View member) {
  if (!dispatch_)
    Raise(RunTimeError::kObjectRequired);
  std::wstring name = Wide(member);
  LPOLESTR names[] = {name.data()};
  DISPID id = DISPID_UNKNOWN;
  HRESULT hr = dispatch_->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
  if (hr == E_NOTIMPL) {
    // Script objects may only know names through IDispatchEx.
    if (ComPtr<IDispatchEx> ex = dispatch_.TryAs<IDispatchEx>()) {
      UniqueBstr bstrName = MakeBstr(member);
      hr = ex->GetDispID(bstrName.Get(), fdexNameCaseInsensitive, &id);
    }
  }
  if (FAILED(hr))
    Raise(RunTimeError::kMemberNotFound);
  return id;
}

Variant WindowsObject::Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) {
  const DISPID id = FindMember(member);
  const std::size_t count = arguments.size();

  // DISPPARAMS lists the arguments last first.
  std::vector<VARIANT> slots(count);
  std::vector<UniqueVariant> temporaries(count);
  for (std::size_t i = 0; i < count; ++i) {
    VARIANT* slot = &slots[count - 1 - i];
    ::VariantInit(slot);
    const Variant& argument = arguments[i];
    temporaries[i] = ToAutomation(argument);
    if (argument.IsByRef())
      PointAt(slot, temporaries[i].Get(), argument.RefVariant() != nullptr);
    else
      *slot = *temporaries[i].Get();  // a shallow view; the temporary keeps ownership
  }

  DISPID putId = DISPID_PROPERTYPUT;
  const bool isPut = kind == CallKind::kPropertyPut || kind == CallKind::kPropertyPutRef;
  DISPPARAMS params{slots.data(), isPut ? &putId : nullptr, static_cast<UINT>(count),
                    isPut ? 1u : 0u};
  UniqueVariant result;
  EXCEPINFO exception{};
  UINT argumentError = 0;
  WORD flags = static_cast<WORD>(kind);
  // A method may also be read as a property, the way late-bound callers reach it.
  if (kind == CallKind::kMethod)
    flags |= DISPATCH_PROPERTYGET;
  HRESULT hr = dispatch_->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params,
                                 isPut ? nullptr : result.Get(), &exception, &argumentError);
  ThrowIfFailed(hr, &exception);

  // Write back what the callee left in the temporaries of references.
  for (std::size_t i = 0; i < count; ++i) {
    if (arguments[i].IsByRef())
      AssignThrough(arguments[i], FromAutomation(*temporaries[i].Get()));
  }
  return FromAutomation(*result.Get());
}

Ref<RibbonUi> WindowsObject::QueryRibbonUi() {
  ComPtr<IRibbonUI> ribbon = Query<IRibbonUI>(unknown_);
  if (!ribbon)
    return nullptr;
  return MakeRef<WindowsRibbonUi>(Ref<WindowsObject>(this), std::move(ribbon));
}

// --- WindowsRibbonUi ----------------------------------------------------------------------------

WindowsRibbonUi::WindowsRibbonUi(Ref<WindowsObject> object, ComPtr<IRibbonUI> ribbon)
    : object_(std::move(object)), ribbon_(std::move(ribbon)) {}

Variant WindowsRibbonUi::Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) {
  return object_->Invoke(member, kind, arguments);
}

void WindowsRibbonUi::Invalidate() {
  ThrowIfFailed(ribbon_->Invalidate());
}

void WindowsRibbonUi::InvalidateControl(const Utf16String& controlId) {
  UniqueBstr id = MakeBstr(controlId);
  ThrowIfFailed(ribbon_->InvalidateControl(id.Get()));
}

// --- Main2's arguments ---------------------------------------------------------------------------

namespace {

// Every value of a VARIANT starts at the same place.
void* ValueOf(VARIANT& v) {
  return &V_BSTR(&v);
}

}  // namespace

HRESULT BoundArgument::Bind(VARIANT& source, VARTYPE type) {
  if (V_ISBYREF(&source)) {
    VARIANT* variable = V_VT(&source) == (VT_BYREF | VT_VARIANT) ? V_VARIANTREF(&source) : nullptr;
    if (V_VT(&source) == (VT_BYREF | type))
      value_ = V_BYREF(&source);
    else if (variable != nullptr && V_VT(variable) == type)
      value_ = ValueOf(*variable);
    else
      return DISP_E_TYPEMISMATCH;  // a reference is never coerced
    return S_OK;
  }
  if (V_VT(&source) == type) {
    value_ = ValueOf(source);
    return S_OK;
  }
  // Arrays never become a parameter's type; nothing of them is read.
  if ((V_VT(&source) & VT_ARRAY) != 0)
    return DISP_E_TYPEMISMATCH;
  // An object becomes text or a truth value through its default member: its own code runs, as
  // a collaborator's call of the call from outside.
  const VARTYPE held = V_VT(&source) & VT_TYPEMASK;
  const bool callsOut = held == VT_DISPATCH || held == VT_UNKNOWN || held == VT_RECORD;
  HRESULT hr = S_OK;
  if (callsOut) {
    hr = Barrier([&] {
      CollaboratorCall counted;
      return ::VariantChangeType(copy_.emplace().Put(), &source, 0, type);
    });
  } else {
    hr = ::VariantChangeType(copy_.emplace().Put(), &source, 0, type);
  }
  if (SUCCEEDED(hr))
    value_ = ValueOf(*copy_->Get());
  return hr;
}

// --- DispatchAdapter ----------------------------------------------------------------------------

namespace {

// The live adapters, by the address that callers hold. An adapter enters when it is made and
// leaves in its destructor, before its core object goes.
SRWLOCK g_adaptersLock = SRWLOCK_INIT;
std::unordered_set<const IDispatch*> g_adapters;

}  // namespace

DispatchAdapter::DispatchAdapter(Ref<Object> object) : object_(std::move(object)) {}

DispatchAdapter::~DispatchAdapter() {
  const ExclusiveLock lock(g_adaptersLock);
  g_adapters.erase(this);
}

ComPtr<IDispatch> DispatchAdapter::Create(Ref<Object> object) {
  auto* adapter = new (std::nothrow) DispatchAdapter(std::move(object));
  if (adapter == nullptr)
    Raise(RunTimeError::kOutOfMemory);
  auto out = ComPtr<IDispatch>::Attach(adapter);
  const ExclusiveLock lock(g_adaptersLock);
  g_adapters.insert(adapter);  // std::bad_alloc releases the adapter on the way out
  return out;
}

Ref<Object> DispatchAdapter::Unwrap(IDispatch* dispatch) {
  if (dispatch == nullptr)
    return nullptr;
  // While it is listed the adapter's core object is alive: the destructor waits for the lock.
  const ExclusiveLock lock(g_adaptersLock);
  if (g_adapters.count(dispatch) == 0)
    return nullptr;
  return static_cast<DispatchAdapter*>(dispatch)->object_;
}

HRESULT DispatchAdapter::GetTypeInfoCount(UINT* count) {
  return NoTypeInfoCount(count);
}

HRESULT DispatchAdapter::GetTypeInfo(UINT, LCID, ITypeInfo** out) {
  return NoTypeInfo(out);
}

HRESULT DispatchAdapter::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
  if (ids == nullptr || count == 0)
    return E_INVALIDARG;
  // The member name gets an id; named arguments are not supported.
  std::fill(ids, ids + count, DISPID_UNKNOWN);
  if (!AllNamed(names, count))
    return names == nullptr ? E_INVALIDARG : DISP_E_UNKNOWNNAME;
  return Barrier([&] {
    const Utf16String name(NameView(names[0]));
    auto found = std::find_if(names_.begin(), names_.end(), [&](const Utf16String& known) {
      return SameMemberName(known, name);
    });
    if (found == names_.end()) {
      if (names_.size() >= kMaxNames)
        return DISP_E_UNKNOWNNAME;
      names_.push_back(name);
      found = names_.end() - 1;
    }
    ids[0] = static_cast<DISPID>(found - names_.begin()) + 1;
    return count > 1 ? DISP_E_UNKNOWNNAME : S_OK;
  });
}

HRESULT DispatchAdapter::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params,
                                VARIANT* result, EXCEPINFO* exception, UINT*) {
  const CallHold hold(this);
  if (!WellFormed(params))
    return E_INVALIDARG;
  if (id < 1 || static_cast<std::size_t>(id) > names_.size())
    return DISP_E_MEMBERNOTFOUND;
  if (params->cArgs > kMaxArguments)
    return DISP_E_BADPARAMCOUNT;
  return Barrier<FailurePolicy::kException>(
      [&] {
        const Utf16String member = names_[static_cast<std::size_t>(id) - 1];
        const UINT count = params->cArgs;
        // Arguments in declared order; a VARIANT passed by reference is written back after the
        // call.
        std::vector<Variant> values(count);
        std::vector<Variant> arguments(count);
        for (UINT i = 0; i < count; ++i) {
          const VARIANT& raw = params->rgvarg[count - 1 - i];
          values[i] = FromAutomation(raw);
          arguments[i] =
              V_VT(&raw) == (VT_BYREF | VT_VARIANT) ? Variant::ByRef(&values[i]) : values[i];
        }
        CallKind kind = CallKind::kMethod;
        if ((flags & DISPATCH_PROPERTYPUTREF) != 0)
          kind = CallKind::kPropertyPutRef;
        else if ((flags & DISPATCH_PROPERTYPUT) != 0)
          kind = CallKind::kPropertyPut;
        else if ((flags & DISPATCH_METHOD) == 0)
          kind = CallKind::kPropertyGet;
        Variant answer = object_->Invoke(member, kind, arguments);
        for (UINT i = 0; i < count; ++i) {
          VARIANT& raw = params->rgvarg[count - 1 - i];
          if (V_VT(&raw) == (VT_BYREF | VT_VARIANT) && V_VARIANTREF(&raw) != nullptr)
            Replace(V_VARIANTREF(&raw), ToAutomation(values[i]));
        }
        if (result != nullptr)
          *result = ToAutomation(answer).Detach();
        return S_OK;
      },
      exception);
}

}  // namespace tabforge::com
