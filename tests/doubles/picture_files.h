// Small picture files built in memory, so that the picture tests need no files on disk.
#pragma once

#include <cstdint>
#include <vector>

namespace tabforge::testing {

// A PNG of 8-bit red, green, blue, alpha pixels (4 bytes each, rows top down).
std::vector<std::uint8_t> RgbaPng(std::uint32_t width, std::uint32_t height,
                                  const std::vector<std::uint8_t>& rgba);
// The same for opaque red, green, blue pixels (3 bytes each).
std::vector<std::uint8_t> RgbPng(std::uint32_t width, std::uint32_t height,
                                 const std::vector<std::uint8_t>& rgb);
// RgbPng with `trailing` zero bytes deflated after the last row, which decoders ignore.
std::vector<std::uint8_t> RgbPngWithTrailingData(std::uint32_t width, std::uint32_t height,
                                                 const std::vector<std::uint8_t>& rgb,
                                                 std::size_t trailing);
// How Jpeg writes its file.
struct JpegOptions {
  int components = 3;        // 1 grey, 3 red-green-blue, 4 CMYK stored as given
  bool progressive = false;  // libjpeg's simple progression, else baseline
  bool adobeMarker = true;   // for CMYK: Adobe's marker, which says the inks are stored inverted
};
// A JPEG of `samples` (`components` bytes a pixel, rows top down) at quality 100 without
// chroma subsampling, so that a block of one colour decodes to within a step or two of it.
std::vector<std::uint8_t> Jpeg(std::uint32_t width, std::uint32_t height,
                               const std::vector<std::uint8_t>& samples, JpegOptions options = {});
// A 2x1 GIF: pixel 0 is the transparent palette entry (black), pixel 1 opaque red.
std::vector<std::uint8_t> TransparentGif();

}  // namespace tabforge::testing
