#include "server/windows_platform.h"

#include <windows.h>

#include <dispex.h>
#include <oleacc.h>
#include <winspool.h>

#include <string>
#include <vector>

#include "platform/call_budget.h"
#include "platform/failure.h"
#include "server/conversions.h"
#include "server/system_library.h"

namespace tabforge::com {

namespace {

std::wstring Wide(Utf16View text) {
  return std::wstring(reinterpret_cast<const wchar_t*>(text.data()), text.size());
}

Utf16String FromWide(const wchar_t* text, std::size_t length) {
  return Utf16String(reinterpret_cast<const char16_t*>(text), length);
}

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

// --- Host ---------------------------------------------------------------------------------------

Utf16String WindowsHost::CommandLine() const {
  const wchar_t* line = ::GetCommandLineW();
  return line != nullptr ? FromWide(line, std::wcslen(line)) : Utf16String();
}

std::wstring SettingsKey(Utf16View appName, Utf16View section) {
  return L"Software\\VB and VBA Program Settings\\" + Wide(appName) + L"\\" + Wide(section);
}

Utf16String WindowsHost::GetSetting(Utf16View appName, Utf16View section, Utf16View key,
                                    Utf16View defaultValue) const {
  const std::wstring path = SettingsKey(appName, section);
  const std::wstring name = Wide(key);
  DWORD type = 0;
  DWORD bytes = 0;
  if (::RegGetValueW(HKEY_CURRENT_USER, path.c_str(), name.c_str(), RRF_RT_REG_SZ, &type, nullptr,
                     &bytes) != ERROR_SUCCESS)
    return Utf16String(defaultValue);
  std::vector<wchar_t> buffer(bytes / sizeof(wchar_t) + 1);
  bytes = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
  if (::RegGetValueW(HKEY_CURRENT_USER, path.c_str(), name.c_str(), RRF_RT_REG_SZ, &type,
                     buffer.data(), &bytes) != ERROR_SUCCESS)
    return Utf16String(defaultValue);
  return FromWide(buffer.data(), std::wcslen(buffer.data()));
}

// --- Object factory -----------------------------------------------------------------------------

Ref<Object> WindowsObjectFactory::CreateObject(Utf16View progId) {
  std::wstring name = Wide(progId);
  CLSID clsid = lastClass_;
  ComPtr<IUnknown> unknown;
  if (name != lastProgId_ && FAILED(::CLSIDFromProgID(name.c_str(), &clsid))) {
    lastProgId_.clear();
    Raise(RunTimeError::kCannotCreateObject);
  }
  if (FAILED(::CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_IUnknown, unknown.PutVoid()))) {
    lastProgId_.clear();
    Raise(RunTimeError::kCannotCreateObject);
  }
  lastProgId_ = std::move(name);
  lastClass_ = clsid;
  return WrapUnknown(unknown.Get());
}

// --- System facts -------------------------------------------------------------------------------

SystemFacts::ScreenSize WindowsSystemFacts::Screen() const {
  return {::GetSystemMetrics(SM_CXSCREEN), ::GetSystemMetrics(SM_CYSCREEN)};
}

std::optional<Utf16String> WindowsSystemFacts::DefaultPrinter() const {
  // Only a failure report asks, so the spooler's DLL loads then and not with ours.
  static const auto getDefaultPrinter =
      SystemFunction<decltype(&::GetDefaultPrinterW)>(L"winspool.drv", "GetDefaultPrinterW");
  if (getDefaultPrinter == nullptr)
    return std::nullopt;
  DWORD length = 0;
  getDefaultPrinter(nullptr, &length);
  if (length == 0)
    return std::nullopt;
  std::vector<wchar_t> name(length);
  if (!getDefaultPrinter(name.data(), &length))
    return std::nullopt;
  return FromWide(name.data(), std::wcslen(name.data()));
}

std::uintptr_t WindowsSystemFacts::StackFloor() const {
  const DWORD thread = ::GetCurrentThreadId();
  if (thread == cachedThread_ && cachedFloor_ != 0)
    return cachedFloor_;
  // A thread's stack is one reservation: its base is the lowest address the stack can grow to.
  MEMORY_BASIC_INFORMATION region{};
  const int here = 0;
  if (::VirtualQuery(&here, &region, sizeof region) != sizeof region)
    return 0;
  cachedThread_ = thread;
  cachedFloor_ = reinterpret_cast<std::uintptr_t>(region.AllocationBase);
  return cachedFloor_;
}

// --- Message queue ------------------------------------------------------------------------------

bool WindowsMessageQueue::PumpOnce(std::chrono::steady_clock::time_point deadline) {
  // A window that posts itself work while handling it would keep a pass that runs until the queue
  // is empty going for ever: a pass handles what was posted before it began, and at most so many
  // messages, within the waiting search's own time.
  constexpr int kMaxMessagesPerPass = 1000;
  const DWORD began = ::GetTickCount();
  MSG message;
  for (int handled = 0; handled < kMaxMessagesPerPass; ++handled) {
    if (!::PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE))
      return true;
    // The quit request stays where it is, for the host's own loop to find.
    if (message.message == WM_QUIT)
      return false;
    if (static_cast<LONG>(message.time - began) > 0 || std::chrono::steady_clock::now() >= deadline)
      return true;
    if (!::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
      return true;
    if (message.message == WM_QUIT) {
      // Taken off between the two looks: put it back.
      ::PostQuitMessage(static_cast<int>(message.wParam));
      return false;
    }
    ::TranslateMessage(&message);
    ::DispatchMessageW(&message);
  }
  return true;
}

// --- Accessibility ------------------------------------------------------------------------------

std::int32_t WindowsAccessibility::AccessibleChildren(const Ref<Object>& container,
                                                      std::int32_t firstChild, std::int32_t count,
                                                      Variant* children, std::int32_t* obtained) {
  if (obtained != nullptr)
    *obtained = 0;
  try {
    ComPtr<IDispatch> dispatch = ToDispatch(container);
    ComPtr<IAccessible> accessible = dispatch.TryAs<IAccessible>();
    if (!accessible || count <= 0)
      return E_INVALIDARG;
    // Only the tab search asks, so oleacc loads then and not with ours.
    static const auto accessibleChildren =
        SystemFunction<decltype(&::AccessibleChildren)>(L"oleacc.dll", "AccessibleChildren");
    if (accessibleChildren == nullptr)
      return E_NOTIMPL;
    std::vector<UniqueVariant> raw(static_cast<std::size_t>(count));
    std::vector<VARIANT> list(static_cast<std::size_t>(count));
    for (VARIANT& v : list)
      ::VariantInit(&v);
    LONG got = 0;
    const HRESULT hr = accessibleChildren(accessible.Get(), firstChild, count, list.data(), &got);
    // Hand every returned VARIANT to an owner before converting, so nothing leaks on a throw.
    for (LONG i = 0; i < got && i < count; ++i)
      raw[static_cast<std::size_t>(i)].Reset(list[static_cast<std::size_t>(i)]);
    for (LONG i = 0; i < got && i < count; ++i)
      children[i] = FromAutomation(*raw[static_cast<std::size_t>(i)].Get());
    if (obtained != nullptr)
      *obtained = got;
    return hr;
  } catch (...) {
    return E_FAIL;
  }
}

}  // namespace tabforge::com
