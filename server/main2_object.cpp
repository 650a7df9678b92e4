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
#include "server/dispatch_parameters.h"
#include "server/object_bridge.h"
#include "server/registry_entries.h"
#include "server/windows_platform.h"

namespace tabforge::com {

namespace {

// --- The members of _Main2 ----------------------------------------------------------------------

VARTYPE TypeOf(Main2Member::Slot slot) {
  switch (slot) {
    case Main2Member::kText:
      return VT_BSTR;
    case Main2Member::kTruth:
      return VT_BOOL;
    case Main2Member::kObject:
    case Main2Member::kPicture:
      return VT_DISPATCH;
    case Main2Member::kNone:
      break;
  }
  return VT_EMPTY;
}

Utf16String Text(void* value) {
  return value != nullptr ? FromBstr(*static_cast<BSTR*>(value)) : Utf16String();
}
VariantBool Truth(void* value) {
  return value != nullptr ? FromVariantBool(*static_cast<VARIANT_BOOL*>(value)) : kFalse;
}
void SetText(Main2Member::Answer& out, const Utf16String& text) {
  out.text = MakeBstr(text);
}
void SetPicture(Main2Member::Answer& out, const Ref<Object>& picture) {
  out.picture = ToDispatch(picture).TryAs<IPictureDisp>();
}

// The members of _Main2 as the type library declares them, in slot order, each with the one call
// it makes on the t.core. Invoke, GetIDsOfNames and the vtable members all go through this table;
// a test holds it to the type library.
using enum Main2Member::Slot;
constexpr Main2Member kMembers[] = {
    {u"Initialize",
     0x60030007,
     INVOKE_FUNC,
     {kObject, kText},
     kNone,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer&) {
       t.core.Initialize(t.ObjectOf(in[0], recording::kSignallerRole), Text(in[1]));
     }},
    {u"ribbon",
     0x68030006,
     INVOKE_PROPERTYPUT,
     {kObject},
     kNone,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer&) {
       t.core.ribbon(t.ObjectOf(in[0], recording::kRibbonRole));
     }},
    {u"GetRibbonXML",
     0x60030009,
     INVOKE_FUNC,
     {},
     kText,
     [](const Main2Member::Target& t, void* const*, Main2Member::Answer& out) {
       SetText(out, t.core.GetRibbonXML());
     }},
    {u"productNameChanged",
     0x6003000C,
     INVOKE_FUNC,
     {kText},
     kNone,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer&) {
       t.core.productNameChanged(Text(in[0]));
     }},
    {u"GetLabel",
     0x68030005,
     INVOKE_PROPERTYGET,
     {kText},
     kText,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer& out) {
       SetText(out, t.core.GetLabel(Text(in[0])));
     }},
    {u"GetEnabled",
     0x68030004,
     INVOKE_PROPERTYGET,
     {kText},
     kTruth,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer& out) {
       out.truth = ToVariantBoolValue(t.core.GetEnabled(Text(in[0])));
     }},
    {u"GetPressed",
     0x68030003,
     INVOKE_PROPERTYGET,
     {kText},
     kTruth,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer& out) {
       out.truth = ToVariantBoolValue(t.core.GetPressed(Text(in[0])));
     }},
    {u"GetScreentip",
     0x68030002,
     INVOKE_PROPERTYGET,
     {kText},
     kText,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer& out) {
       SetText(out, t.core.GetScreentip(Text(in[0])));
     }},
    {u"GetImage",
     0x68030000,
     INVOKE_PROPERTYGET,
     {kText},
     kPicture,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer& out) {
       SetPicture(out, t.core.GetImage(Text(in[0])));
     }},
    {u"LoadImage",
     0x6003000D,
     INVOKE_FUNC,
     {kText},
     kPicture,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer& out) {
       SetPicture(out, t.core.LoadImage(Text(in[0])));
     }},
    {u"RibbonCallback",
     0x6003000F,
     INVOKE_FUNC,
     {kText, kTruth},
     kNone,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer&) {
       t.core.RibbonCallback(Text(in[0]), Truth(in[1]));
     }},
    {u"EnableGotoQuickBookmark",
     0x60030010,
     INVOKE_FUNC,
     {kTruth},
     kNone,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer&) {
       t.core.EnableGotoQuickBookmark(Truth(in[0]));
     }},
    {u"UpdateLexoscopeIcon",
     0x60030011,
     INVOKE_FUNC,
     {kTruth},
     kNone,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer&) {
       t.core.UpdateLexoscopeIcon(Truth(in[0]));
     }},
    {u"EnableToolbar",
     0x60030013,
     INVOKE_FUNC,
     {kTruth},
     kNone,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer&) {
       t.core.EnableToolbar(Truth(in[0]));
     }},
    {u"activateMorvelinTab",
     0x60030014,
     INVOKE_FUNC,
     {kObject},
     kNone,
     [](const Main2Member::Target& t, void* const* in, Main2Member::Answer&) {
       t.core.activateMorvelinTab(t.ObjectOf(in[0], recording::kBarRole));
     }},
};

