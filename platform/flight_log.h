// The flight log: a few lines about what the library did in each process that loaded it (its
// start, step by step, and every failure that reached a failure tail), always kept, in a file of
// bounded size that several processes append to at once.
//
// One event is one line of UTF-8:
//
//   2026-11-25T22:15:03.123Z 1234 5678 initialize ms=31 took_ms=0
//
// the time (UTC, milliseconds), the process, the thread, the event's name and its fields. A value
// that holds a blank, a quote, a backslash, an '=' or a control character is quoted, and inside
// the quotes a backslash escapes a quote, a backslash, a line end (n, r), a tab (t) and any other
// control character (xHH), so that no description can break a line or forge a field.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tabforge::flight {

// One key=value of an event line.
struct Field {
  std::string_view key;
  std::string value;
};

struct Stamp {
  std::chrono::system_clock::time_point time;
  std::uint32_t process = 0;
  std::uint32_t thread = 0;
};

// The event as one line, without its line end.
std::string FormatLine(const Stamp& stamp, std::string_view event, std::span<const Field> fields);

// A line read back.
struct Event {
  std::string time;
  std::uint32_t process = 0;
  std::uint32_t thread = 0;
  std::string name;
  std::vector<std::pair<std::string, std::string>> fields;
  // The value of `key`, or nothing.
  std::optional<std::string> Value(std::string_view key) const;
};

// Nothing for a line that is not an event line (cut short by a full disk, say).
std::optional<Event> ParseLine(std::string_view line);

// The operating system's side of the log's folder: the current file, the one older file, and a
// lock that every writer of the folder, in any process and on any thread, takes for each line.
// The folder keeps no state between calls, so that threads may write at once.
class LogFolder {
 public:
  virtual ~LogFolder() = default;
  // Waits for the folder's lock and returns what releases it; nothing when it cannot be had.
  virtual std::optional<std::uintptr_t> Lock() = 0;
  virtual void Unlock(std::uintptr_t held) = 0;
  // The current file's size in bytes: 0 when there is none, -1 when it cannot be told.
  virtual std::int64_t CurrentSize() = 0;
  // Appends to the current file with one write on a file opened for appending; false unless every
  // byte was written.
  virtual bool Append(std::string_view bytes) = 0;
  // The same without the lock, but only while the file stays within `limit` bytes with them:
  // true when written, false when the file is too large for that, nothing when it failed.
  virtual std::optional<bool> AppendWithin(std::string_view bytes, std::int64_t limit) = 0;
  // The current file becomes the older one, replacing it.
  virtual bool Rotate() = 0;
};

struct LogLimits {
  // The current file never grows past this; one older file of at most the same size is kept.
  std::int64_t maxBytes = 1024 * 1024;
};

// Writes lines into a folder's current file, one write a line, and rotates it at the bound. Far
// from the bound a line is appended without the folder's lock: appends of whole lines cannot mix,
// and only the rotation needs one writer at a time. Within the last eighth below the bound every
// line takes the lock, reads the size under it and rotates first when the line would not fit, so
// two writers never both rotate. (A writer that read a small size and then waited while others
// wrote an eighth of the bound could pass it by its one line.) A folder that cannot be written
// costs one attempt: from then on this writer writes nothing, and nothing reports the failure.
class RotatingLog {
 public:
  explicit RotatingLog(LogFolder& folder, LogLimits limits = {}) noexcept
      : folder_(folder), limits_(limits) {}

  // Appends `line` and a line end; false when it was not written.
  bool Write(std::string_view line) noexcept;
  bool Broken() const noexcept { return broken_.load(std::memory_order_relaxed); }

 private:
  bool WriteLocked(std::string_view bytes) noexcept;

  LogFolder& folder_;
  LogLimits limits_;
  std::atomic<bool> broken_{false};
};

// What the doctor reads from a log's text: the last start of the library in a process, and the
// last failures.
struct StartStep {
  std::string name;
  std::int64_t ms = -1;  // since the library was loaded
};
struct LastStart {
  Event loaded;
  std::vector<StartStep> steps;  // in the order written, each once
};
// The last "loaded" line and the steps that its process wrote after it; nothing without one.
std::optional<LastStart> FindLastStart(std::string_view text);
// The last `count` failure lines, oldest first.
std::vector<Event> LastFailures(std::string_view text, std::size_t count);

// What the last start says about the add-in, one finding a check: "loaded" (the library was loaded
// at all since the log begins), "document" (the ribbon asked for its document after the load),
// "start-time" (the start took no longer than the host allows) and "failures" (since that load).
struct Finding {
  std::string check;
  std::string status;  // "ok", "warning" or "problem"
  std::string detail;
};
// The word processor disables an add-in whose start takes longer than a second.
inline constexpr std::int64_t kSlowStartMs = 1000;
std::vector<Finding> JudgeLastStart(std::string_view text, std::int64_t slowStartMs = kSlowStartMs);

}  // namespace tabforge::flight
