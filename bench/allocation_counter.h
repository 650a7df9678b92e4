// Counts heap allocations, so a benchmark can report how many one operation makes.
#pragma once

#include <cstdint>

namespace tabforge::bench {

std::uint64_t Allocations();

}  // namespace tabforge::bench
