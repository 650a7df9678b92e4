#include "server/windows_flight_log.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <new>

#include "platform/flight_events.h"
#include "platform/flight_log.h"
#include "platform/utf16.h"
#include "server/com_ptr.h"
#include "server/registry_entries.h"
#include "server/registry_values.h"
#include "server/windows_text.h"
#include "tabforge_version.h"

namespace tabforge::com {
namespace {

constexpr std::size_t kPathRoom = MAX_PATH + 64;
using Path = std::array<wchar_t, kPathRoom>;

bool CopyPath(Path& to, const std::wstring& from) {
  if (from.size() + 1 > to.size())
    return false;
  from.copy(to.data(), from.size());
  to[from.size()] = L'\0';
  return true;
}

UniqueFile OpenFile(const wchar_t* path, DWORD access, DWORD disposition) {
  // Every writer shares everything, deletion included: another process must be able to rename
  // the file away while this one has it open.
  const HANDLE file =
      ::CreateFileW(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  return UniqueFile(file == INVALID_HANDLE_VALUE ? nullptr : file);
}

// The folder's files, in fixed arrays, so that the one instance of the process can live in static
// storage with nothing to destroy when the library is unloaded (under the loader lock).
// Opened with the right to append and no right to write elsewhere, every write goes to the end of
// the file, whatever other handles wrote meanwhile; one write a line keeps lines whole.
bool WriteOnce(HANDLE file, std::string_view bytes) {
  DWORD written = 0;
  return ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
         written == bytes.size();
}

class WindowsLogFolder final : public flight::LogFolder {
 public:
  bool SetFolder(const std::wstring& folder) {
    return CopyPath(current_, folder + L"\\" + kLogFileName) &&
           CopyPath(older_, folder + L"\\" + kLogFileName + L".1") &&
           CopyPath(lock_, folder + L"\\tabforge.lock");
  }

  std::optional<std::uintptr_t> Lock() override {
    // A handle of its own for each line: the lock of one handle excludes every other handle,
    // so threads of this process wait for each other as other processes do.
    UniqueFile file = OpenFile(lock_.data(), GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
    if (!file)
      return std::nullopt;
    OVERLAPPED at{};
    if (!::LockFileEx(file.Get(), LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &at))
      return std::nullopt;
    return reinterpret_cast<std::uintptr_t>(file.Detach());
  }

  void Unlock(std::uintptr_t held) override {
    const UniqueFile file(reinterpret_cast<HANDLE>(held));
    // Unlocked before the handle closes: the system frees a closed handle's locks only "when
    // resources allow", and the next writer would wait for that.
    OVERLAPPED at{};
    ::UnlockFileEx(file.Get(), 0, 1, 0, &at);
  }

  std::int64_t CurrentSize() override {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (::GetFileAttributesExW(current_.data(), GetFileExInfoStandard, &data))
      return (static_cast<std::int64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    const DWORD error = ::GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? 0 : -1;
  }

  bool Append(std::string_view bytes) override {
    const UniqueFile file = OpenFile(current_.data(), FILE_APPEND_DATA, OPEN_ALWAYS);
    return file && WriteOnce(file.Get(), bytes);
  }

  std::optional<bool> AppendWithin(std::string_view bytes, std::int64_t limit) override {
    const UniqueFile file =
        OpenFile(current_.data(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES, OPEN_ALWAYS);
    LARGE_INTEGER size{};
    if (!file || !::GetFileSizeEx(file.Get(), &size))
      return std::nullopt;
    if (size.QuadPart + static_cast<std::int64_t>(bytes.size()) > limit)
      return false;
    if (!WriteOnce(file.Get(), bytes))
      return std::nullopt;
    return true;
  }

  bool Rotate() override {
    return ::MoveFileExW(current_.data(), older_.data(), MOVEFILE_REPLACE_EXISTING) != FALSE;
  }

 private:
  Path current_{};
  Path older_{};
  Path lock_{};
};

class WindowsRecorder final : public flight::Recorder {
 public:
  explicit WindowsRecorder(flight::RotatingLog& log) : log_(log) {}
  void Write(std::string_view event, std::span<const flight::Field> fields) noexcept override {
    try {
      const flight::Stamp stamp{std::chrono::system_clock::now(),
                                static_cast<std::uint32_t>(::GetCurrentProcessId()),
                                static_cast<std::uint32_t>(::GetCurrentThreadId())};
      log_.Write(flight::FormatLine(stamp, event, fields));
    } catch (...) {
    }
  }

 private:
  flight::RotatingLog& log_;
};

// Built in place once and never destroyed: see WindowsLogFolder.
struct LogState {
  WindowsLogFolder folder;
  flight::RotatingLog log{folder};
  WindowsRecorder recorder{log};
};
alignas(LogState) unsigned char logStorage[sizeof(LogState)];
std::atomic<bool> started{false};

// The host program's version as its version record gives it, "16.0.17928.20114"; empty when it
// has none. Read from the record already mapped with the program, by its fixed part's signature:
// version.dll would be one more library to load into the start, and it reads the file again.
std::string HostVersion() {
  const HMODULE host = ::GetModuleHandleW(nullptr);
  const HRSRC resource = ::FindResourceW(host, MAKEINTRESOURCEW(VS_VERSION_INFO), RT_VERSION);
  if (resource == nullptr)
    return {};
  const HGLOBAL loaded = ::LoadResource(host, resource);
  const DWORD size = ::SizeofResource(host, resource);
  const auto* bytes = static_cast<const unsigned char*>(::LockResource(loaded));
  if (bytes == nullptr)
    return {};
  for (DWORD at = 0; at + sizeof(VS_FIXEDFILEINFO) <= size; at += 4) {
    VS_FIXEDFILEINFO fixed;
    std::memcpy(&fixed, bytes + at, sizeof fixed);
    if (fixed.dwSignature != VS_FFI_SIGNATURE)
      continue;
    return std::to_string(HIWORD(fixed.dwFileVersionMS)) + "." +
           std::to_string(LOWORD(fixed.dwFileVersionMS)) + "." +
           std::to_string(HIWORD(fixed.dwFileVersionLS)) + "." +
           std::to_string(LOWORD(fixed.dwFileVersionLS));
  }
  return {};
}

// The host program's file: the process's first module.
std::wstring HostPath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length =
        ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0)
      return {};
    if (length < path.size()) {
      path.resize(length);
      return path;
    }
    if (path.size() >= 32768)
      return {};
    path.resize(path.size() * 2);
  }
}

void WriteLoaded(HMODULE library) {
  const std::wstring host = HostPath();
  const flight::Field fields[] = {
      {"path", Narrow(ModulePath(library))},
      {"version", TABFORGE_VERSION_TEXT},
      {"bits", std::to_string(sizeof(void*) * 8)},
      {"host", Narrow(host)},
      {"host_version", HostVersion()},
  };
  flight::Note("loaded", fields);
}

}  // namespace

LogSwitch ReadLogSwitch(HKEY root, const wchar_t* key) {
  const std::optional<DWORD> value = ReadDword(root, key, kLogEnabledValue, KEY_WOW64_64KEY);
  if (!value)
    return LogSwitch::kNotSet;
  return *value == 0 ? LogSwitch::kOff : LogSwitch::kOn;
}

bool LogEnabled() {
  const LogSwitch machine = ReadLogSwitch(HKEY_LOCAL_MACHINE, kLogPolicyKey);
  if (machine != LogSwitch::kNotSet)
    return machine == LogSwitch::kOn;
  return ReadLogSwitch(HKEY_CURRENT_USER, kLogUserKey) != LogSwitch::kOff;
}

std::wstring LogFolderPath() {
  // The environment's LOCALAPPDATA rather than the shell's known folder: shell32 would be one more
  // library to load into every start, and the profile sets the variable for every process.
  std::array<wchar_t, kPathRoom> base{};
  const DWORD length =
      ::GetEnvironmentVariableW(L"LOCALAPPDATA", base.data(), static_cast<DWORD>(base.size()));
  if (length == 0 || length >= base.size())
    return {};
  std::wstring folder(base.data(), length);
  while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/'))
    folder.pop_back();
  return folder + L"\\Tabforge\\Logs";
}

void StartFlightLog(HMODULE library) noexcept {
  if (started.exchange(true))
    return;
  try {
    const auto loaded = std::chrono::steady_clock::now();
    if (!LogEnabled())
      return;
    const std::wstring folder = LogFolderPath();
    if (folder.empty())
      return;
    if (::GetFileAttributesW(folder.c_str()) == INVALID_FILE_ATTRIBUTES) {
      ::CreateDirectoryW(folder.substr(0, folder.find_last_of(L'\\')).c_str(), nullptr);
      ::CreateDirectoryW(folder.c_str(), nullptr);
    }
    auto* state = new (logStorage) LogState;
    if (!state->folder.SetFolder(folder))
      return;
    flight::Install(&state->recorder, loaded);
    WriteLoaded(library);
  } catch (...) {
  }
}

}  // namespace tabforge::com
