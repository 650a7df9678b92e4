#include "tools/classes_key.h"

#include <cstdint>
#include <iterator>

#include "platform/utf16.h"
#include "server/com_ptr.h"
#include "server/registry_values.h"

namespace tabforge::cli {

PeHeader ReadPeHeader(const std::wstring& path) {
  const com::UniqueFile file(com::OwnedOrEmpty(::CreateFileW(path.c_str(), GENERIC_READ,
                                                             FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                             nullptr, OPEN_EXISTING, 0, nullptr)));
  if (!file)
    return {};
  // All of `size` bytes at `offset`, or false.
  const auto readAt = [&file](std::uint32_t offset, unsigned char* into, DWORD size) {
    LARGE_INTEGER position{};
    position.QuadPart = offset;
    DWORD read = 0;
    return ::SetFilePointerEx(file.Get(), position, nullptr, FILE_BEGIN) &&
           ::ReadFile(file.Get(), into, size, &read, nullptr) && read == size;
  };
  unsigned char dos[64] = {};
  unsigned char header[24] = {};  // the signature and the file header
  if (!readAt(0, dos, sizeof dos) || dos[0] != 'M' || dos[1] != 'Z')
    return {};
  const std::uint32_t offset =
      dos[60] | dos[61] << 8 | dos[62] << 16 | static_cast<std::uint32_t>(dos[63]) << 24;
  if (!readAt(offset, header, sizeof header) || header[0] != 'P' || header[1] != 'E' ||
      header[2] != 0 || header[3] != 0)
    return {};
  return {static_cast<WORD>(header[4] | header[5] << 8),
          static_cast<WORD>(header[22] | header[23] << 8)};
}

Views ViewsOf(WORD machine) {
  switch (machine) {
    case IMAGE_FILE_MACHINE_I386:
      return {KEY_WOW64_32KEY, KEY_WOW64_64KEY};
    case IMAGE_FILE_MACHINE_AMD64:
      return {KEY_WOW64_64KEY, KEY_WOW64_32KEY};
    default:
      return {};
  }
}

bool ClassesKey::Write(const com::RegistryEntry& entry) const {
  return com::WriteString(hive_, Path(entry.key), entry.name.c_str(), entry.value,
                          ViewOf(entry.key));
}

bool ClassesKey::DeleteTree(const std::wstring& name) const {
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

void ClassesKey::DeleteIfEmpty(const std::wstring& name) const {
  com::DeleteKeyIfEmpty(hive_, Path(name), ViewOf(name));
}

std::vector<std::wstring> ClassesKey::Subkeys(const std::wstring& name) const {
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

bool ClassesKey::Exists(const std::wstring& name) const {
  com::UniqueHkey key;
  return ::RegOpenKeyExW(hive_, Path(name).c_str(), 0, KEY_READ | ViewOf(name), key.Put()) ==
         ERROR_SUCCESS;
}

bool ClassesKey::Read(const std::wstring& name, const std::wstring& value,
                      std::wstring& text) const {
  const std::optional<std::wstring> read =
      com::ReadString(hive_, Path(name), value.c_str(), ViewOf(name));
  if (read)
    text = *read;
  return read.has_value();
}

std::string ClassesKey::Describe(const std::wstring& name) const {
  std::string text = hive_ == HKEY_LOCAL_MACHINE ? "HKEY_LOCAL_MACHINE\\" : "HKEY_CURRENT_USER\\";
  text += Narrow(Path(name));
  if (Redirected(name))
    text += view_ == KEY_WOW64_32KEY ? " (32-bit view)" : " (64-bit view)";
  return text;
}

// Of the classes, only the class ids and the interfaces have a key per view; the program ids and
// the type libraries are shared by both. Naming the 64-bit view for a shared key is the same on
// Windows, and where Wine keeps it too when a 64-bit program asks for the 32-bit view.
bool ClassesKey::Redirected(const std::wstring& key) {
  for (const std::wstring redirected : {L"CLSID", L"Interface"}) {
    if (key.compare(0, redirected.size(), redirected) == 0 &&
        (key.size() == redirected.size() || key[redirected.size()] == L'\\'))
      return true;
  }
  return false;
}

REGSAM ClassesKey::ViewOf(const std::wstring& key) const {
  return Redirected(key) ? view_ : KEY_WOW64_64KEY;
}

}  // namespace tabforge::cli
