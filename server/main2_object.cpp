#include "server/main2_object.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <new>
#include <optional>
#include <string>

#include "server/apartment.h"
#include "server/barrier.h"
#include "server/conversions.h"
#include "server/registry_entries.h"
#include "server/windows_platform.h"

namespace tabforge::com {

namespace {

Utf16String InString(const BSTR* value) {
  return value != nullptr ? FromBstr(*value) : Utf16String();
}

Ref<Object> InObject(IDispatch* const* value) {
  return value != nullptr ? WrapDispatch(*value) : nullptr;
}

VariantBool InBool(const VARIANT_BOOL* value) {
  return value != nullptr ? FromVariantBool(*value) : kFalse;
}

// Clears a result slot before the body runs, so that a failure leaves the zero value.
template <class T>
void ClearResult(T** result) {
  if (result != nullptr)
    *result = nullptr;
}
void ClearResult(VARIANT_BOOL* result) {
  if (result != nullptr)
    *result = VARIANT_FALSE;
}

void SetResult(BSTR* result, const Utf16String& value) {
  if (result != nullptr)
    *result = MakeBstr(value).Detach();
}
void SetResult(VARIANT_BOOL* result, VariantBool value) {
  if (result != nullptr)
    *result = ToVariantBoolValue(value);
}
void SetResult(IPictureDisp** result, const Ref<Object>& picture) {
  if (result != nullptr)
    *result = ToDispatch(picture).TryAs<IPictureDisp>().Detach();
}

// Null when the system cannot tell.
HMODULE ThisModule() {
  HMODULE module = nullptr;
  if (!::GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          reinterpret_cast<LPCWSTR>(&ThisModule), &module))
    return nullptr;
  return module;
}

// --- Late binding -------------------------------------------------------------------------------

// What a parameter of _Main2 holds. Every argument is [in, out] by reference, the answer [out,
// retval]; objects, pictures included, travel as IDispatch.
enum class Slot : std::uint8_t { kNone, kText, kTruth, kObject, kPicture };

VARTYPE TypeOf(Slot slot) {
  switch (slot) {
    case Slot::kText:
      return VT_BSTR;
    case Slot::kTruth:
      return VT_BOOL;
    case Slot::kObject:
    case Slot::kPicture:
      return VT_DISPATCH;
    case Slot::kNone:
      break;
  }
  return VT_EMPTY;
}

// Every value of a VARIANT starts at the same place.
void* ValueOf(VARIANT& v) {
  return &V_BSTR(&v);
}

// One argument as a member receives it: a pointer to a value of the parameter's type. The caller's
// own storage is lent when it holds that type, by reference (also inside a referenced VARIANT, as
// scripts pass their variables) or by value. A value of another type is coerced into a copy owned
// here, as the platform coerces it. The members only read their parameters, so nothing is ever
// written back: a caller's by-value argument is never touched.
class Argument {
 public:
  Argument() = default;
  Argument(const Argument&) = delete;
  Argument& operator=(const Argument&) = delete;

