#include "server/registry_entries.h"

#include <cwchar>
#include <iterator>

#include "Tabforge_h.h"
#include "server/com_ptr.h"
#include "tabforge_version.h"

namespace tabforge::com {
namespace {

// The automation marshaller: the proxy of every dual or automation interface.
constexpr wchar_t kAutomationMarshaller[] = L"{00020424-0000-0000-C000-000000000046}";
// The dispatch-only marshaller, for dispinterfaces that are not dual.
constexpr wchar_t kDispatchMarshaller[] = L"{00020420-0000-0000-C000-000000000046}";

#define TABFORGE_WIDEN2(x) L## #x
#define TABFORGE_WIDEN(x) TABFORGE_WIDEN2(x)
constexpr wchar_t kTypeLibVersion[] = TABFORGE_WIDEN(TABFORGE_TYPELIB_VERSION);

}  // namespace

std::wstring ClassKey() {
  return L"CLSID\\" + GuidText(CLSID_Main2);
}

std::wstring InterfaceKey() {
  return L"Interface\\" + GuidText(IID__Main2);
}

std::wstring TypeLibraryVersionKey() {
  wchar_t version[16] = {};
  std::swprintf(version, 16, L"%x.%x", TABFORGE_VERSION_MAJOR, TABFORGE_VERSION_MINOR);
  return L"TypeLib\\" + GuidText(LIBID_Tabforge) + L"\\" + version;
}

std::wstring GuidText(REFGUID guid) {
  wchar_t text[40] = {};
  const int written = ::StringFromGUID2(guid, text, static_cast<int>(std::size(text)));
  // The count includes the terminator; none is written when the buffer is too small.
  return written > 0 ? std::wstring(text, static_cast<std::size_t>(written - 1)) : std::wstring();
}

HMODULE ThisModule() {
  HMODULE module = nullptr;
  if (!::GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          reinterpret_cast<LPCWSTR>(&ThisModule), &module))
    return nullptr;
  return module;
}

std::wstring ModulePath(HMODULE module) {
  if (module == nullptr)
    return {};  // would be the host's own file
  // A path may be longer than MAX_PATH; the answer fills the whole buffer when it was cut short.
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0)
      return {};
    if (length < path.size()) {
      path.resize(length);
      return path;
    }
    if (path.size() >= 32768)  // the longest path the system has
      return {};
    path.resize(path.size() * 2);
  }
}

std::vector<RegistryEntry> ServerEntries(const std::wstring& path) {
  return {
      {ClassKey(), L"", kProgId},
      {ClassKey() + L"\\InprocServer32", L"", path},
      {ClassKey() + L"\\InprocServer32", L"ThreadingModel", kThreadingModel},
      {ClassKey() + L"\\ProgID", L"", kProgId},
      {std::wstring(kProgId) + L"\\CLSID", L"", GuidText(CLSID_Main2)},
      {InterfaceKey(), L"", L"_Main2"},
      {InterfaceKey() + L"\\ProxyStubClsid32", L"", kAutomationMarshaller},
      {InterfaceKey() + L"\\TypeLib", L"", GuidText(LIBID_Tabforge)},
      {InterfaceKey() + L"\\TypeLib", L"Version", kTypeLibVersion},
  };
}

std::vector<std::wstring> ServerKeys() {
  return {ClassKey(), kProgId, InterfaceKey()};
}

bool ReadTypeLibraryEntries(ITypeLib* library, const std::wstring& path, TypeLibraryEntries& out) {
  TLIBATTR* attributes = nullptr;
  if (library == nullptr || FAILED(library->GetLibAttr(&attributes)))
    return false;
  const std::wstring id = GuidText(attributes->guid);
  wchar_t text[64] = {};
  std::swprintf(text, 64, L"%x.%x", attributes->wMajorVerNum, attributes->wMinorVerNum);
  const std::wstring version = text;
  out.libraryKey = L"TypeLib\\" + id;
  out.versionKey = out.libraryKey + L"\\" + version;
  const wchar_t* platform = attributes->syskind == SYS_WIN64   ? L"win64"
                            : attributes->syskind == SYS_WIN16 ? L"win16"
                                                               : L"win32";
  std::swprintf(text, 64, L"%lx\\%ls", static_cast<unsigned long>(attributes->lcid), platform);
  const std::wstring pathKey = out.versionKey + L"\\" + text;
  std::swprintf(text, 64, L"%u", static_cast<unsigned>(attributes->wLibFlags));
  const std::wstring flags = text;
  library->ReleaseTLibAttr(attributes);

  // The library's title is its description, or its name when it has none.
  UniqueBstr name;
  UniqueBstr description;
  if (FAILED(library->GetDocumentation(-1, name.Put(), description.Put(), nullptr, nullptr)))
    return false;
  const std::wstring title = description ? description.Get() : name ? name.Get() : L"";
  // With no help folder given, the file's own folder stands in.
  const std::wstring folder = path.substr(0, path.find_last_of(L'\\'));
  out.library = {{out.versionKey, L"", title},
                 {pathKey, L"", path},
                 {out.versionKey + L"\\FLAGS", L"", flags},
                 {out.versionKey + L"\\HELPDIR", L"", folder}};

  out.interfaces.clear();
  out.interfaceKeys.clear();
  const UINT count = library->GetTypeInfoCount();
  for (UINT index = 0; index < count; ++index) {
    TYPEKIND kind = TKIND_MAX;
    ComPtr<ITypeInfo> info;
    if (FAILED(library->GetTypeInfoType(index, &kind)) ||
        (kind != TKIND_INTERFACE && kind != TKIND_DISPATCH) ||
        FAILED(library->GetTypeInfo(index, info.Put())))
      continue;
    TYPEATTR* type = nullptr;
    if (SUCCEEDED(info->GetTypeAttr(&type))) {
      if (kind == TKIND_DISPATCH || (type->wTypeFlags & TYPEFLAG_FOLEAUTOMATION) != 0) {
        UniqueBstr typeName;
        if (FAILED(library->GetDocumentation(static_cast<INT>(index), typeName.Put(), nullptr,
                                             nullptr, nullptr)))
          typeName.Reset();
        const std::wstring key = L"Interface\\" + GuidText(type->guid);
        const wchar_t* proxy = kind == TKIND_INTERFACE || (type->wTypeFlags & TYPEFLAG_FDUAL) != 0
                                   ? kAutomationMarshaller
                                   : kDispatchMarshaller;
        if (typeName)
          out.interfaces.push_back({key, L"", typeName.Get()});
        out.interfaces.push_back({key + L"\\ProxyStubClsid", L"", proxy});
        out.interfaces.push_back({key + L"\\ProxyStubClsid32", L"", proxy});
        out.interfaces.push_back({key + L"\\TypeLib", L"", id});
        out.interfaces.push_back({key + L"\\TypeLib", L"Version", version});
        out.interfaceKeys.push_back(key);
      }
      info->ReleaseTypeAttr(type);
    }
  }
  return true;
}

}  // namespace tabforge::com
