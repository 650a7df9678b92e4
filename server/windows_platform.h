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

// The word processor's ribbon interface. Only the first two of its members are called here;
// the ones after them are left undeclared.
MIDL_INTERFACE("000C03A7-0000-0000-C000-000000000046")
IRibbonUI : public IDispatch {
 public:
  virtual HRESULT STDMETHODCALLTYPE Invalidate() = 0;
  virtual HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR controlId) = 0;
};
#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(IRibbonUI, 0x000C03A7, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                0x46)
#endif

namespace tabforge::com {

// An object from outside, called by member name through its IDispatch.
class WindowsObject : public Object {
 public:
  explicit WindowsObject(ComPtr<IUnknown> unknown);

  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;
  Ref<RibbonUi> QueryRibbonUi() override;

  const ComPtr<IDispatch>& Dispatch() const { return dispatch_; }
  const ComPtr<IUnknown>& Unknown() const { return unknown_; }

 private:
  DISPID FindMember(Utf16View member);

  ComPtr<IUnknown> unknown_;
  ComPtr<IDispatch> dispatch_;
};

// The same object through its IRibbonUI.
class WindowsRibbonUi final : public RibbonUi {
 public:
  WindowsRibbonUi(Ref<WindowsObject> object, ComPtr<IRibbonUI> ribbon);

  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;
  void Invalidate() override;
  void InvalidateControl(const Utf16String& controlId) override;

 private:
  Ref<WindowsObject> object_;
  ComPtr<IRibbonUI> ribbon_;
};

// Throws `Failure` for a failed status; a dispatch exception carries its own number and text.
void ThrowIfFailed(HRESULT hr, EXCEPINFO* exception = nullptr);

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
  // The last thread asked about and its floor: a call from the host asks once.
  mutable DWORD cachedThread_ = 0;
  mutable std::uintptr_t cachedFloor_ = 0;
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
