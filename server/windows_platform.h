// The platform seam on Windows: objects reached through IDispatch, the ribbon's IRibbonUI, and
// the host, object factory, system facts, message queue, accessibility and pictures of the
// platform.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include "platform/object.h"
#include "platform/platform.h"
#include "platform/variant.h"
#include "server/com_ptr.h"
#include "server/windows_pictures.h"

namespace tabforge::com {

// The key below HKEY_CURRENT_USER that holds the per-user settings of one section of an
// application, where the word processor's macros keep theirs.
std::wstring SettingsKey(Utf16View appName, Utf16View section);

class WindowsHost final : public HostEnvironment {
 public:
  Utf16String CommandLine() const override;
  Utf16String GetSetting(Utf16View appName, Utf16View section, Utf16View key,
                         Utf16View defaultValue) const override;
};

class WindowsObjectFactory final : public ObjectFactory {
 public:
  Ref<Object> CreateObject(Utf16View progId) override;

 private:
  // The class of the program id created last. The error component is created again for every
  // failure, and the registry lookup is a third of what that costs; a class that cannot be created
  // is looked up afresh next time.
  std::wstring lastProgId_;
  CLSID lastClass_{};
};

class WindowsSystemFacts final : public SystemFacts {
 public:
  ScreenSize Screen() const override;
  std::optional<Utf16String> DefaultPrinter() const override;
  std::uintptr_t StackFloor() const override;

 private:
  static std::optional<Utf16String> AskDefaultPrinter();

  // The last thread asked about and its floor: a call from the host asks once.
  mutable DWORD cachedThread_ = 0;
  mutable std::uintptr_t cachedFloor_ = 0;
  // The spooler's last answer, and when it was given (GetTickCount64; 0 before the first).
  static constexpr ULONGLONG kPrinterKeptMs = 1000;
  mutable std::optional<Utf16String> printer_;
  mutable ULONGLONG printerAsked_ = 0;
};

class WindowsMessageQueue final : public MessageQueue {
 public:
  bool PumpOnce(std::chrono::steady_clock::time_point deadline) override;
};

class WindowsAccessibility final : public AccessibilityApi {
 public:
  std::int32_t AccessibleChildren(const Ref<Object>& container, std::int32_t firstChild,
                                  std::int32_t count, Variant* children,
                                  std::int32_t* obtained) override;
};

// Every service of one apartment, in one place.
struct WindowsPlatform {
  WindowsHost host;
  WindowsObjectFactory objects;
  WindowsSystemFacts system;
  WindowsMessageQueue messages;
  WindowsAccessibility accessibility;
  WindowsPictureApi pictures;

  Platform Services() {
    return Platform{&host, &objects, &system, &messages, &accessibility, &pictures};
  }
};

}  // namespace tabforge::com
