#include "tools/windows_machine.h"

#include <windows.h>

#include <tlhelp32.h>

#include "platform/utf16.h"
#include "server/com_ptr.h"
#include "server/windows_text.h"
#include "tools/classes_key.h"
#include "tools/register_command.h"

namespace tabforge::cli {
namespace {

using doctor::Bytes;
using doctor::Hive;
using doctor::RegistryValue;
using doctor::View;

HKEY Root(Hive hive) {
  return hive == Hive::kCurrentUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
}

REGSAM ViewFlag(View view) {
  return view == View::k32 ? KEY_WOW64_32KEY : KEY_WOW64_64KEY;
}

com::UniqueHkey Open(Hive hive, View view, const std::string& key, REGSAM access) {
  com::UniqueHkey opened;
  if (::RegOpenKeyExW(Root(hive), com::WideFromUtf8(key).c_str(), 0, access | ViewFlag(view),
                      opened.Put()) != ERROR_SUCCESS)
    opened.Reset();
  return opened;
}

std::string ErrorText(DWORD error) {
  return "error " + std::to_string(error);
}

}  // namespace

RegistryValue WindowsMachine::Value(Hive hive, View view, const std::string& key,
                                    const std::string& name) const {
  RegistryValue value;
  const com::UniqueHkey opened = Open(hive, view, key, KEY_QUERY_VALUE);
  if (!opened)
    return value;
  const std::wstring valueName = com::WideFromUtf8(name);
  DWORD type = 0;
  DWORD size = 0;
  if (::RegQueryValueExW(opened.Get(), valueName.c_str(), nullptr, &type, nullptr, &size) !=
          ERROR_SUCCESS ||
      size > (1u << 20))
    return value;
  Bytes data(size + sizeof(wchar_t), 0);
  if (::RegQueryValueExW(opened.Get(), valueName.c_str(), nullptr, &type, data.data(), &size) !=
      ERROR_SUCCESS)
    return value;
  data.resize(size);
  if (type == REG_DWORD && size == 4) {
    value.kind = RegistryValue::Kind::kNumber;
    value.number = static_cast<std::uint32_t>(data[0] | data[1] << 8 | data[2] << 16 |
                                              static_cast<std::uint32_t>(data[3]) << 24);
  } else if (type == REG_SZ || type == REG_EXPAND_SZ) {
    value.kind = RegistryValue::Kind::kText;
    Utf16String text;
    for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
      const auto c = static_cast<char16_t>(data[i] | data[i + 1] << 8);
      if (c == 0)
        break;
      text += c;
    }
    value.text = ToUtf8(text);
  } else {
    value.kind = RegistryValue::Kind::kBinary;
    value.binary = std::move(data);
  }
  return value;
}

bool WindowsMachine::KeyExists(Hive hive, View view, const std::string& key) const {
  return static_cast<bool>(Open(hive, view, key, KEY_READ));
}

