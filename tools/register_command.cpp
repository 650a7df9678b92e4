#include "tools/register_command.h"

#include <windows.h>

#include <ole2.h>

#include <iostream>

#include "platform/utf16.h"
#include "server/com_ptr.h"
#include "server/registry_entries.h"
#include "tools/classes_key.h"

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
    const std::wstring versionKey = com::TypeLibraryVersionKey();
    removed = own.DeleteTree(versionKey);
    own.DeleteIfEmpty(versionKey.substr(0, versionKey.find_last_of(L'\\')));
  }
  for (const auto& key : com::ServerKeys())
    removed = own.DeleteTree(key) && removed;
  removed = other.DeleteTree(com::InterfaceKey()) && removed;
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
  const Views views = ViewsOf(ReadPeHeader(fullPath).machine);
  if (views.own == 0) {
    std::cerr << "tabforge register: '" << path << "' is not a Windows DLL for x86 or x64\n";
    return 2;
  }
  const HKEY hive = machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
  const ClassesKey own(hive, views.own);
  const ClassesKey other(hive, views.other);
  const com::ComApartment apartment;
  return unregister ? Remove(fullPath, own, other) : Write(fullPath, own, other);
}

}  // namespace tabforge::cli
