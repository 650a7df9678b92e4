// The entry points of Tabforge.dll: class factory, unload check and self-registration.
//
// Registration writes exactly these entries and removes exactly these:
//   the type library (RegisterTypeLib / UnRegisterTypeLib);
//   HKCR\CLSID\{CC663791-...}                 default "Tabforge.Main2"
//   HKCR\CLSID\{CC663791-...}\InprocServer32  default this file's path, ThreadingModel "Apartment"
//   HKCR\CLSID\{CC663791-...}\ProgID          default "Tabforge.Main2"
//   HKCR\Tabforge.Main2\CLSID                 default "{CC663791-...}"
//   HKCR\Interface\{A9489D5E-...}             default "_Main2", with ProxyStubClsid32 (the
//                                             automation marshaller) and TypeLib (id, "1.0")
#include <windows.h>

#include <ole2.h>
#include <olectl.h>
#undef LoadImage

#include <string>

#include "Tabforge_h.h"
#include "server/com_ptr.h"
#include "server/main2_object.h"

namespace {

using tabforge::com::ComPtr;

HINSTANCE g_module = nullptr;

constexpr wchar_t kProgId[] = L"Tabforge.Main2";
constexpr wchar_t kAutomationMarshaller[] = L"{00020424-0000-0000-C000-000000000046}";

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class ClassFactory final : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (out == nullptr)
      return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
      *out = static_cast<IClassFactory*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  // The factory is a static object of the module; holding it keeps the module loaded.
  ULONG STDMETHODCALLTYPE AddRef() override {
    tabforge::com::ModuleAddRef();
    return 2;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    tabforge::com::ModuleRelease();
    return 1;
  }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** out) override {
    if (out == nullptr)
      return E_POINTER;
    *out = nullptr;
    if (outer != nullptr)
      return CLASS_E_NOAGGREGATION;
    return tabforge::com::Main2Object::Create(riid, out);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    if (lock)
      tabforge::com::ModuleAddRef();
    else
      tabforge::com::ModuleRelease();
    return S_OK;
  }
};

#pragma GCC diagnostic pop

ClassFactory g_factory;

std::wstring GuidText(REFGUID guid) {
  wchar_t text[40] = {};
  ::StringFromGUID2(guid, text, 40);
  return text;
}

std::wstring ModulePath() {
  wchar_t path[MAX_PATH * 2] = {};
  ::GetModuleFileNameW(g_module, path, static_cast<DWORD>(std::size(path)));
  return path;
}

bool SetValue(const std::wstring& key, const wchar_t* name, const std::wstring& value) {
  HKEY handle = nullptr;
  if (::RegCreateKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &handle,
                        nullptr) != ERROR_SUCCESS)
    return false;
  const LSTATUS status =
      ::RegSetValueExW(handle, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                       static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  ::RegCloseKey(handle);
  return status == ERROR_SUCCESS;
}

void DeleteTree(const std::wstring& key) {
  ::RegDeleteTreeW(HKEY_CLASSES_ROOT, key.c_str());
  ::RegDeleteKeyW(HKEY_CLASSES_ROOT, key.c_str());
}

const std::wstring& ClassKey() {
  static const std::wstring key = L"CLSID\\" + GuidText(CLSID_Main2);
  return key;
}
const std::wstring& InterfaceKey() {
  static const std::wstring key = L"Interface\\" + GuidText(IID__Main2);
  return key;
}

SYSKIND ThisSysKind() {
  return sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32;
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    g_module = instance;
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
  return g_factory.QueryInterface(riid, out);
}

STDAPI DllCanUnloadNow() {
  return tabforge::com::ModuleInUse() ? S_FALSE : S_OK;
}

STDAPI DllRegisterServer() {
  std::wstring path = ModulePath();
  ComPtr<ITypeLib> library;
  if (FAILED(::LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.Put())) ||
      FAILED(::RegisterTypeLib(library.get(), path.data(), nullptr)))
    return SELFREG_E_TYPELIB;
  const std::wstring clsid = GuidText(CLSID_Main2);
  const bool written =
      SetValue(ClassKey(), nullptr, kProgId) &&
      SetValue(ClassKey() + L"\\InprocServer32", nullptr, path) &&
      SetValue(ClassKey() + L"\\InprocServer32", L"ThreadingModel", L"Apartment") &&
      SetValue(ClassKey() + L"\\ProgID", nullptr, kProgId) &&
      SetValue(std::wstring(kProgId) + L"\\CLSID", nullptr, clsid) &&
      SetValue(InterfaceKey(), nullptr, L"_Main2") &&
      SetValue(InterfaceKey() + L"\\ProxyStubClsid32", nullptr, kAutomationMarshaller) &&
      SetValue(InterfaceKey() + L"\\TypeLib", nullptr, GuidText(LIBID_Tabforge)) &&
      SetValue(InterfaceKey() + L"\\TypeLib", L"Version", L"1.0");
  return written ? S_OK : SELFREG_E_CLASS;
}

STDAPI DllUnregisterServer() {
  DeleteTree(ClassKey());
  DeleteTree(kProgId);
  ::UnRegisterTypeLib(LIBID_Tabforge, 1, 0, 0, ThisSysKind());
  // The type library's unregistration may leave the interface key; it is ours either way.
  DeleteTree(InterfaceKey());
  return S_OK;
}
