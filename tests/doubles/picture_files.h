// Small picture files built in memory, so that the picture tests need no files on disk.
#pragma once

#include <cstdint>
#include <vector>

namespace tabforge::testing {

// A PNG of 8-bit red, green, blue, alpha pixels (4 bytes each, rows top down), its image data
// in stored deflate blocks.
std::vector<std::uint8_t> RgbaPng(std::uint32_t width, std::uint32_t height,
                                  const std::vector<std::uint8_t>& rgba);
// The same for opaque red, green, blue pixels (3 bytes each).
std::vector<std::uint8_t> RgbPng(std::uint32_t width, std::uint32_t height,
                                 const std::vector<std::uint8_t>& rgb);
// A 2x1 GIF: pixel 0 is the transparent palette entry (black), pixel 1 opaque red.
std::vector<std::uint8_t> TransparentGif();

}  // namespace tabforge::testing
