#include "tools/com_session.h"

#include <windows.h>

#include <ole2.h>
// <windows.h> names LoadImageW as LoadImage; the member keeps its own name.
#undef LoadImage

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "accessibility/accessible_tree.h"
#include "platform/failure.h"
#include "server/accessible_object.h"
#include "server/barrier.h"
#include "server/com_object.h"
#include "server/com_ptr.h"
#include "server/conversions.h"
#include "server/dispatch_parameters.h"
#include "server/object_bridge.h"
#include "server/registry_entries.h"
#include "server/registry_values.h"
#include "server/windows_platform.h"
#include "server/windows_text.h"
#include "tools/session_objects.h"

namespace tabforge::cli {
namespace {

using com::ComPtr;
using com::UniqueBstr;
using com::UniqueVariant;

[[noreturn]] void Fail(const std::string& what, HRESULT hr) {
  throw std::runtime_error(what + " failed with " + com::HresultCode(hr));
}

// The by-name half of IDispatch that the session's objects share: a member's id is its place in a
// fixed list of names, plus one.
template <class Derived, class Interface>
class SessionDispatch : public com::ComObject<Derived, Interface> {
 public:
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    return com::NoTypeInfoCount(count);
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** out) override {
    return com::NoTypeInfo(out);
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                                          DISPID* ids) override {
    if (names == nullptr || ids == nullptr || count == 0)
      return E_POINTER;
    for (UINT i = 0; i < count; ++i)
      ids[i] = DISPID_UNKNOWN;
    for (std::size_t i = 0; i < members_.size(); ++i) {
      if (com::SameMemberName(com::NameView(members_[i].c_str()), com::NameView(names[0]))) {
        ids[0] = static_cast<DISPID>(i) + 1;
        return count > 1 ? DISP_E_UNKNOWNNAME : S_OK;
      }
    }
    return DISP_E_UNKNOWNNAME;
  }

 protected:
  explicit SessionDispatch(std::vector<std::wstring> members) : members_(std::move(members)) {}
  const std::wstring* MemberOf(DISPID id) const {
    if (id < 1 || static_cast<std::size_t>(id) > members_.size())
      return nullptr;
    return &members_[static_cast<std::size_t>(id) - 1];
  }

 private:
  std::vector<std::wstring> members_;
};

// The signalling object: the core's recording signaller behind IDispatch, so that the library
// reaches it exactly as it reaches the template's object.
class SignallerObject final : public SessionDispatch<SignallerObject, IDispatch> {
 public:
  static ComPtr<IDispatch> Create(Ref<Object> signaller) {
    return ComPtr<IDispatch>::Attach(new SignallerObject(std::move(signaller)));
  }

  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO* exception, UINT*) override {
    const std::wstring* member = MemberOf(id);
    if (member == nullptr)
      return DISP_E_MEMBERNOTFOUND;
    // A failing macro reaches the library with its number and description, as from the
    // template.
    return com::Barrier<com::FailurePolicy::kException>(
        [&] {
          const UINT count = params != nullptr ? params->cArgs : 0;
          std::vector<Variant> arguments(count);
          for (UINT i = 0; i < count; ++i)
            arguments[i] = com::FromAutomation(params->rgvarg[count - 1 - i]);
          const auto kind =
              (flags & DISPATCH_METHOD) != 0 ? CallKind::kMethod : CallKind::kPropertyGet;
          Variant answer =
              signaller_->Invoke(Utf16String(member->begin(), member->end()), kind, arguments);
          if (result != nullptr)
            *result = com::ToAutomation(answer).Detach();
          return S_OK;
        },
        exception);
  }

 private:
  explicit SignallerObject(Ref<Object> signaller)
      : SessionDispatch({L"Run", L"getToolbarIconBits"}), signaller_(std::move(signaller)) {}
  Ref<Object> signaller_;
};

