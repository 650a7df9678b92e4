#include "tools/register_command.h"

#include <windows.h>

#include <ole2.h>

#include <cstdint>
#include <cstdio>
#include <iostream>

#include "Tabforge_h.h"
#include "platform/utf16.h"
#include "server/com_ptr.h"
#include "server/registry_entries.h"
#include "tabforge_version.h"

namespace tabforge::cli {
namespace {

using com::RegistryEntry;

constexpr const char* kRegisterUsage =
    "usage: tabforge register [--user | --machine] [--unregister] PATH\n"
    "\n"
    "Writes the registry entries that Tabforge.dll's DllRegisterServer writes (the class with\n"
    "PATH as its in-process server, the program id, the interface and the type library),\n"
    "without loading the DLL. --user (the default) writes them under\n"
    "HKEY_CURRENT_USER\\Software\\Classes and needs no administrator rights; --machine writes\n"
    "them for every user, under HKEY_LOCAL_MACHINE\\Software\\Classes. Either way they go into\n"
    "the registry view of the DLL's own bitness, where a word processor of that bitness looks,\n"
    "whichever tabforge.exe writes them. --unregister removes them again.\n";

// The registry view that a program of the DLL's bitness reads, and the other one; 0 when PATH is
// not a Windows DLL for x86 or x64.
struct Views {
  REGSAM own = 0;
  REGSAM other = 0;
};

Views ViewsOf(const std::wstring& path) {
  FILE* file = ::_wfopen(path.c_str(), L"rb");
  if (file == nullptr)
    return {};
  unsigned char dos[64] = {};
  unsigned char header[6] = {};
  bool read = std::fread(dos, 1, sizeof dos, file) == sizeof dos && dos[0] == 'M' && dos[1] == 'Z';
  if (read) {
    const std::uint32_t offset =
        dos[60] | dos[61] << 8 | dos[62] << 16 | static_cast<std::uint32_t>(dos[63]) << 24;
    read = std::fseek(file, static_cast<long>(offset), SEEK_SET) == 0 &&
           std::fread(header, 1, sizeof header, file) == sizeof header && header[0] == 'P' &&
           header[1] == 'E' && header[2] == 0 && header[3] == 0;
  }
  std::fclose(file);
  if (!read)
    return {};
  switch (header[4] | header[5] << 8) {
    case IMAGE_FILE_MACHINE_I386:
      return {KEY_WOW64_32KEY, KEY_WOW64_64KEY};
    case IMAGE_FILE_MACHINE_AMD64:
      return {KEY_WOW64_64KEY, KEY_WOW64_32KEY};
    default:
      return {};
  }
}

// The classes key of one hive, seen in one view.
class ClassesKey {
 public:
  ClassesKey(HKEY hive, REGSAM view) : hive_(hive), view_(view) {}

  bool Write(const RegistryEntry& entry) const {
    com::UniqueHkey key;
    if (::RegCreateKeyExW(hive_, Path(entry.key).c_str(), 0, nullptr, 0,
                          KEY_WRITE | ViewOf(entry.key), nullptr, key.Put(),
                          nullptr) != ERROR_SUCCESS)
      return false;
    return ::RegSetValueExW(key.Get(), entry.name.empty() ? nullptr : entry.name.c_str(), 0, REG_SZ,
                            reinterpret_cast<const BYTE*>(entry.value.c_str()),
                            static_cast<DWORD>((entry.value.size() + 1) * sizeof(wchar_t))) ==
           ERROR_SUCCESS;
  }

  // Deletes `name` with everything below it; a key that is not there is already deleted.
  bool DeleteTree(const std::wstring& name) const {
    const std::wstring path = Path(name);
    const std::wstring parentPath = path.substr(0, path.find_last_of(L'\\'));
    const std::wstring leaf = path.substr(parentPath.size() + 1);
    com::UniqueHkey parent;
    const REGSAM view = ViewOf(name);
    const LSTATUS opened =
        ::RegOpenKeyExW(hive_, parentPath.c_str(), 0, KEY_READ | KEY_WRITE | view, parent.Put());
    if (opened == ERROR_FILE_NOT_FOUND)
      return true;
    if (opened != ERROR_SUCCESS)
      return false;
    const LSTATUS status = ::RegDeleteTreeW(parent.Get(), leaf.c_str());
    const LSTATUS deleted = ::RegDeleteKeyExW(parent.Get(), leaf.c_str(), view, 0);
    return (status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND) &&
           (deleted == ERROR_SUCCESS || deleted == ERROR_FILE_NOT_FOUND);
  }

  // Deletes `name` when nothing is left in it.
  void DeleteIfEmpty(const std::wstring& name) const {
    ::RegDeleteKeyExW(hive_, Path(name).c_str(), ViewOf(name), 0);
  }

  std::vector<std::wstring> Subkeys(const std::wstring& name) const {
    std::vector<std::wstring> names;
    com::UniqueHkey key;
    if (::RegOpenKeyExW(hive_, Path(name).c_str(), 0, KEY_READ | ViewOf(name), key.Put()) !=
        ERROR_SUCCESS)
      return names;
    wchar_t text[256];
    for (DWORD index = 0;; ++index) {
      DWORD length = static_cast<DWORD>(std::size(text));
      if (::RegEnumKeyExW(key.Get(), index, text, &length, nullptr, nullptr, nullptr, nullptr) !=
          ERROR_SUCCESS)
        break;
      names.emplace_back(text, length);
    }
    return names;
  }

 private:
  std::wstring Path(const std::wstring& key) const { return L"Software\\Classes\\" + key; }

