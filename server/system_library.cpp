#include "server/system_library.h"

#include <windows.h>

#include <string>

namespace tabforge::com {

void* SystemProcedure(const wchar_t* library, const char* name) {
  wchar_t folder[MAX_PATH];
  const UINT length = ::GetSystemDirectoryW(folder, MAX_PATH);
  if (length == 0 || length >= MAX_PATH)
    return nullptr;
  const std::wstring path = std::wstring(folder, length) + L"\\" + library;
  // Loaded once more on every first use of each function, and never freed: the counts stay with
  // the process, as a static import's would.
  const HMODULE module = ::LoadLibraryExW(path.c_str(), nullptr, 0);
  if (module == nullptr)
    return nullptr;
  return reinterpret_cast<void*>(::GetProcAddress(module, name));
}

}  // namespace tabforge::com
