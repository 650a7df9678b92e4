// The flight log's folder on a POSIX system: the Linux tool and the tests write through it as the
// library does on Windows.
#pragma once

#include <string>

#include "platform/flight_events.h"
#include "platform/flight_log.h"

namespace tabforge {

// `DIR/NAME.log`, `DIR/NAME.log.1` and the lock file `DIR/NAME.lock`. Every line opens, locks and
// closes its files: the folder is shared with other processes, which may rotate the file at any
// time, and a line is rare.
class PosixLogFolder final : public flight::LogFolder {
 public:
  PosixLogFolder(std::string folder, std::string name);

  std::optional<std::uintptr_t> Lock() override;
  void Unlock(std::uintptr_t held) override;
  std::int64_t CurrentSize() override;
  bool Append(std::string_view bytes) override;
  std::optional<bool> AppendWithin(std::string_view bytes, std::int64_t limit) override;
  bool Rotate() override;

  const std::string& CurrentPath() const { return current_; }
  const std::string& OlderPath() const { return older_; }

 private:
  std::string current_;
  std::string older_;
  std::string lock_;
};

// Stamps each event with the time, the process and the thread, and writes it as one line.
class LineRecorder final : public flight::Recorder {
 public:
  explicit LineRecorder(flight::RotatingLog& log) : log_(log) {}
  void Write(std::string_view event, std::span<const flight::Field> fields) noexcept override;

 private:
  flight::RotatingLog& log_;
};

}  // namespace tabforge