// The row of the member named `name`, found while compiling.
consteval const Main2Member& Row(Utf16View name) {
  for (const Main2Member& member : kMembers) {
    if (member.name == name)
      return member;
  }
  throw "no such member";
}

// Like the platform, Invoke writes over the result without clearing what it held: callers hand in
// results that were never initialised.
void HandTo(Main2Member::Slot slot, Main2Member::Answer& answer, VARIANT& result) {
  switch (slot) {
    case kText:
      // A string that is not there reaches the caller as an empty one.
      V_VT(&result) = VT_BSTR;
      V_BSTR(&result) = answer.text ? answer.text.Detach() : ::SysAllocString(L"");
      break;
    case kTruth:
      V_VT(&result) = VT_BOOL;
      V_BOOL(&result) = answer.truth;
      break;
    case kPicture:
      V_VT(&result) = VT_DISPATCH;
      V_DISPATCH(&result) = answer.picture.Detach();
      break;
    case kObject:
    case kNone:
      break;
  }
}

// The vtable's result slots take what the member answered; each is cleared before the member
// runs, so that a failure leaves the zero value.
void Clear(BSTR* result) {
  if (result != nullptr)
    *result = nullptr;
}
void Clear(VARIANT_BOOL* result) {
  if (result != nullptr)
    *result = VARIANT_FALSE;
}
void Clear(IPictureDisp** result) {
  if (result != nullptr)
    *result = nullptr;
}
void Take(Main2Member::Answer& answer, BSTR* result) {
  if (result != nullptr)
    *result = answer.text.Detach();
}
void Take(Main2Member::Answer& answer, VARIANT_BOOL* result) {
  if (result != nullptr)
    *result = answer.truth;
}
void Take(Main2Member::Answer& answer, IPictureDisp** result) {
  if (result != nullptr)
    *result = answer.picture.Detach();
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
WORD AcceptedFlags(const Main2Member& member) {
  return member.kind == INVOKE_PROPERTYPUT ? DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF
                                           : static_cast<WORD>(member.kind);
}

const Main2Member* FindMember(DISPID id, WORD flags) {
  for (const Main2Member& member : kMembers) {
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

std::span<const Main2Member> Main2Members() {
  return kMembers;
}

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
    const auto object =
        ComPtr<Main2Object>::Attach(new (std::nothrow) Main2Object(apartment, std::move(typeInfo)));
    if (!object)
      return E_OUTOFMEMORY;
    return object->QueryInterface(riid, out);
  });
}

Main2Object::Main2Object(const ApartmentHold& apartment, ComPtr<ITypeInfo> typeInfo)
    : typeInfo_(std::move(typeInfo)),
      core_(apartment.Protector()),
      recorder_(apartment.Recorder()) {}

Ref<Object> Main2Member::Target::ObjectOf(void* value, std::string_view role) const {
  Ref<Object> object = value != nullptr ? WrapDispatch(*static_cast<IDispatch**>(value)) : nullptr;
  return recorder != nullptr ? recorder->Wrap(object, role) : object;
}

namespace {

// The host's call as a recording writes it.
std::string CommandOf(const Main2Member& row, void* const* in) {
  std::vector<recording::HostArgument> arguments;
  for (std::size_t i = 0; i < row.Inputs(); ++i) {
    recording::HostArgument argument;
    switch (row.inputs[i]) {
      case kText:
        argument.text = Text(in[i]);
        break;
      case kTruth:
        argument.kind = recording::HostArgument::kTruth;
        argument.truth = IsTrue(Truth(in[i]));
        break;
      default:
        argument.kind = recording::HostArgument::kObject;
        if (in[i] == nullptr || *static_cast<IDispatch**>(in[i]) == nullptr)
          argument.objectName = "nothing";
        break;
    }
    arguments.push_back(std::move(argument));
  }
  return recording::CommandText(ToUtf8(row.name), arguments);
}

// The answer as a recording writes it; a picture by its size, as the picture itself tells it.
std::string ResultOf(const Main2Member& row, const Main2Member::Answer& answer) {
  switch (row.answer) {
    case kText:
      return Quote(FromBstr(answer.text.Get()));
    case kTruth:
      return answer.truth != VARIANT_FALSE ? "true" : "false";
    case kPicture: {
      std::optional<std::pair<std::int64_t, std::int64_t>> size;
      if (const ComPtr<IPicture> picture = ComPtr<IPictureDisp>(answer.picture).TryAs<IPicture>()) {
        OLE_XSIZE_HIMETRIC width = 0;
        OLE_YSIZE_HIMETRIC height = 0;
        if (SUCCEEDED(picture->get_Width(&width)) && SUCCEEDED(picture->get_Height(&height)))
          size.emplace(width, height);
      }
      return PictureText(static_cast<bool>(answer.picture), size);
    }
    default:
      return "ok";
  }
}

}  // namespace