  HRESULT Bind(VARIANT& source, VARTYPE type) {
    if (V_ISBYREF(&source)) {
      VARIANT* variable =
          V_VT(&source) == (VT_BYREF | VT_VARIANT) ? V_VARIANTREF(&source) : nullptr;
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

  BSTR* Text() const { return static_cast<BSTR*>(value_); }
  VARIANT_BOOL* Truth() const { return static_cast<VARIANT_BOOL*>(value_); }
  IDispatch** Object() const { return static_cast<IDispatch**>(value_); }

 private:
  void* value_ = nullptr;
  std::optional<UniqueVariant> copy_;  // made only when needed: most calls lend
};

// A member's answer, owned until the caller's result takes it.
struct Answer {
  UniqueBstr text;
  VARIANT_BOOL truth = VARIANT_FALSE;
  ComPtr<IPictureDisp> picture;

  // Like the platform, writes over the result without clearing what it held: callers hand in
  // results that were never initialised.
  void HandTo(Slot slot, VARIANT& result) {
    switch (slot) {
      case Slot::kText:
        // A string that is not there reaches the caller as an empty one.
        V_VT(&result) = VT_BSTR;
        V_BSTR(&result) = text.Get() != nullptr ? text.Detach() : ::SysAllocString(L"");
        break;
      case Slot::kTruth:
        V_VT(&result) = VT_BOOL;
        V_BOOL(&result) = truth;
        break;
      case Slot::kPicture:
        V_VT(&result) = VT_DISPATCH;
        V_DISPATCH(&result) = picture.Detach();
        break;
      case Slot::kObject:
      case Slot::kNone:
        break;
    }
  }
};

constexpr std::size_t kMaxInputs = 2;

// The dispatch ids of the members of _Main2.
enum : DISPID {
  kInitialize = 0x60030007,
  kRibbon = 0x68030006,
  kGetRibbonXml = 0x60030009,
  kProductNameChanged = 0x6003000C,
  kGetLabel = 0x68030005,
  kGetEnabled = 0x68030004,
  kGetPressed = 0x68030003,
  kGetScreentip = 0x68030002,
  kGetImage = 0x68030000,
  kLoadImage = 0x6003000D,
  kRibbonCallback = 0x6003000F,
  kEnableGotoQuickBookmark = 0x60030010,
  kUpdateLexoscopeIcon = 0x60030011,
  kEnableToolbar = 0x60030013,
  kActivateMorvelinTab = 0x60030014,
};

// The members of _Main2 as the type library declares them, in slot order.
struct Member {
  Utf16View name;
  DISPID id;
  INVOKEKIND kind;
  std::array<Slot, kMaxInputs> inputs;
  Slot answer;

  UINT Inputs() const {
    return static_cast<UINT>(
        std::count_if(inputs.begin(), inputs.end(), [](Slot s) { return s != Slot::kNone; }));
  }
};

using enum Slot;
constexpr Member kMembers[] = {
    {u"Initialize", kInitialize, INVOKE_FUNC, {kObject, kText}, kNone},
    {u"ribbon", kRibbon, INVOKE_PROPERTYPUT, {kObject}, kNone},
    {u"GetRibbonXML", kGetRibbonXml, INVOKE_FUNC, {}, kText},
    {u"productNameChanged", kProductNameChanged, INVOKE_FUNC, {kText}, kNone},
    {u"GetLabel", kGetLabel, INVOKE_PROPERTYGET, {kText}, kText},
    {u"GetEnabled", kGetEnabled, INVOKE_PROPERTYGET, {kText}, kTruth},
    {u"GetPressed", kGetPressed, INVOKE_PROPERTYGET, {kText}, kTruth},
    {u"GetScreentip", kGetScreentip, INVOKE_PROPERTYGET, {kText}, kText},
    {u"GetImage", kGetImage, INVOKE_PROPERTYGET, {kText}, kPicture},
    {u"LoadImage", kLoadImage, INVOKE_FUNC, {kText}, kPicture},
    {u"RibbonCallback", kRibbonCallback, INVOKE_FUNC, {kText, kTruth}, kNone},
    {u"EnableGotoQuickBookmark", kEnableGotoQuickBookmark, INVOKE_FUNC, {kTruth}, kNone},
    {u"UpdateLexoscopeIcon", kUpdateLexoscopeIcon, INVOKE_FUNC, {kTruth}, kNone},
    {u"EnableToolbar", kEnableToolbar, INVOKE_FUNC, {kTruth}, kNone},
    {u"activateMorvelinTab", kActivateMorvelinTab, INVOKE_FUNC, {kObject}, kNone},
};

// Calls the member through its own slot, each argument and the answer where it expects them.
void Call(Main2Object& self, DISPID id, const Argument* in, Answer& out) {
  switch (id) {
    case kInitialize:
      self.Initialize(in[0].Object(), in[1].Text());
      break;
    case kRibbon:
      self.put_ribbon(in[0].Object());
      break;
    case kGetRibbonXml:
      self.GetRibbonXML(out.text.Put());
      break;
    case kProductNameChanged:
      self.productNameChanged(in[0].Text());
      break;
    case kGetLabel:
      self.get_GetLabel(in[0].Text(), out.text.Put());
      break;
    case kGetEnabled:
      self.get_GetEnabled(in[0].Text(), &out.truth);
      break;
    case kGetPressed:
      self.get_GetPressed(in[0].Text(), &out.truth);
      break;
    case kGetScreentip:
      self.get_GetScreentip(in[0].Text(), out.text.Put());
      break;
    case kGetImage:
      self.get_GetImage(in[0].Text(), out.picture.Put());
      break;
    case kLoadImage:
      self.LoadImage(in[0].Text(), out.picture.Put());
      break;
    case kRibbonCallback:
      self.RibbonCallback(in[0].Text(), in[1].Truth());
      break;
    case kEnableGotoQuickBookmark:
      self.EnableGotoQuickBookmark(in[0].Truth());
      break;
    case kUpdateLexoscopeIcon:
      self.UpdateLexoscopeIcon(in[0].Truth());
      break;
    case kEnableToolbar:
      self.EnableToolbar(in[0].Truth());
      break;
    case kActivateMorvelinTab:
      self.activateMorvelinTab(in[0].Object());
      break;
    default:
      break;
  }
}

// True when `name` is `member`'s name in any case of ASCII letters, which member names are made of.
// A name with other letters is left to the type library, which compares as the platform does; the
// common comparison, which folds every letter, costs a call into the C library for each one.
bool IsNameOf(Utf16View name, Utf16View member) {
  const auto fold = [](char16_t c) {
    return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c;
  };
  return std::equal(name.begin(), name.end(), member.begin(), member.end(),
                    [&](char16_t a, char16_t b) { return fold(a) == fold(b); });
}

// `Set obj.ribbon = r` is accepted beside `obj.ribbon = r`, though the type library can only say
// the latter.
WORD AcceptedFlags(const Member& member) {
  return member.kind == INVOKE_PROPERTYPUT ? DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF
                                           : static_cast<WORD>(member.kind);
}

const Member* FindMember(DISPID id, WORD flags) {
  for (const Member& member : kMembers) {
    if (member.id == id && (flags & AcceptedFlags(member)) != 0)
      return &member;
  }
  return nullptr;
}

// The parameter that named argument `name` stands for: its index, or the last parameter for the
// value of a property put; -1 for a name of no parameter.
int ParameterNamed(DISPID name, UINT declared) {
  if (name == DISPID_PROPERTYPUT)
    return static_cast<int>(declared) - 1;
  return name >= 0 && static_cast<UINT>(name) < declared ? static_cast<int>(name) : -1;
}

// The argument named for parameter `index`, the first if it is named twice.
VARIANT* NamedArgument(const DISPPARAMS& params, UINT index, UINT declared) {
  for (UINT j = 0; j < params.cNamedArgs; ++j) {
    if (ParameterNamed(params.rgdispidNamedArgs[j], declared) == static_cast<int>(index))
      return &params.rgvarg[j];
  }
  return nullptr;
}

// A type mismatch or a name of no parameter says which argument, by its place in rgvarg.
HRESULT ArgumentFailure(HRESULT hr, const DISPPARAMS& params, const VARIANT& argument,
                        UINT* argumentError) {
  if ((hr == DISP_E_TYPEMISMATCH || hr == DISP_E_PARAMNOTFOUND) && argumentError != nullptr)
    *argumentError = static_cast<UINT>(&argument - params.rgvarg);
  return hr;
}

}  // namespace

ComPtr<ITypeInfo> LoadMain2TypeInfo() {
  const std::wstring path = ModulePath(ThisModule());
  ComPtr<ITypeLib> library;
  if (path.empty() || FAILED(::LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.Put())))
    return nullptr;
  ComPtr<ITypeInfo> info;
  if (FAILED(library->GetTypeInfoOfGuid(IID__Main2, info.Put())))
    return nullptr;
  // For a dual interface that is the dispatch view; callers that invoke through the type
  // information need the interface it describes, whose members the vtable has.
  HREFTYPE vtableRef = 0;
  ComPtr<ITypeInfo> vtable;
  if (FAILED(info->GetRefTypeOfImplType(static_cast<UINT>(-1), &vtableRef)) ||
      FAILED(info->GetRefTypeInfo(vtableRef, vtable.Put())))
    return nullptr;
  return vtable;
}

HRESULT Main2Object::Create(REFIID riid, void** out) {
  if (out == nullptr)
    return E_POINTER;
  *out = nullptr;
  return Barrier([&] {
    ComPtr<ITypeInfo> typeInfo = LoadMain2TypeInfo();
    if (!typeInfo)
      return TYPE_E_CANTLOADLIBRARY;
    // The apartment's tracing module starts before its first object exists; the object's own
    // hold keeps it from then on.
    const ApartmentHold apartment = ApartmentHold::Enter();
    const auto object = ComPtr<Main2Object>::Attach(
        new (std::nothrow) Main2Object(apartment.Protector(), std::move(typeInfo)));
    if (!object)
      return E_OUTOFMEMORY;
    return object->QueryInterface(riid, out);
  });
}

Main2Object::Main2Object(VbwProtector& protector, ComPtr<ITypeInfo> typeInfo)
    : typeInfo_(std::move(typeInfo)), core_(protector) {}

HRESULT Main2Object::GetTypeInfoCount(UINT* count) {
  if (count == nullptr)
    return E_POINTER;
  *count = 1;
  return S_OK;
}

HRESULT Main2Object::GetTypeInfo(UINT index, LCID, ITypeInfo** out) {
  if (out == nullptr)
    return E_POINTER;
  *out = nullptr;
  if (index != 0)
    return DISP_E_BADINDEX;
  *out = ComPtr<ITypeInfo>(typeInfo_).Detach();
  return S_OK;
}

HRESULT Main2Object::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
  // A member's own name, the one question that scripts and macros ask, is answered from the table.
  // Parameter names and the names of no member of _Main2 go to the type library, which knows them
  // (the inherited IUnknown and IDispatch members included) and answers them as the platform does
  // once every name is known to be there.
  if (ids == nullptr || count == 0)
    return E_INVALIDARG;
  if (!AllNamed(names, count)) {
    std::fill(ids, ids + count, DISPID_UNKNOWN);
    return names == nullptr ? E_INVALIDARG : DISP_E_UNKNOWNNAME;
  }
  if (count == 1) {
    for (const Member& member : kMembers) {
      if (IsNameOf(NameView(names[0]), member.name)) {
        ids[0] = member.id;
        return S_OK;
      }
    }
  }
  return ::DispGetIDsOfNames(typeInfo_.Get(), names, count, ids);
}