// The ribbon: the core's recording ribbon behind IRibbonUI, and by name behind IDispatch.
class RibbonObject final : public SessionDispatch<RibbonObject, IRibbonUI> {
 public:
  static ComPtr<IDispatch> Create(Ref<RibbonUi> ribbon) {
    return ComPtr<IDispatch>::Attach(new RibbonObject(std::move(ribbon)));
  }

  HRESULT STDMETHODCALLTYPE Invalidate() override {
    return com::Barrier([&] { ribbon_->Invalidate(); });
  }
  HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR controlId) override {
    return com::Barrier([&] { ribbon_->InvalidateControl(com::FromBstr(controlId)); });
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*,
                                   EXCEPINFO*, UINT*) override {
    const std::wstring* member = MemberOf(id);
    if (member == nullptr)
      return DISP_E_MEMBERNOTFOUND;
    const UINT count = params != nullptr ? params->cArgs : 0;
    if (*member == L"Invalidate")
      return count == 0 ? Invalidate() : DISP_E_BADPARAMCOUNT;
    if (count != 1)
      return DISP_E_BADPARAMCOUNT;
    return com::Barrier(
        [&] { ribbon_->InvalidateControl(ToBstr(com::FromAutomation(params->rgvarg[0]))); });
  }

 private:
  explicit RibbonObject(Ref<RibbonUi> ribbon)
      : SessionDispatch({L"Invalidate", L"InvalidateControl"}), ribbon_(std::move(ribbon)) {}
  Ref<RibbonUi> ribbon_;
};

// Creates the session's error component, a core object behind IDispatch, for every creation.
class ErrorComponentFactory final : public IClassFactory {
 public:
  ErrorComponentFactory(CallLog& log, std::shared_ptr<ErrorComponentState> state)
      : log_(log), state_(std::move(state)) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    return com::QueryClassFactory(this, riid, out);
  }
  // Lives as long as the registration that holds it, on the session's stack.
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** out) override {
    if (out == nullptr)
      return E_POINTER;
    *out = nullptr;
    if (outer != nullptr)
      return CLASS_E_NOAGGREGATION;
    return com::Barrier([&] {
      ComPtr<IDispatch> component =
          com::DispatchAdapter::Create(MakeRef<SessionErrorComponent>(log_, state_));
      return component->QueryInterface(riid, out);
    });
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  CallLog& log_;
  std::shared_ptr<ErrorComponentState> state_;
};

// The session's error component registered for this process under "MorvelinError.Main2", so that
// the library's creation by program id reaches it. A class that the program id already names is
// stood in for without touching the registry; otherwise the program id is entered for the life
// of the registration and removed again.
class ErrorComponentRegistration {
 public:
  ErrorComponentRegistration(CallLog& log, const SessionOptions& options)
      : factory_(log, MakeState(options)) {
    CLSID clsid = kSessionErrorComponent;
    if (FAILED(::CLSIDFromProgID(kProgId, &clsid))) {
      clsid = kSessionErrorComponent;
      EnterProgId(clsid);
    }
    const HRESULT hr = ::CoRegisterClassObject(clsid, &factory_, CLSCTX_INPROC_SERVER,
                                               REGCLS_MULTIPLEUSE, &cookie_);
    if (FAILED(hr)) {
      RemoveProgId();
      Fail("CoRegisterClassObject of the session's error component", hr);
    }
  }
  ~ErrorComponentRegistration() {
    ::CoRevokeClassObject(cookie_);
    RemoveProgId();
  }
  ErrorComponentRegistration(const ErrorComponentRegistration&) = delete;
  ErrorComponentRegistration& operator=(const ErrorComponentRegistration&) = delete;

 private:
  static constexpr const wchar_t* kProgId = L"MorvelinError.Main2";
  // {5B0E6C2A-7D41-4E8F-A3B9-2C6D8E1F4A70}
  static constexpr CLSID kSessionErrorComponent = {
      0x5b0e6c2a, 0x7d41, 0x4e8f, {0xa3, 0xb9, 0x2c, 0x6d, 0x8e, 0x1f, 0x4a, 0x70}};