void Main2Object::Call(const Main2Member& row, void* const* in, Main2Member::Answer& answer) {
  const Main2Member::Target target{core_, recorder_};
  if (recorder_ == nullptr || !recorder_->On()) [[likely]] {
    row.call(target, in, answer);
    return;
  }
  recorder_->HostCall(CommandOf(row, in));
  try {
    row.call(target, in, answer);
  } catch (...) {
    recorder_->HostAnswer("failed");
    throw;
  }
  recorder_->HostAnswer(ResultOf(row, answer));
}

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
    for (const Main2Member& member : kMembers) {
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
  const Main2Member* member = FindMember(id, flags);
  if (member == nullptr)
    return DISP_E_MEMBERNOTFOUND;  // also a read of `ribbon`, and any call to no member
  if (member->kind == INVOKE_PROPERTYPUT &&
      (params->cNamedArgs == 0 || params->rgdispidNamedArgs[0] != DISPID_PROPERTYPUT))
    return DISP_E_PARAMNOTFOUND;

  const UINT inputs = member->Inputs();
  const UINT declared = inputs + (member->answer != Main2Member::kNone ? 1 : 0);
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
  Main2Member::Answer answer;
  if (EntryRefused()) [[unlikely]] {
    if (result != nullptr)
      HandTo(member->answer, answer, *result);
    return S_OK;
  }
  BoundArgument arguments[Main2Member::kMaxInputs];
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

  void* values[Main2Member::kMaxInputs] = {arguments[0].Value(), arguments[1].Value()};
  Barrier<FailurePolicy::kAlwaysSucceed>([&] { Call(*member, values, answer); });
  if (result != nullptr)
    HandTo(member->answer, answer, *result);
  return S_OK;
}

// --- The vtable ----------------------------------------------------------------------------------

// A vtable member: its row's call on the caller's own values, the answer into its result.
template <class Result>
HRESULT Main2Object::Member(const Main2Member& row, std::initializer_list<void*> in,
                            Result* result) {
  Clear(result);
  return Guarded([&] {
    Main2Member::Answer answer;
    Call(row, in.begin(), answer);
    Take(answer, result);
  });
}

HRESULT Main2Object::Member(const Main2Member& row, std::initializer_list<void*> in) {
  return Guarded([&] {
    Main2Member::Answer answer;
    Call(row, in.begin(), answer);
  });
}

HRESULT Main2Object::Initialize(IDispatch** eventSignaller, BSTR* productName) {
  return Member(Row(u"Initialize"), {eventSignaller, productName});
}
HRESULT Main2Object::put_ribbon(IDispatch** value) {
  return Member(Row(u"ribbon"), {value});
}
HRESULT Main2Object::GetRibbonXML(BSTR* result) {
  return Member(Row(u"GetRibbonXML"), {}, result);
}
HRESULT Main2Object::productNameChanged(BSTR* productName) {
  return Member(Row(u"productNameChanged"), {productName});
}
HRESULT Main2Object::get_GetLabel(BSTR* idStr, BSTR* result) {
  return Member(Row(u"GetLabel"), {idStr}, result);
}
HRESULT Main2Object::get_GetEnabled(BSTR* idStr, VARIANT_BOOL* result) {
  return Member(Row(u"GetEnabled"), {idStr}, result);
}
HRESULT Main2Object::get_GetPressed(BSTR* idStr, VARIANT_BOOL* result) {
  return Member(Row(u"GetPressed"), {idStr}, result);
}
HRESULT Main2Object::get_GetScreentip(BSTR* idStr, BSTR* result) {
  return Member(Row(u"GetScreentip"), {idStr}, result);
}
HRESULT Main2Object::get_GetImage(BSTR* idStr, IPictureDisp** result) {
  return Member(Row(u"GetImage"), {idStr}, result);
}
HRESULT Main2Object::LoadImage(BSTR* id, IPictureDisp** result) {
  return Member(Row(u"LoadImage"), {id}, result);
}
HRESULT Main2Object::RibbonCallback(BSTR* idStr, VARIANT_BOOL* isOn) {
  return Member(Row(u"RibbonCallback"), {idStr, isOn});
}
HRESULT Main2Object::EnableGotoQuickBookmark(VARIANT_BOOL* value) {
  return Member(Row(u"EnableGotoQuickBookmark"), {value});
}
HRESULT Main2Object::UpdateLexoscopeIcon(VARIANT_BOOL* enable) {
  return Member(Row(u"UpdateLexoscopeIcon"), {enable});
}
HRESULT Main2Object::EnableToolbar(VARIANT_BOOL* value) {
  return Member(Row(u"EnableToolbar"), {value});
}
HRESULT Main2Object::activateMorvelinTab(IDispatch** RibbonCommandBar) {
  return Member(Row(u"activateMorvelinTab"), {RibbonCommandBar});
}

}  // namespace tabforge::com