// The steps, their order and the answer of each failure are the platform's own Invoke for this
// interface, so that a caller cannot tell the two apart, with two additions: `Set obj.ribbon = r`
// is taken, and a type mismatch names its argument in puArgErr. Every argument must be bound to a
// parameter: one too many answers DISP_E_BADPARAMCOUNT and a name of no parameter
// DISP_E_PARAMNOTFOUND, as on Windows. What is left out is reading the type information on every
// call.
HRESULT Main2Object::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params,
                            VARIANT* result, EXCEPINFO*, UINT* argumentError) {
  const CallHold hold(this);
  if (!WellFormed(params))
    return E_INVALIDARG;
  const Member* member = FindMember(id, flags);
  if (member == nullptr)
    return DISP_E_MEMBERNOTFOUND;  // also a read of `ribbon`, and any call to no member
  if (member->kind == INVOKE_PROPERTYPUT &&
      (params->cNamedArgs == 0 || params->rgdispidNamedArgs[0] != DISPID_PROPERTYPUT))
    return DISP_E_PARAMNOTFOUND;

  const UINT inputs = member->Inputs();
  const UINT declared = inputs + (member->answer != Slot::kNone ? 1 : 0);
  for (UINT j = 0; j < params->cNamedArgs; ++j) {
    if (ParameterNamed(params->rgdispidNamedArgs[j], declared) < 0)
      return ArgumentFailure(DISP_E_PARAMNOTFOUND, *params, params->rgvarg[j], argumentError);
  }
  // The answer is the last parameter and the caller's result, never an argument. (No member is a
  // property read with nothing but an answer, the one case where the platform takes an argument
  // there to index the answer.)
  if (params->cArgs > inputs || NamedArgument(*params, inputs, declared) != nullptr)
    return DISP_E_BADPARAMCOUNT;

  // A call that finds the stack used up answers as a member whose every statement failed.
  Answer answer;
  if (EntryRefused()) [[unlikely]] {
    if (result != nullptr)
      answer.HandTo(member->answer, *result);
    return S_OK;
  }
  Argument arguments[kMaxInputs];
  const UINT unnamed = params->cArgs - params->cNamedArgs;
  UINT positional = 0;
  UINT bound = 0;
  for (UINT i = 0; i < inputs; ++i) {
    VARIANT* source = NamedArgument(*params, i, declared);
    if (source == nullptr && positional < unnamed)
      source = &params->rgvarg[params->cArgs - 1 - positional++];
    if (source == nullptr)
      return DISP_E_BADPARAMCOUNT;
    ++bound;
    const HRESULT hr = arguments[i].Bind(*source, TypeOf(member->inputs[i]));
    if (FAILED(hr))
      return ArgumentFailure(hr, *params, *source, argumentError);
  }
  if (bound != params->cArgs)
    return DISP_E_BADPARAMCOUNT;  // an argument named twice, or one that nothing takes

  Call(*this, member->id, arguments, answer);
  if (result != nullptr)
    answer.HandTo(member->answer, *result);
  return S_OK;
}

