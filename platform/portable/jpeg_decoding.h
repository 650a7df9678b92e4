// JPEG files for the portable picture services, decoded by libjpeg-turbo. stb_image reads the
// other formats; its JPEG reader overruns its own tables on some malformed files, and a picture
// file handed to the loader is untrusted input.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace tabforge::portable {

// Straight red, green, blue, alpha, four bytes a pixel, rows top down.
struct RgbaImage {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::vector<std::uint8_t> rgba;
};

// Whether the bytes open as a JPEG file does (start of image, then a marker).
bool IsJpeg(std::span<const std::uint8_t> bytes);

// Decodes a JPEG file: baseline or progressive, grey, colour, or CMYK (Adobe's inverted form
// when the file says so). False, with `image` untouched, for bytes that libjpeg cannot read, for
// a file that declares no pixels or more than `maxPixels`, and for a progressive file with more
// scans than any real picture has. A file cut short decodes as far as it goes and the rest is grey,
// as libjpeg leaves it.
bool DecodeJpeg(std::span<const std::uint8_t> bytes, std::int64_t maxPixels, RgbaImage& image);

}  // namespace tabforge::portable
