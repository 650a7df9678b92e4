#include "server/registry_values.h"

#include <cstdint>
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

namespace {

// A value of fixed size and type; nothing when missing or of another type.
template <class T>
std::optional<T> ReadFixed(HKEY root, const std::wstring& key, const wchar_t* name, REGSAM view,
                           DWORD expected) {
  UniqueHkey handle;
  if (::RegOpenKeyExW(root, key.c_str(), 0, KEY_QUERY_VALUE | view, handle.Put()) != ERROR_SUCCESS)
    return std::nullopt;
  T value{};
  DWORD type = 0;
  DWORD bytes = sizeof value;
  if (::RegQueryValueExW(handle.Get(), ValueName(name), nullptr, &type,
                         reinterpret_cast<BYTE*>(&value), &bytes) != ERROR_SUCCESS ||
      type != expected || bytes != sizeof value)
    return std::nullopt;
  return value;
}

template <class T>
bool WriteFixed(HKEY root, const std::wstring& key, const wchar_t* name, T value, REGSAM view,
                DWORD type) {
  UniqueHkey handle;
  return Create(root, key, view, handle) &&
         ::RegSetValueExW(handle.Get(), ValueName(name), 0, type,
                          reinterpret_cast<const BYTE*>(&value), sizeof value) == ERROR_SUCCESS;
}

}  // namespace

std::optional<DWORD> ReadDword(HKEY root, const std::wstring& key, const wchar_t* name,
                               REGSAM view) {
  return ReadFixed<DWORD>(root, key, name, view, REG_DWORD);
}

std::optional<std::uint64_t> ReadQword(HKEY root, const std::wstring& key, const wchar_t* name,
                                       REGSAM view) {
  return ReadFixed<std::uint64_t>(root, key, name, view, REG_QWORD);
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
  return WriteFixed(root, key, name, value, view, REG_DWORD);
}

bool WriteQword(HKEY root, const std::wstring& key, const wchar_t* name, std::uint64_t value,
                REGSAM view) {
  return WriteFixed(root, key, name, value, view, REG_QWORD);
}

bool DeleteValue(HKEY root, const std::wstring& key, const wchar_t* name, REGSAM view) {
  UniqueHkey handle;
  if (::RegOpenKeyExW(root, key.c_str(), 0, KEY_SET_VALUE | view, handle.Put()) != ERROR_SUCCESS)
    return true;
  const LSTATUS status = ::RegDeleteValueW(handle.Get(), ValueName(name));
  return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND;
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
