#include "server/registry_values.h"

#include <vector>

#include "server/com_ptr.h"

namespace tabforge::com {
namespace {

const wchar_t* ValueName(const wchar_t* name) {
  return name != nullptr && *name != L'\0' ? name : nullptr;
}

bool Create(HKEY root, const std::wstring& key, REGSAM view, UniqueHkey& out) {
  return ::RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_WRITE | view, nullptr, out.Put(),
                           nullptr) == ERROR_SUCCESS;
}

}  // namespace

std::optional<std::wstring> ReadString(HKEY root, const std::wstring& key, const wchar_t* name,
                                       REGSAM view) {
  const DWORD flags = RRF_RT_REG_SZ | (view == KEY_WOW64_32KEY   ? RRF_SUBKEY_WOW6432KEY
                                       : view == KEY_WOW64_64KEY ? RRF_SUBKEY_WOW6464KEY
                                                                 : 0);
  DWORD bytes = 0;
  if (::RegGetValueW(root, key.c_str(), ValueName(name), flags, nullptr, nullptr, &bytes) !=
      ERROR_SUCCESS)
    return std::nullopt;
  std::vector<wchar_t> buffer(bytes / sizeof(wchar_t) + 1, L'\0');
  bytes = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
  if (::RegGetValueW(root, key.c_str(), ValueName(name), flags, nullptr, buffer.data(), &bytes) !=
      ERROR_SUCCESS)
    return std::nullopt;
  return std::wstring(buffer.data());
}

std::optional<DWORD> ReadDword(HKEY root, const std::wstring& key, const wchar_t* name,
                               REGSAM view) {
  UniqueHkey handle;
  if (::RegOpenKeyExW(root, key.c_str(), 0, KEY_QUERY_VALUE | view, handle.Put()) != ERROR_SUCCESS)
    return std::nullopt;
  DWORD value = 0;
  DWORD type = 0;
  DWORD bytes = sizeof value;
  if (::RegQueryValueExW(handle.Get(), ValueName(name), nullptr, &type,
                         reinterpret_cast<BYTE*>(&value), &bytes) != ERROR_SUCCESS ||
      type != REG_DWORD)
    return std::nullopt;
  return value;
}

bool WriteString(HKEY root, const std::wstring& key, const wchar_t* name, const std::wstring& value,
                 REGSAM view) {
  UniqueHkey handle;
  return Create(root, key, view, handle) &&
         ::RegSetValueExW(
             handle.Get(), ValueName(name), 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
             static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

bool WriteDword(HKEY root, const std::wstring& key, const wchar_t* name, DWORD value, REGSAM view) {
  UniqueHkey handle;
  return Create(root, key, view, handle) &&
         ::RegSetValueExW(handle.Get(), ValueName(name), 0, REG_DWORD,
                          reinterpret_cast<const BYTE*>(&value), sizeof value) == ERROR_SUCCESS;
}

void DeleteKeyIfEmpty(HKEY root, const std::wstring& key, REGSAM view) {
  UniqueHkey handle;
  if (::RegOpenKeyExW(root, key.c_str(), 0, KEY_READ | view, handle.Put()) != ERROR_SUCCESS)
    return;
  DWORD keys = 0;
  DWORD values = 0;
  const bool empty =
      ::RegQueryInfoKeyW(handle.Get(), nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values,
                         nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS &&
      keys == 0 && values == 0;
  handle.Reset();
  if (empty)
    ::RegDeleteKeyExW(root, key.c_str(), view, 0);
}

}  // namespace tabforge::com
