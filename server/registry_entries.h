// The registry entries that make Tabforge.dll a registered server, in one list for
// DllRegisterServer, `tabforge register` and the installer packages' test.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include <string>
#include <vector>

namespace tabforge::com {

struct RegistryEntry {
  std::wstring key;   // below the classes root (HKCR, or Software\Classes of a hive)
  std::wstring name;  // empty for the key's default value
  std::wstring value;
};

// The program id by which the template creates the class, and the threading model of its server.
inline constexpr wchar_t kProgId[] = L"Tabforge.Main2";
inline constexpr wchar_t kThreadingModel[] = L"Apartment";

// The class's key and the interface's, below the classes root.
std::wstring ClassKey();
std::wstring InterfaceKey();

// TypeLib\{id}\major.minor of this build's type library, the version in hexadecimal as the
// platform's registration writes it.
std::wstring TypeLibraryVersionKey();

// A GUID in braces, as registry keys and values spell it.
std::wstring GuidText(REFGUID guid);

// The file `module` was loaded from; empty for no module or when it cannot be told.
std::wstring ModulePath(HMODULE module);
// The module that holds the library's code: the DLL, or a program that links the library; null
// when the system cannot tell.
HMODULE ThisModule();

// What DllRegisterServer writes itself for the server at `path`: the class with its in-process
// server and threading model, the program id, and the interface. The type library's entries come
// from the platform's registration (TypeLibraryEntries).
std::vector<RegistryEntry> ServerEntries(const std::wstring& path);

// The keys that unregistration deletes with everything below them, besides the type library's.
std::vector<std::wstring> ServerKeys();

// The entries the platform's RegisterTypeLib writes for `library` loaded from `path` with no help
// folder: the library's key, and for each automation interface its key. On 64-bit Windows the
// interfaces' entries are written into both registry views.
struct TypeLibraryEntries {
  std::vector<RegistryEntry> library;
  std::vector<RegistryEntry> interfaces;
  std::wstring libraryKey;  // TypeLib\{id}
  std::wstring versionKey;  // TypeLib\{id}\major.minor
  std::vector<std::wstring> interfaceKeys;
};
bool ReadTypeLibraryEntries(ITypeLib* library, const std::wstring& path, TypeLibraryEntries& out);

}  // namespace tabforge::com
