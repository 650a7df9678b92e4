// Session recordings on Windows: `tabforge record on` sets a time until which every apartment
// that starts records its session into a file of its own beside the flight log.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>

#include "platform/recording.h"
#include "platform/ref.h"

namespace tabforge::com {

// The user's request: a REG_QWORD under the log's user key, the time (as a FILETIME) until which
// recordings are made.
inline constexpr const wchar_t* kRecordUntilValue = L"RecordUntil";
// At most this many recordings are kept in the folder; the oldest go when a new one starts.
inline constexpr int kRecordingsKept = 5;
inline constexpr const wchar_t* kRecordingPattern = L"recording-*.session";

// The time until which the user asked for recordings, if any.
std::optional<std::uint64_t> RecordingRequestedUntil();

// A recorder for the apartment starting now, or none: none asked for, the time is up, the
// machine's policy turns the log off, or the folder cannot be written.
Ref<recording::Recorder> StartRecording() noexcept;

}  // namespace tabforge::com