  static std::shared_ptr<ErrorComponentState> MakeState(const SessionOptions& options) {
    auto state = std::make_shared<ErrorComponentState>();
    state->answers.assign(options.answers.begin(), options.answers.end());
    state->dumpDirectory = options.dumpDirectory;
    return state;
  }
  void EnterProgId(const CLSID& clsid) {
    const std::wstring text = com::GuidText(clsid);
    if (text.empty() ||
        !com::WriteString(HKEY_CLASSES_ROOT, L"MorvelinError.Main2\\CLSID", nullptr, text))
      throw std::runtime_error("cannot enter the program id MorvelinError.Main2");
    entered_ = true;
  }
  void RemoveProgId() {
    if (!entered_)
      return;
    ::RegDeleteTreeW(HKEY_CLASSES_ROOT, kProgId);
    ::RegDeleteKeyW(HKEY_CLASSES_ROOT, kProgId);
    entered_ = false;
  }

  ErrorComponentFactory factory_;
  DWORD cookie_ = 0;
  bool entered_ = false;
};

// One object reached by late binding: each name is resolved once, the first time it is called,
// and invoked by its dispatch id from then on.
class LateBound {
 public:
  explicit LateBound(ComPtr<IDispatch> object) : object_(std::move(object)) {}

  // Calls `member` with `arguments` in declared order; each is passed by reference, as a macro
  // passes its variables, and may be replaced by the callee.
  UniqueVariant Call(const std::wstring& member, WORD flags,
                     std::vector<UniqueVariant>& arguments) {
    const DISPID id = IdOf(member);
    std::vector<VARIANT> references(arguments.size());
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      VARIANT& reference = references[arguments.size() - 1 - i];
      V_VT(&reference) = VT_BYREF | VT_VARIANT;
      V_VARIANTREF(&reference) = arguments[i].Get();
    }
    DISPPARAMS params{references.data(), nullptr, static_cast<UINT>(references.size()), 0};
    UniqueVariant result;
    EXCEPINFO exception{};
    const HRESULT hr = object_->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params,
                                       result.Get(), &exception, nullptr);
    UniqueBstr source(exception.bstrSource);
    UniqueBstr description(exception.bstrDescription);
    UniqueBstr help(exception.bstrHelpFile);
    if (FAILED(hr))
      Fail(std::string(member.begin(), member.end()), hr);
    return result;
  }

  // `Set object.member = value`.
  void PutRef(const std::wstring& member, IDispatch* value) {
    const DISPID id = IdOf(member);
    VARIANT argument;
    V_VT(&argument) = VT_DISPATCH;
    V_DISPATCH(&argument) = value;
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS params{&argument, &named, 1, 1};
    const HRESULT hr = object_->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYPUTREF,
                                       &params, nullptr, nullptr, nullptr);
    if (FAILED(hr))
      Fail(std::string(member.begin(), member.end()), hr);
  }

 private:
  DISPID IdOf(const std::wstring& member) {
    if (auto found = ids_.find(member); found != ids_.end())
      return found->second;
    std::wstring name = member;
    LPOLESTR names[] = {name.data()};
    DISPID id = DISPID_UNKNOWN;
    const HRESULT hr = object_->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    if (FAILED(hr))
      Fail("GetIDsOfNames " + std::string(member.begin(), member.end()), hr);
    ids_.emplace(member, id);
    return id;
  }

  ComPtr<IDispatch> object_;
  std::map<std::wstring, DISPID> ids_;
};

UniqueVariant Text(Utf16View text) {
  UniqueVariant value;
  V_VT(value.Get()) = VT_BSTR;
  V_BSTR(value.Get()) = com::MakeBstr(text).Detach();
  return value;
}

UniqueVariant Flag(bool flag) {
  UniqueVariant value;
  V_VT(value.Get()) = VT_BOOL;
  V_BOOL(value.Get()) = flag ? VARIANT_TRUE : VARIANT_FALSE;
  return value;
}