  // Of the classes, only the class ids and the interfaces have a key per view; the program ids
  // and the type libraries are shared by both. Naming the 64-bit view for a shared key is the
  // same on Windows, and where Wine keeps it too when a 64-bit program asks for the 32-bit view.
  REGSAM ViewOf(const std::wstring& key) const {
    for (const std::wstring redirected : {L"CLSID", L"Interface"}) {
      if (key.compare(0, redirected.size(), redirected) == 0 &&
          (key.size() == redirected.size() || key[redirected.size()] == L'\\'))
        return view_;
    }
    return KEY_WOW64_64KEY;
  }

  HKEY hive_;
  REGSAM view_;
};

std::wstring FullPath(const std::string& path) {
  const std::u16string wide = FromUtf8(path);
  const std::wstring given(wide.begin(), wide.end());
  wchar_t full[MAX_PATH * 2] = {};
  const DWORD length =
      ::GetFullPathNameW(given.c_str(), static_cast<DWORD>(std::size(full)), full, nullptr);
  return length == 0 || length >= std::size(full) ? given : std::wstring(full, length);
}

// The same entries, in the same order, as DllRegisterServer: the type library's first, then the
// server's own. The platform's type library registration copies the interfaces' entries into the
// other view too, and so does this.
int Write(const std::wstring& path, const ClassesKey& own, const ClassesKey& other) {
  com::ComPtr<ITypeLib> library;
  com::TypeLibraryEntries typeLibrary;
  if (FAILED(::LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.Put())) ||
      !com::ReadTypeLibraryEntries(library.Get(), path, typeLibrary)) {
    std::cerr << "tabforge register: cannot read the type library of the DLL\n";
    return 1;
  }
  bool written = true;
  for (const auto& entry : typeLibrary.library)
    written = own.Write(entry) && written;
  for (const auto& entry : typeLibrary.interfaces)
    written = own.Write(entry) && other.Write(entry) && written;
  for (const auto& entry : com::ServerEntries(path))
    written = own.Write(entry) && written;
  if (!written) {
    std::cerr << "tabforge register: cannot write to the registry (for --machine, run as an "
                 "administrator)\n";
    return 1;
  }
  return 0;
}

// Removes what Write wrote. The type library's key is shared with the other bitness's DLL when
// both are registered: as the platform's unregistration does, only this file's platform entry
// goes, and the rest once no other platform is left.
int Remove(const std::wstring& path, const ClassesKey& own, const ClassesKey& other) {
  com::ComPtr<ITypeLib> library;
  com::TypeLibraryEntries typeLibrary;
  bool removed = true;
  if (SUCCEEDED(::LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.Put())) &&
      com::ReadTypeLibraryEntries(library.Get(), path, typeLibrary)) {
    const std::wstring& platformKey = typeLibrary.library[1].key;
    removed = own.DeleteTree(platformKey);
    own.DeleteIfEmpty(platformKey.substr(0, platformKey.find_last_of(L'\\')));
    bool othersLeft = false;
    for (const auto& name : own.Subkeys(typeLibrary.versionKey))
      othersLeft = othersLeft || (name != L"FLAGS" && name != L"HELPDIR");
    if (!othersLeft)
      removed = own.DeleteTree(typeLibrary.versionKey) && removed;
    own.DeleteIfEmpty(typeLibrary.libraryKey);
  } else {
    wchar_t version[16] = {};
    std::swprintf(version, 16, L"%x.%x", TABFORGE_VERSION_MAJOR, TABFORGE_VERSION_MINOR);
    const std::wstring libraryKey = L"TypeLib\\" + com::GuidText(LIBID_Tabforge);
    removed = own.DeleteTree(libraryKey + L"\\" + version);
    own.DeleteIfEmpty(libraryKey);
  }
  for (const auto& key : com::ServerKeys())
    removed = own.DeleteTree(key) && removed;
  removed = other.DeleteTree(L"Interface\\" + com::GuidText(IID__Main2)) && removed;
  // Registration may have created these in a user's classes, which start out nearly empty.
  for (const ClassesKey* view : {&own, &other}) {
    for (const wchar_t* parent : {L"CLSID", L"Interface", L"TypeLib"})
      view->DeleteIfEmpty(parent);
  }
  if (!removed) {
    std::cerr << "tabforge register: cannot remove the entries (for --machine, run as an "
                 "administrator)\n";
    return 1;
  }
  return 0;
}

}  // namespace

int Register(const std::vector<std::string>& args) {
  bool machine = false;
  bool unregister = false;
  std::string path;
  for (const auto& arg : args) {
    if (arg == "--help" || arg == "-h") {
      std::cout << kRegisterUsage;
      return 0;
    }
    if (arg == "--user") {
      machine = false;
    } else if (arg == "--machine") {
      machine = true;
    } else if (arg == "--unregister") {
      unregister = true;
    } else if (path.empty() && arg.rfind("--", 0) != 0) {
      path = arg;
    } else {
      std::cerr << "tabforge register: unexpected argument '" << arg << "'\n" << kRegisterUsage;
      return 2;
    }
  }
  if (path.empty()) {
    std::cerr << "tabforge register: no PATH given\n" << kRegisterUsage;
    return 2;
  }
  const std::wstring fullPath = FullPath(path);
  const Views views = ViewsOf(fullPath);
  if (views.own == 0) {
    std::cerr << "tabforge register: '" << path << "' is not a Windows DLL for x86 or x64\n";
    return 2;
  }
  const HKEY hive = machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
  const ClassesKey own(hive, views.own);
  const ClassesKey other(hive, views.other);
  const HRESULT initialized = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  const int status = unregister ? Remove(fullPath, own, other) : Write(fullPath, own, other);
  if (SUCCEEDED(initialized))
    ::CoUninitialize();
  return status;
}

}  // namespace tabforge::cli
