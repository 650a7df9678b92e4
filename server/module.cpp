// The entry points of Tabforge.dll: class factory, unload check and self-registration.
//
// Registration writes exactly the type library's entries (RegisterTypeLib) and the class, program
// id and interface entries of ServerEntries (registry_entries.cpp), and removes exactly these.
#include <windows.h>

#include <ole2.h>
#include <olectl.h>
#undef LoadImage

#include <string>

#include "Tabforge_h.h"
#include "platform/flight_events.h"
#include "server/barrier.h"
#include "server/com_ptr.h"
#include "server/main2_object.h"
#include "server/object_bridge.h"
#include "server/registry_entries.h"
#include "server/registry_values.h"
#include "server/windows_flight_log.h"
#include "tabforge_version.h"

namespace {

using tabforge::com::ComPtr;

class ClassFactory final : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    return tabforge::com::QueryClassFactory(this, riid, out);
  }
  // The factory is a static object of the module; holding it keeps the module loaded. A release
  // or an unlock that was never taken changes nothing: no caller can bring the module's count
  // below what live objects and honest holders keep.
  ULONG STDMETHODCALLTYPE AddRef() override {
    Take(references_);
    return 2;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    Give(references_);
    return 1;
  }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** out) override {
    if (out == nullptr)
      return E_POINTER;
    *out = nullptr;
    if (outer != nullptr)
      return CLASS_E_NOAGGREGATION;
    const HRESULT created = tabforge::com::Main2Object::Create(riid, out);
    if (SUCCEEDED(created))
      tabforge::flight::NoteStep(tabforge::flight::Step::kMain2Created);
    return created;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    if (lock)
      Take(locks_);
    else
      Give(locks_);
    return S_OK;
  }

 private:
  static void Take(LONG& count) {
    ::InterlockedIncrement(&count);
    tabforge::com::ModuleAddRef();
  }
  static void Give(LONG& count) {
    if (tabforge::com::ReleaseIfHeld(count))
      tabforge::com::ModuleRelease();
  }

  LONG references_ = 0;
  LONG locks_ = 0;
};

ClassFactory g_factory;

bool SetValue(const std::wstring& key, const wchar_t* name, const std::wstring& value) {
  return tabforge::com::WriteString(HKEY_CLASSES_ROOT, key, name, value);
}

void DeleteTree(const std::wstring& key) {
  ::RegDeleteTreeW(HKEY_CLASSES_ROOT, key.c_str());
  ::RegDeleteKeyW(HKEY_CLASSES_ROOT, key.c_str());
}

SYSKIND ThisSysKind() {
  return sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32;
}

HRESULT RegisterServer() {
  std::wstring path = tabforge::com::ModulePath(tabforge::com::ThisModule());
  if (path.empty())
    return SELFREG_E_TYPELIB;
  ComPtr<ITypeLib> library;
  if (FAILED(::LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.Put())) ||
      FAILED(::RegisterTypeLib(library.Get(), path.data(), nullptr)))
    return SELFREG_E_TYPELIB;
  for (const auto& entry : tabforge::com::ServerEntries(path)) {
    if (!SetValue(entry.key, entry.name.empty() ? nullptr : entry.name.c_str(), entry.value))
      return SELFREG_E_CLASS;
  }
  return S_OK;
}

// Each step is taken whatever the one before answered: unregistration removes what is there.
HRESULT UnregisterServer() {
  ::UnRegisterTypeLib(LIBID_Tabforge, TABFORGE_VERSION_MAJOR, TABFORGE_VERSION_MINOR, 0,
                      ThisSysKind());
  // The type library's unregistration may leave the interface key; it is ours either way.
  for (const auto& key : tabforge::com::ServerKeys())
    DeleteTree(key);
  return S_OK;
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    ::DisableThreadLibraryCalls(instance);
  }
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID riid, LPVOID* out) {
  if (out == nullptr)
    return E_POINTER;
  *out = nullptr;
  if (!IsEqualCLSID(clsid, CLSID_Main2))
    return CLASS_E_CLASSNOTAVAILABLE;
  // The library's load as the log tells it: the first request for the class, right after the
  // loader, and never inside DllMain.
  tabforge::com::StartFlightLog(tabforge::com::ThisModule());
  return g_factory.QueryInterface(riid, out);
}

STDAPI DllCanUnloadNow() {
  return tabforge::com::ModuleInUse() ? S_FALSE : S_OK;
}

STDAPI DllRegisterServer() {
  return tabforge::com::Barrier([] { return RegisterServer(); });
}

STDAPI DllUnregisterServer() {
  return tabforge::com::Barrier([] { return UnregisterServer(); });
}
