// The one exception type of the core: a statement that failed.
#pragma once

#include <cstdint>

#include "platform/utf16.h"

namespace tabforge {

// Run-time failure numbers, as the automation run time numbers them.
enum class RunTimeError : std::int32_t {
  kInvalidProcedureCall = 5,
  kOverflow = 6,
  kOutOfMemory = 7,
  kSubscriptOutOfRange = 9,
  kCannotPerformOperation = 17,
  kOutOfStackSpace = 28,
  kTypeMismatch = 13,
  kInternalError = 51,
  kObjectNotSet = 91,
  kInvalidUseOfNull = 94,
  kObjectRequired = 424,
  kCannotCreateObject = 429,
  kMemberNotFound = 438,
};

// Thrown by whatever a procedure's statement calls; caught only by the statement runner, which
// hands it to the procedure's failure mode. The line is the runner's to add.
struct Failure {
  std::int32_t number = 0;
  Utf16String description;
};

// The run time's own description of a failure number.
Utf16String DescribeRunTimeError(RunTimeError error);

[[noreturn]] void Raise(RunTimeError error);
[[noreturn]] void Raise(std::int32_t number, Utf16String description);

}  // namespace tabforge
