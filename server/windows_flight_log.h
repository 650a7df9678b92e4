// The flight log on Windows: %LOCALAPPDATA%\Tabforge\Logs\tabforge.log (and tabforge.log.1),
// written by every process that loads the library, and the settings that turn it off.
#pragma once

#include <windows.h>

#include <string>

namespace tabforge::com {

// The machine's switch (a policy an administrator sets) decides over the user's; without either
// the log is on. Both are DWORD values `Enabled`, 0 for off.
inline constexpr const wchar_t* kLogPolicyKey = L"Software\\Policies\\Tabforge\\Log";
inline constexpr const wchar_t* kLogUserKey = L"Software\\Tabforge\\Log";
inline constexpr const wchar_t* kLogEnabledValue = L"Enabled";

enum class LogSwitch { kNotSet, kOn, kOff };
// The switch under `root`'s key `key` (the 64-bit view on 64-bit Windows, which the policy keys
// share between bitnesses).
LogSwitch ReadLogSwitch(HKEY root, const wchar_t* key);
bool LogEnabled();

// The log's folder, without a trailing backslash; empty when the user has no local application
// data folder.
std::wstring LogFolderPath();
inline constexpr const wchar_t* kLogFileName = L"tabforge.log";

// Starts the log for this process, once, on the first request for the class (never in DllMain):
// writes the "loaded" line with the library's path, version and bitness and the host program's
// path and version, and installs the recorder that the core's events go to. Costs nothing more
// when the log is off or its folder cannot be written.
void StartFlightLog(HMODULE library) noexcept;

}  // namespace tabforge::com
