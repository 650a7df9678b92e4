#include "server/windows_platform.h"

#include <windows.h>

#include <dispex.h>
#include <oleacc.h>
#include <winspool.h>

#include <string>
#include <vector>

#include "platform/failure.h"
#include "server/barrier.h"
#include "server/conversions.h"
#include "server/object_bridge.h"
#include "server/registry_values.h"
#include "server/status.h"
#include "server/system_library.h"
#include "server/windows_text.h"

namespace tabforge::com {

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
  const std::optional<std::wstring> value =
      ReadString(HKEY_CURRENT_USER, SettingsKey(appName, section), Wide(key).c_str());
  return value ? FromWide(value->c_str(), value->size()) : Utf16String(defaultValue);
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
  // Every dump asks, and a failure deep in nested dumps writes many in one call: the spooler's
  // answer is kept for a second.
  const ULONGLONG now = ::GetTickCount64();
  if (printerAsked_ != 0 && now - printerAsked_ < kPrinterKeptMs)
    return printer_;
  printer_ = AskDefaultPrinter();
  printerAsked_ = now;
  return printer_;
}

std::optional<Utf16String> WindowsSystemFacts::AskDefaultPrinter() {
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
  // A status, never a throw, as the platform function it stands for.
  return Barrier([&]() -> HRESULT {
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
  });
}

}  // namespace tabforge::com
