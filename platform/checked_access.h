// Element access as the run time does it: an index outside an array, or an array without
// elements, is a failure of the statement, never a read out of bounds.
#pragma once

#include <cstdint>

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

}  // namespace tabforge
