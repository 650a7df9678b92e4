#include "platform/flight_events.h"

#include <array>
#include <atomic>
#include <string>

namespace tabforge::flight {
namespace {

using Clock = std::chrono::steady_clock;

// Process-wide, as the log is: no thread keeps anything of its own.
std::atomic<Recorder*> installed{nullptr};
std::atomic<Clock::rep> loadedAt{0};
// One bit a step, set once the step is written.
std::atomic<std::uint32_t> writtenSteps{0};

// The failure lines of the current second, and those left out since the last one written.
std::atomic<Clock::rep> failureSecond{0};
std::atomic<int> failuresThisSecond{0};
std::atomic<int> failuresLeftOut{0};

constexpr std::uint32_t Bit(Step step) {
  return 1u << static_cast<unsigned>(step);
}

std::int64_t Milliseconds(Clock::duration duration) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

std::string_view AnswerName(Answer how) {
  switch (how) {
    case Answer::kAnswered:
      return "answered";
    case Answer::kRemembered:
      return "ignored-always";
    case Answer::kNoComponent:
      return "no-component";
    case Answer::kNoAnswer:
      return "no-answer";
    case Answer::kBudgetSpent:
      return "budget-spent";
    case Answer::kStackSpent:
      return "stack-spent";
  }
  return "unknown";
}

// True when this failure may have a line of its own in the current second.
bool FailureLineAllowed() {
  const Clock::rep second =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count();
  Clock::rep current = failureSecond.load(std::memory_order_relaxed);
  if (current != second && failureSecond.compare_exchange_strong(current, second))
    failuresThisSecond.store(0, std::memory_order_relaxed);
  return failuresThisSecond.fetch_add(1, std::memory_order_relaxed) < kFailureLinesPerSecond;
}

}  // namespace

void Install(Recorder* recorder, Clock::time_point loaded) noexcept {
  loadedAt.store(loaded.time_since_epoch().count(), std::memory_order_relaxed);
  writtenSteps.store(0, std::memory_order_relaxed);
  failuresLeftOut.store(0, std::memory_order_relaxed);
  installed.store(recorder, std::memory_order_release);
}

bool Installed() noexcept {
  return installed.load(std::memory_order_relaxed) != nullptr;
}

void Note(std::string_view event, std::span<const Field> fields) noexcept {
  if (Recorder* recorder = installed.load(std::memory_order_acquire))
    recorder->Write(event, fields);
}

bool StepPending(Step step) noexcept {
  return Installed() && (writtenSteps.load(std::memory_order_relaxed) & Bit(step)) == 0;
}

void NoteStep(Step step, Clock::time_point began) noexcept {
  if (!Installed() || (writtenSteps.fetch_or(Bit(step)) & Bit(step)) != 0)
    return;
  try {
    const Clock::time_point now = Clock::now();
    const Clock::time_point loaded{Clock::duration(loadedAt.load(std::memory_order_relaxed))};
    std::array<Field, 2> fields{Field{"ms", std::to_string(Milliseconds(now - loaded))},
                                Field{"took_ms", {}}};
    std::size_t count = 1;
    if (began != Clock::time_point{}) {
      fields[1].value = std::to_string(Milliseconds(now - began));
      count = 2;
    }
    Note(StepName(step), std::span<const Field>(fields.data(), count));
  } catch (...) {
  }
}

void NoteFailure(Utf16View procedure, std::int32_t line, std::int32_t number, Utf16View description,
                 Answer how, std::int32_t answer) noexcept {
  if (!Installed())
    return;
  if (!FailureLineAllowed()) {
    failuresLeftOut.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  try {
    std::array<Field, 7> fields{Field{"procedure", ToUtf8(procedure)},
                                Field{"line", std::to_string(line)},
                                Field{"number", std::to_string(number)},
                                Field{"description", ToUtf8(description)},
                                Field{"outcome", std::string(AnswerName(how))},
                                Field{"answer", {}},
                                Field{"left_out", {}}};
    std::size_t count = 5;
    if (how == Answer::kAnswered)
      fields[count++].value = std::to_string(answer);
    if (const int leftOut = failuresLeftOut.exchange(0, std::memory_order_relaxed); leftOut > 0) {
      fields[count].key = "left_out";
      fields[count++].value = std::to_string(leftOut);
    }
    Note("failure", std::span<const Field>(fields.data(), count));
  } catch (...) {
  }
}

}  // namespace tabforge::flight
