#include "platform/portable/posix_log_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tabforge {

PosixLogFolder::PosixLogFolder(std::string folder, std::string name)
    : current_(folder + "/" + name + ".log"),
      older_(current_ + ".1"),
      lock_(folder + "/" + name + ".lock") {}

std::optional<std::uintptr_t> PosixLogFolder::Lock() {
  // A descriptor of its own for each line: flock excludes other open descriptions, so threads of
  // one process exclude each other as processes do.
  const int descriptor = ::open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (descriptor < 0)
    return std::nullopt;
  int result;
  do {
    result = ::flock(descriptor, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    ::close(descriptor);
    return std::nullopt;
  }
  return static_cast<std::uintptr_t>(descriptor);
}

void PosixLogFolder::Unlock(std::uintptr_t held) {
  const int descriptor = static_cast<int>(held);
  ::flock(descriptor, LOCK_UN);
  ::close(descriptor);
}

std::int64_t PosixLogFolder::CurrentSize() {
  struct stat status {};
  if (::stat(current_.c_str(), &status) == 0)
    return status.st_size;
  return errno == ENOENT ? 0 : -1;
}

namespace {

bool WriteOnce(int descriptor, std::string_view bytes) {
  ssize_t written;
  do {
    written = ::write(descriptor, bytes.data(), bytes.size());
  } while (written < 0 && errno == EINTR);
  return written == static_cast<ssize_t>(bytes.size());
}

}  // namespace

std::optional<bool> PosixLogFolder::AppendWithin(std::string_view bytes, std::int64_t limit) {
  const int descriptor = ::open(current_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (descriptor < 0)
    return std::nullopt;
  struct stat status {};
  std::optional<bool> result;
  if (::fstat(descriptor, &status) == 0) {
    result = status.st_size + static_cast<std::int64_t>(bytes.size()) <= limit;
    if (*result && !WriteOnce(descriptor, bytes))
      result.reset();
  }
  ::close(descriptor);
  return result;
}

bool PosixLogFolder::Append(std::string_view bytes) {
  const int descriptor = ::open(current_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (descriptor < 0)
    return false;
  const bool written = WriteOnce(descriptor, bytes);
  ::close(descriptor);
  return written;
}

bool PosixLogFolder::Rotate() {
  return std::rename(current_.c_str(), older_.c_str()) == 0;
}

void LineRecorder::Write(std::string_view event, std::span<const flight::Field> fields) noexcept {
  try {
    const flight::Stamp stamp{std::chrono::system_clock::now(),
                              static_cast<std::uint32_t>(::getpid()),
                              static_cast<std::uint32_t>(::syscall(SYS_gettid))};
    log_.Write(flight::FormatLine(stamp, event, fields));
  } catch (...) {
  }
}

}  // namespace tabforge
