// Text as the Windows calls of the server and of the Windows command take and give it: wide
// strings, UTF-8 for the command's output, and statuses in words. Below both, so that each
// conversion is written once.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

#include "platform/utf16.h"

namespace tabforge::com {

// wchar_t is 16 bits on this target, so the core's units are the system's.
std::wstring Wide(Utf16View text);
std::wstring WideFromUtf8(const std::string& text);
Utf16String FromWide(const wchar_t* text, std::size_t length);
std::string Narrow(const std::wstring& text);  // as UTF-8

// "0x80040154", the status as the system's tools write it.
std::string HresultCode(HRESULT hr);
// The code and, where the system or this table has them, its words: "0x80040154 (class not
// registered)".
std::string HresultText(HRESULT hr);

}  // namespace tabforge::com
