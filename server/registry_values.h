// Single values and keys of the registry, read and written the one way that the server and the
// Windows command share. `view` is KEY_WOW64_32KEY or KEY_WOW64_64KEY, or 0 for the caller's own.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tabforge::com {

// A string value (REG_SZ, or REG_EXPAND_SZ expanded); nothing when the key or the value is
// missing or holds something else. `name` null or empty is the key's default value.
std::optional<std::wstring> ReadString(HKEY root, const std::wstring& key, const wchar_t* name,
                                       REGSAM view = 0);
// A REG_DWORD or REG_QWORD value; nothing when missing or of another type.
std::optional<DWORD> ReadDword(HKEY root, const std::wstring& key, const wchar_t* name,
                               REGSAM view = 0);
std::optional<std::uint64_t> ReadQword(HKEY root, const std::wstring& key, const wchar_t* name,
                                       REGSAM view = 0);
// Writes the value, creating the key and those above it; false when the registry refuses.
bool WriteString(HKEY root, const std::wstring& key, const wchar_t* name, const std::wstring& value,
                 REGSAM view = 0);
bool WriteDword(HKEY root, const std::wstring& key, const wchar_t* name, DWORD value,
                REGSAM view = 0);
bool WriteQword(HKEY root, const std::wstring& key, const wchar_t* name, std::uint64_t value,
                REGSAM view = 0);
// Deletes the value; true when it is gone (or never was).
bool DeleteValue(HKEY root, const std::wstring& key, const wchar_t* name, REGSAM view = 0);
// Deletes `key` when it has neither subkeys nor values; anything else leaves it as it is.
void DeleteKeyIfEmpty(HKEY root, const std::wstring& key, REGSAM view = 0);

}  // namespace tabforge::com