UniqueVariant ObjectValue(const ComPtr<IDispatch>& object) {
  UniqueVariant value;
  V_VT(value.Get()) = VT_DISPATCH;
  V_DISPATCH(value.Get()) = ComPtr<IDispatch>(object).Detach();
  return value;
}

template <class... Values>
std::vector<UniqueVariant> Arguments(Values&&... values) {
  std::vector<UniqueVariant> list;
  (list.push_back(std::forward<Values>(values)), ...);
  return list;
}

UniqueVariant As(UniqueVariant value, VARTYPE type, const char* member) {
  const HRESULT hr = ::VariantChangeType(value.Get(), value.Get(), 0, type);
  if (FAILED(hr))
    Fail(std::string("the result of ") + member, hr);
  return value;
}

ComPtr<IDispatch> CreateRegistered() {
  CLSID clsid{};
  HRESULT hr = ::CLSIDFromProgID(L"Tabforge.Main2", &clsid);
  if (FAILED(hr))
    Fail("CLSIDFromProgID \"Tabforge.Main2\" (is Tabforge.dll registered?)", hr);
  ComPtr<IDispatch> object;
  hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.PutVoid());
  if (FAILED(hr))
    Fail("CoCreateInstance of \"Tabforge.Main2\"", hr);
  return object;
}

class ComTarget final : public SessionTarget {
 public:
  ComTarget(CallLog& log, const SessionOptions& options)
      : log_(log),
        errors_(options.errors ? std::make_unique<ErrorComponentRegistration>(log, options)
                               : nullptr),
        main2_(CreateRegistered()),
        signaller_(SignallerObject::Create(
            MakeRef<SessionSignaller>(log, options.iconDirectory, options.failingMacros))),
        ribbon_(RibbonObject::Create(MakeRef<SessionRibbon>(log))) {}

  void Initialize(Utf16View productName) override {
    auto arguments = Arguments(ObjectValue(signaller_), Text(productName));
    main2_.Call(L"Initialize", DISPATCH_METHOD, arguments);
  }
  void Ribbon() override { main2_.PutRef(L"ribbon", ribbon_.Get()); }
  Utf16String GetRibbonXML() override {
    std::vector<UniqueVariant> none;
    return TextOf(main2_.Call(L"GetRibbonXML", DISPATCH_METHOD, none), "GetRibbonXML");
  }
  Utf16String GetLabel(Utf16View id) override { return TextOf(Get(L"GetLabel", id), "GetLabel"); }
  Utf16String GetScreentip(Utf16View id) override {
    return TextOf(Get(L"GetScreentip", id), "GetScreentip");
  }
  bool GetEnabled(Utf16View id) override { return FlagOf(Get(L"GetEnabled", id), "GetEnabled"); }
  bool GetPressed(Utf16View id) override { return FlagOf(Get(L"GetPressed", id), "GetPressed"); }
  SessionPicture GetImage(Utf16View id) override { return PictureOf(Get(L"GetImage", id)); }
  SessionPicture LoadImage(Utf16View id) override {
    auto arguments = Arguments(Text(id));
    return PictureOf(main2_.Call(L"LoadImage", DISPATCH_METHOD, arguments));
  }
  void productNameChanged(Utf16View productName) override {
    auto arguments = Arguments(Text(productName));
    main2_.Call(L"productNameChanged", DISPATCH_METHOD, arguments);
  }
  void RibbonCallback(Utf16View id, bool isOn) override {
    auto arguments = Arguments(Text(id), Flag(isOn));
    main2_.Call(L"RibbonCallback", DISPATCH_METHOD, arguments);
  }
  void EnableToolbar(bool value) override { Set(L"EnableToolbar", value); }
  void EnableGotoQuickBookmark(bool value) override { Set(L"EnableGotoQuickBookmark", value); }
  void UpdateLexoscopeIcon(bool value) override { Set(L"UpdateLexoscopeIcon", value); }
  // The tree's elements reach the server as IAccessible objects, as the word processor's do.
  std::string ActivateTab(const std::string& path) override {
    return ActivateWithTreeFile(path, log_, [&](const Ref<AccessibleElement>& root) {
      ComPtr<IAccessible> commandBar = com::AccessibleObject::Create(Ref<Object>(root));
      auto arguments = Arguments(ObjectValue(ComPtr<IDispatch>::Attach(commandBar.Detach())));
      main2_.Call(L"activateMorvelinTab", DISPATCH_METHOD, arguments);
    });
  }

