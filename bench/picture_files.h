// A small picture file built in memory, so that the benchmarks need no files on disk.
#pragma once

#include <cstdint>
#include <vector>

namespace tabforge::testing {

// A PNG of 8-bit red, green, blue, alpha pixels (4 bytes each, rows top down).
std::vector<std::uint8_t> RgbaPng(std::uint32_t width, std::uint32_t height,
                                  const std::vector<std::uint8_t>& rgba);

}  // namespace tabforge::testing
