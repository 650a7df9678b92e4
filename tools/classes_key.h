// The classes of one registry hive in one registry view, as `tabforge register` writes them and
// `tabforge doctor` reads them, and the bitness of a DLL from its PE header.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "server/registry_entries.h"
#include "server/windows_text.h"

namespace tabforge::cli {

using com::Narrow;

// What the PE header of a file says; `machine` is 0 when the file cannot be read or is no PE
// image.
struct PeHeader {
  WORD machine = 0;
  WORD characteristics = 0;
  bool IsDll() const { return (characteristics & IMAGE_FILE_DLL) != 0; }
};
PeHeader ReadPeHeader(const std::wstring& path);

// The registry view that a program of the machine's bitness reads, and the other one; 0 for a
// machine that is neither x86 nor x64.
struct Views {
  REGSAM own = 0;
  REGSAM other = 0;
};
Views ViewsOf(WORD machine);

// Software\Classes of one hive, seen in one view.
class ClassesKey {
 public:
  ClassesKey(HKEY hive, REGSAM view) : hive_(hive), view_(view) {}

  bool Write(const com::RegistryEntry& entry) const;
  // Deletes `name` with everything below it; a key that is not there is already deleted.
  bool DeleteTree(const std::wstring& name) const;
  // Deletes `name` when nothing is left in it.
  void DeleteIfEmpty(const std::wstring& name) const;
  std::vector<std::wstring> Subkeys(const std::wstring& name) const;

  bool Exists(const std::wstring& name) const;
  // The text of value `value` (empty: the default value) of key `name`, environment strings
  // expanded; false when the key or the value is missing or holds no text.
  bool Read(const std::wstring& name, const std::wstring& value, std::wstring& text) const;
  // The key's full name for a reader, such as HKEY_LOCAL_MACHINE\Software\Classes\CLSID\{...}
  // with "(32-bit view)" behind it where the view has keys of its own.
  std::string Describe(const std::wstring& name) const;

 private:
  std::wstring Path(const std::wstring& key) const { return L"Software\\Classes\\" + key; }
  static bool Redirected(const std::wstring& key);
  REGSAM ViewOf(const std::wstring& key) const;

  HKEY hive_;
  REGSAM view_;
};

}  // namespace tabforge::cli