 private:
  UniqueVariant Get(const wchar_t* member, Utf16View id) {
    auto arguments = Arguments(Text(id));
    return main2_.Call(member, DISPATCH_PROPERTYGET, arguments);
  }
  void Set(const wchar_t* member, bool value) {
    auto arguments = Arguments(Flag(value));
    main2_.Call(member, DISPATCH_METHOD, arguments);
  }
  static Utf16String TextOf(UniqueVariant value, const char* member) {
    UniqueVariant text = As(std::move(value), VT_BSTR, member);
    return com::FromBstr(V_BSTR(text.Get()));
  }
  static bool FlagOf(UniqueVariant value, const char* member) {
    UniqueVariant flag = As(std::move(value), VT_BOOL, member);
    return V_BOOL(flag.Get()) != VARIANT_FALSE;
  }
  // Pictures answer their size by name, as a macro reads it.
  static SessionPicture PictureOf(UniqueVariant value) {
    SessionPicture picture;
    if (V_VT(value.Get()) != VT_DISPATCH || V_DISPATCH(value.Get()) == nullptr)
      return picture;
    picture.present = true;
    try {
      LateBound object{ComPtr<IDispatch>(V_DISPATCH(value.Get()))};
      std::vector<UniqueVariant> none;
      const UniqueVariant width =
          As(object.Call(L"Width", DISPATCH_PROPERTYGET, none), VT_I4, "Width");
      const UniqueVariant height =
          As(object.Call(L"Height", DISPATCH_PROPERTYGET, none), VT_I4, "Height");
      picture.widthHimetric = V_I4(width.Get());
      picture.heightHimetric = V_I4(height.Get());
      picture.sized = true;
    } catch (const std::runtime_error&) {
    }
    return picture;
  }

  CallLog& log_;
  // Outlives the instance, which may still create components while it goes.
  std::unique_ptr<ErrorComponentRegistration> errors_;
  LateBound main2_;
  ComPtr<IDispatch> signaller_;
  ComPtr<IDispatch> ribbon_;
};

}  // namespace

void AskForTracingOnTheCommandLine() {
  wchar_t* line = ::GetCommandLineW();
  if (line == nullptr || std::wcsstr(line, L"/trace") != nullptr)
    return;
  // The same number of characters, in the buffer that every later reader of the command line
  // gets, the library among them.
  if (wchar_t* option = std::wcsstr(line, L"--trace"))
    std::wmemcpy(option, L"/trace ", 7);
}

std::unique_ptr<SessionTarget> MakeLateBoundTarget(CallLog& log, const SessionOptions& options) {
  return std::make_unique<ComTarget>(log, options);
}

Utf16String LateBoundRibbonXml(Utf16View productName) {
  const ComPtr<IDispatch> main2 = CreateRegistered();
  LateBoundInitialize(main2.Get(), productName);
  return LateBoundGetRibbonXml(main2.Get());
}

void LateBoundInitialize(IDispatch* main2, Utf16View productName) {
  auto initialize = Arguments(ObjectValue(nullptr), Text(productName));
  LateBound(ComPtr<IDispatch>(main2)).Call(L"Initialize", DISPATCH_METHOD, initialize);
}

Utf16String LateBoundGetRibbonXml(IDispatch* main2) {
  std::vector<UniqueVariant> none;
  UniqueVariant document =
      As(LateBound(ComPtr<IDispatch>(main2)).Call(L"GetRibbonXML", DISPATCH_METHOD, none), VT_BSTR,
         "GetRibbonXML");
  return com::FromBstr(V_BSTR(document.Get()));
}

}  // namespace tabforge::cli
