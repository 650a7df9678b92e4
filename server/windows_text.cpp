#include "server/windows_text.h"

#include <cstdio>

#include "server/com_ptr.h"

namespace tabforge::com {

std::wstring Wide(Utf16View text) {
  return std::wstring(reinterpret_cast<const wchar_t*>(text.data()), text.size());
}

std::wstring WideFromUtf8(const std::string& text) {
  return Wide(FromUtf8(text));
}

Utf16String FromWide(const wchar_t* text, std::size_t length) {
  return Utf16String(reinterpret_cast<const char16_t*>(text), length);
}

std::string Narrow(const std::wstring& text) {
  return ToUtf8(Utf16View(reinterpret_cast<const char16_t*>(text.data()), text.size()));
}

std::string HresultCode(HRESULT hr) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(hr));
  return code;
}

std::string HresultText(HRESULT hr) {
  std::string text = HresultCode(hr);
  // What the system may have no message for.
  static constexpr struct {
    HRESULT hr;
    const char* text;
  } kKnown[] = {
      {REGDB_E_CLASSNOTREG, " (class not registered)"},
      {CO_E_CLASSSTRING, " (invalid class string)"},
      {TYPE_E_CANTLOADLIBRARY, " (the type library or the DLL cannot be loaded)"},
      {HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), " (the DLL or one it needs was not found)"},
      {HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT), " (a DLL of the other bitness)"},
  };
  for (const auto& known : kKnown) {
    if (known.hr == hr)
      return text + known.text;
  }
  wchar_t* message = nullptr;
  const DWORD length = ::FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, static_cast<DWORD>(hr), 0, reinterpret_cast<wchar_t*>(&message), 0, nullptr);
  const UniqueLocal owned(message);
  if (length == 0 || message == nullptr)
    return text;
  std::wstring words(message, length);
  while (!words.empty() && (words.back() == L'\n' || words.back() == L'\r' ||
                            words.back() == L' ' || words.back() == L'.'))
    words.pop_back();
  return text + " (" + Narrow(words) + ")";
}

}  // namespace tabforge::com