std::vector<std::string> WindowsMachine::ValueNames(Hive hive, View view,
                                                    const std::string& key) const {
  std::vector<std::string> names;
  const com::UniqueHkey opened = Open(hive, view, key, KEY_QUERY_VALUE);
  if (!opened)
    return names;
  for (DWORD index = 0; index < 10000; ++index) {
    wchar_t name[16384];
    DWORD length = static_cast<DWORD>(std::size(name));
    if (::RegEnumValueW(opened.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS)
      break;
    names.push_back(Narrow(std::wstring(name, length)));
  }
  return names;
}

std::vector<std::string> WindowsMachine::Subkeys(Hive hive, View view,
                                                 const std::string& key) const {
  std::vector<std::string> names;
  const com::UniqueHkey opened = Open(hive, view, key, KEY_ENUMERATE_SUB_KEYS);
  if (!opened)
    return names;
  for (DWORD index = 0; index < 10000; ++index) {
    wchar_t name[256];
    DWORD length = static_cast<DWORD>(std::size(name));
    if (::RegEnumKeyExW(opened.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS)
      break;
    names.push_back(Narrow(std::wstring(name, length)));
  }
  return names;
}

bool WindowsMachine::FileExists(const std::string& path) const {
  const DWORD attributes = ::GetFileAttributesW(com::WideFromUtf8(path).c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::optional<Bytes> WindowsMachine::ReadFile(const std::string& path, std::size_t cap) const {
  const com::UniqueFile file(com::OwnedOrEmpty(::CreateFileW(
      com::WideFromUtf8(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)));
  if (!file)
    return std::nullopt;
  Bytes bytes;
  unsigned char buffer[65536];
  while (bytes.size() < cap) {
    DWORD read = 0;
    const DWORD wanted =
        static_cast<DWORD>(std::min<std::size_t>(sizeof buffer, cap - bytes.size()));
    if (!::ReadFile(file.Get(), buffer, wanted, &read, nullptr))
      return std::nullopt;
    if (read == 0)
      break;
    bytes.insert(bytes.end(), buffer, buffer + read);
  }
  return bytes;
}

std::optional<std::string> WindowsMachine::ReadStream(const std::string& path,
                                                      const std::string& name) const {
  const std::optional<Bytes> bytes = ReadFile(path + ":" + name, 65536);
  if (!bytes)
    return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

std::vector<std::string> WindowsMachine::ListFiles(const std::string& folder) const {
  std::vector<std::string> names;
  WIN32_FIND_DATAW found{};
  const com::UniqueFind search(
      com::OwnedOrEmpty(::FindFirstFileW(com::WideFromUtf8(folder + "\\*").c_str(), &found)));
  if (!search)
    return names;
  do {
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
      names.push_back(Narrow(found.cFileName));
  } while (names.size() < 10000 && ::FindNextFileW(search.Get(), &found));
  return names;
}

std::string WindowsMachine::Environment(const std::string& name) const {
  wchar_t value[32768];
  const DWORD length = ::GetEnvironmentVariableW(com::WideFromUtf8(name).c_str(), value,
                                                 static_cast<DWORD>(std::size(value)));
  return length == 0 || length >= std::size(value) ? "" : Narrow(std::wstring(value, length));
}

bool WindowsMachine::ProcessRunning(const std::string& executable) const {
  const com::UniqueFile snapshot(
      com::OwnedOrEmpty(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)));
  if (!snapshot)
    return false;
  const std::wstring wanted = com::WideFromUtf8(executable);
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(snapshot.Get(), &entry); more;
       more = ::Process32NextW(snapshot.Get(), &entry)) {
    if (::CompareStringOrdinal(entry.szExeFile, -1, wanted.c_str(), -1, TRUE) == CSTR_EQUAL)
      return true;
  }
  return false;
}

std::string WindowsMachine::ToolFolder() const {
  wchar_t path[MAX_PATH * 2];
  const DWORD length = ::GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
  const std::wstring file(path, length);
  return Narrow(file.substr(0, file.find_last_of(L"\\/")));
}

bool WindowsMachine::DeleteValue(Hive hive, View view, const std::string& key,
                                 const std::string& name, std::string& error) {
  const com::UniqueHkey opened = Open(hive, view, key, KEY_SET_VALUE);
  if (!opened) {
    error = "the key cannot be opened for writing";
    return false;
  }
  const LSTATUS status = ::RegDeleteValueW(opened.Get(), com::WideFromUtf8(name).c_str());
  if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
    error = ErrorText(static_cast<DWORD>(status));
    return false;
  }
  return true;
}

bool WindowsMachine::DeleteStream(const std::string& path, const std::string& name,
                                  std::string& error) {
  if (!::DeleteFileW(com::WideFromUtf8(path + ":" + name).c_str()) &&
      ::GetLastError() != ERROR_FILE_NOT_FOUND) {
    error = ErrorText(::GetLastError());
    return false;
  }
  return true;
}

bool WindowsMachine::RegisterForUser(const std::string& dll, int bits, std::string& error) {
  (void)bits;  // the registration reads the DLL's bitness from its header
  if (Register({"--user", dll}) != 0) {
    error = "tabforge register --user " + dll + " failed";
    return false;
  }
  return true;
}

}  // namespace tabforge::cli
