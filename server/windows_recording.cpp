#include "server/windows_recording.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "server/com_ptr.h"
#include "server/registry_values.h"
#include "server/windows_flight_log.h"
#include "server/windows_text.h"
#include "tabforge_version.h"

namespace tabforge::com {
namespace {

std::uint64_t Now() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  return (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
}

// Leaves room for one more recording: the oldest beyond the newest `kRecordingsKept - 1` go.
// The names begin with their start time, so their order is their age.
void PruneRecordings(const std::wstring& folder) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW found{};
  const UniqueFind search(::FindFirstFileW((folder + L"\\" + kRecordingPattern).c_str(), &found));
  if (search.Get() == INVALID_HANDLE_VALUE || !search)
    return;
  do {
    names.emplace_back(found.cFileName);
  } while (::FindNextFileW(search.Get(), &found));
  std::sort(names.begin(), names.end());
  for (std::size_t i = 0; i + (kRecordingsKept - 1) < names.size(); ++i)
    ::DeleteFileW((folder + L"\\" + names[i]).c_str());
}

}  // namespace

std::optional<std::uint64_t> RecordingRequestedUntil() {
  return ReadQword(HKEY_CURRENT_USER, kLogUserKey, kRecordUntilValue, KEY_WOW64_64KEY);
}

Ref<recording::Recorder> StartRecording() noexcept {
  try {
    const std::optional<std::uint64_t> until = RecordingRequestedUntil();
    const std::uint64_t now = Now();
    if (!until || *until <= now)
      return nullptr;
    if (ReadLogSwitch(HKEY_LOCAL_MACHINE, kLogPolicyKey) == LogSwitch::kOff)
      return nullptr;
    const std::wstring folder = LogFolderPath();
    if (folder.empty())
      return nullptr;
    ::CreateDirectoryW(folder.substr(0, folder.find_last_of(L'\\')).c_str(), nullptr);
    ::CreateDirectoryW(folder.c_str(), nullptr);
    PruneRecordings(folder);

    SYSTEMTIME utc{};
    ::GetSystemTime(&utc);
    wchar_t name[96];
    ::swprintf(name, std::size(name), L"recording-%04u%02u%02u-%02u%02u%02u-%lu-%lu.session",
               utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute, utc.wSecond,
               ::GetCurrentProcessId(), ::GetCurrentThreadId());
    const HANDLE opened = ::CreateFileW((folder + L"\\" + name).c_str(), FILE_APPEND_DATA,
                                        FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_NORMAL, nullptr);
    if (opened == INVALID_HANDLE_VALUE)
      return nullptr;
    auto file = std::make_shared<UniqueFile>(opened);

    // The time left, as the clock that the recorder reads.
    const auto left = std::chrono::microseconds((*until - now) / 10);
    recording::Limits limits;
    limits.until = std::chrono::system_clock::now() +
                   std::chrono::duration_cast<std::chrono::system_clock::duration>(left);
    auto recorder = MakeRef<recording::Recorder>(
        [file](std::string_view line) {
          std::string bytes(line);
          bytes += "\r\n";
          DWORD written = 0;
          return ::WriteFile(file->Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                             nullptr) &&
                 written == bytes.size();
        },
        limits);
    wchar_t host[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, host, MAX_PATH);
    std::wstring program(host, length < MAX_PATH ? length : 0);
    program.erase(0, program.find_last_of(L"\\/") + 1);
    recorder->Comment(std::string(recording::kHeader.substr(2)) + ": Tabforge " +
                      TABFORGE_VERSION_TEXT + " (" + std::to_string(sizeof(void*) * 8) +
                      "-bit) in " + Narrow(program) + ", process " +
                      std::to_string(::GetCurrentProcessId()) + ", thread " +
                      std::to_string(::GetCurrentThreadId()));
    return recorder;
  } catch (...) {
    return nullptr;
  }
}

}  // namespace tabforge::com
