// What every IDispatch of the server checks of its caller's request before it reads a value:
// the argument lists, the names asked for, and member names as automation compares them.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include "platform/utf16.h"

namespace tabforge::com {

// The most arguments that an object we hand out reads from one call; its members take a few, and a
// count from outside sizes nothing past this.
inline constexpr UINT kMaxArguments = 64;
// True when `params` can be read as the caller's arguments: present, with as many named as there
// are arguments at most, and the lists there for what they count.
bool WellFormed(const DISPPARAMS* params);
// True when a GetIDsOfNames request has at least one name and every name is there.
bool AllNamed(const LPOLESTR* names, UINT count);

// Member names compare without regard to case, as everywhere in automation.
bool SameMemberName(Utf16View a, Utf16View b);
// A name as the automation calls hand it over.
inline Utf16View NameView(const wchar_t* name) {
  return Utf16View(reinterpret_cast<const char16_t*>(name));
}

}  // namespace tabforge::com
