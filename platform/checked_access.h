// Element access and loop arithmetic as the run time does them: an index outside an array, or an
// array without elements, is a failure of the statement, never a read out of bounds; a whole number
// that would leave its type is an overflow, never a wrap.
#pragma once

#include <cstdint>
#include <limits>

#include "platform/failure.h"

namespace tabforge {

template <class Container>
auto& At(Container& items, std::int64_t index) {
  if (index < 0 || index >= static_cast<std::int64_t>(items.size())) {
    Raise(RunTimeError::kSubscriptOutOfRange);
  }
  return items[static_cast<std::size_t>(index)];
}

template <class Container>
auto& Last(Container& items) {
  if (items.empty())
    Raise(RunTimeError::kSubscriptOutOfRange);
  return items.back();
}

// `value + 1` in the type of `value`.
template <class Whole>
Whole CheckedIncrement(Whole value) {
  if (value == std::numeric_limits<Whole>::max())
    Raise(RunTimeError::kOverflow);
  return static_cast<Whole>(value + 1);
}

// The highest index of a zero-based array of `size` elements (-1 for none), in the type of the
// index that walks it.
template <class Whole>
Whole HighestIndex(std::size_t size) {
  if (size > static_cast<std::size_t>(std::numeric_limits<Whole>::max()) + 1)
    Raise(RunTimeError::kOverflow);
  return static_cast<Whole>(static_cast<std::int64_t>(size) - 1);
}

}  // namespace tabforge