// --- The members --------------------------------------------------------------------------------

HRESULT Main2Object::Initialize(IDispatch** eventSignaller, BSTR* productName) {
  return Guarded([&] { core_.Initialize(InObject(eventSignaller), InString(productName)); });
}

HRESULT Main2Object::put_ribbon(IDispatch** value) {
  return Guarded([&] { core_.ribbon(InObject(value)); });
}

HRESULT Main2Object::GetRibbonXML(BSTR* result) {
  ClearResult(result);
  return Guarded([&] { SetResult(result, core_.GetRibbonXML()); });
}

HRESULT Main2Object::productNameChanged(BSTR* productName) {
  return Guarded([&] { core_.productNameChanged(InString(productName)); });
}

HRESULT Main2Object::get_GetLabel(BSTR* idStr, BSTR* result) {
  ClearResult(result);
  return Guarded([&] { SetResult(result, core_.GetLabel(InString(idStr))); });
}

HRESULT Main2Object::get_GetEnabled(BSTR* idStr, VARIANT_BOOL* result) {
  ClearResult(result);
  return Guarded([&] { SetResult(result, core_.GetEnabled(InString(idStr))); });
}

HRESULT Main2Object::get_GetPressed(BSTR* idStr, VARIANT_BOOL* result) {
  ClearResult(result);
  return Guarded([&] { SetResult(result, core_.GetPressed(InString(idStr))); });
}

