// The events of the flight log that the core notes, and where they go: nowhere until the library's
// host side installs a recorder for the process. Noting costs one flag check when nothing is
// written.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/flight_log.h"
#include "platform/utf16.h"

namespace tabforge::flight {

// Receives the process's events; it stamps and writes them. Never throws.
class Recorder {
 public:
  virtual ~Recorder() = default;
  virtual void Write(std::string_view event, std::span<const Field> fields) noexcept = 0;
};

// Sets the process's recorder (null: none) and the moment the library was loaded, from which each
// start step's time is counted. The recorder outlives every event noted while it is installed.
void Install(Recorder* recorder, std::chrono::steady_clock::time_point loaded) noexcept;
bool Installed() noexcept;
// Writes an event when a recorder is installed.
void Note(std::string_view event, std::span<const Field> fields) noexcept;

// The steps of a start, each written once per process, when it is first done, with the
// milliseconds since the library was loaded.
enum class Step : std::uint8_t {
  kMain2Created,
  kInitialize,
  kGetRibbonXml,
  kRibbonHandedOver,
  kFirstCallback,
  kFirstPicture,
};
constexpr std::string_view StepName(Step step) noexcept {
  constexpr std::string_view names[] = {"main2-created",      "initialize",     "get-ribbon-xml",
                                        "ribbon-handed-over", "first-callback", "first-picture"};
  return names[static_cast<std::size_t>(step)];
}

// True while `step` has not been written in this process and a recorder is installed.
bool StepPending(Step step) noexcept;
// Writes `step` if it is still pending, with the time it took when `began` is given.
void NoteStep(Step step, std::chrono::steady_clock::time_point began = {}) noexcept;

// Marks a member's call as a start step: the step is written when the first such call returns,
// with how long it took. Later calls cost one flag check.
class StepScope {
 public:
  explicit StepScope(Step step) noexcept : step_(step), pending_(StepPending(step)) {
    if (pending_) [[unlikely]]
      began_ = std::chrono::steady_clock::now();
  }
  ~StepScope() {
    if (pending_) [[unlikely]]
      NoteStep(step_, began_);
  }
  StepScope(const StepScope&) = delete;
  StepScope& operator=(const StepScope&) = delete;

 private:
  Step step_;
  bool pending_;
  std::chrono::steady_clock::time_point began_{};
};

// How a failure tail ended its question to the error component.
enum class Answer : std::uint8_t {
  kAnswered,     // the component answered `answer`
  kRemembered,   // the failure was one to ignore always; nobody was asked
  kNoComponent,  // no component could be created
  kNoAnswer,     // the component was there but its call failed
  kBudgetSpent,  // the outside call's budget was spent; nobody was asked
  kStackSpent,   // the stack was; nobody was asked
};

// Writes a failure that reached a failure tail. When failures come faster than a few dozen a
// second (a component that answers "retry" for ever), the lines beyond that are counted instead,
// and the next line written says how many were left out.
void NoteFailure(Utf16View procedure, std::int32_t line, std::int32_t number, Utf16View description,
                 Answer how, std::int32_t answer) noexcept;

// At most this many failure lines in one second of a process.
inline constexpr int kFailureLinesPerSecond = 32;

}  // namespace tabforge::flight