HRESULT Main2Object::get_GetScreentip(BSTR* idStr, BSTR* result) {
  ClearResult(result);
  return Guarded([&] { SetResult(result, core_.GetScreentip(InString(idStr))); });
}

HRESULT Main2Object::get_GetImage(BSTR* idStr, IPictureDisp** result) {
  ClearResult(result);
  return Guarded([&] { SetResult(result, core_.GetImage(InString(idStr))); });
}

HRESULT Main2Object::LoadImage(BSTR* id, IPictureDisp** result) {
  ClearResult(result);
  return Guarded([&] { SetResult(result, core_.LoadImage(InString(id))); });
}

HRESULT Main2Object::RibbonCallback(BSTR* idStr, VARIANT_BOOL* isOn) {
  return Guarded([&] { core_.RibbonCallback(InString(idStr), InBool(isOn)); });
}

HRESULT Main2Object::EnableGotoQuickBookmark(VARIANT_BOOL* value) {
  return Guarded([&] { core_.EnableGotoQuickBookmark(InBool(value)); });
}

HRESULT Main2Object::UpdateLexoscopeIcon(VARIANT_BOOL* enable) {
  return Guarded([&] { core_.UpdateLexoscopeIcon(InBool(enable)); });
}

HRESULT Main2Object::EnableToolbar(VARIANT_BOOL* value) {
  return Guarded([&] { core_.EnableToolbar(InBool(value)); });
}

HRESULT Main2Object::activateMorvelinTab(IDispatch** RibbonCommandBar) {
  return Guarded([&] { core_.activateMorvelinTab(InObject(RibbonCommandBar)); });
}

}  // namespace tabforge::com
