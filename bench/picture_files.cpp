#include "picture_files.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <zlib.h>

namespace tabforge::testing {
namespace {

void PutBigEndian(std::vector<std::uint8_t>& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8)
    out.push_back(static_cast<std::uint8_t>(value >> shift));
}

void PutChunk(std::vector<std::uint8_t>& out, std::string_view type,
              const std::vector<std::uint8_t>& data) {
  PutBigEndian(out, static_cast<std::uint32_t>(data.size()));
  const std::size_t start = out.size();
  out.insert(out.end(), type.begin(), type.end());
  out.insert(out.end(), data.begin(), data.end());
  PutBigEndian(out, static_cast<std::uint32_t>(
                        crc32(0, out.data() + start, static_cast<uInt>(out.size() - start))));
}

// A zlib stream of `raw`.
std::vector<std::uint8_t> Deflated(const std::vector<std::uint8_t>& raw) {
  uLongf size = compressBound(static_cast<uLong>(raw.size()));
  std::vector<std::uint8_t> out(size);
  compress2(out.data(), &size, raw.data(), static_cast<uLong>(raw.size()), 9);
  out.resize(size);
  return out;
}

std::vector<std::uint8_t> Png(std::uint32_t width, std::uint32_t height, std::uint8_t colourType,
                              std::size_t bytesPerPixel, const std::vector<std::uint8_t>& pixels) {
  std::vector<std::uint8_t> out{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::vector<std::uint8_t> header;
  PutBigEndian(header, width);
  PutBigEndian(header, height);
  header.insert(header.end(), {8, colourType, 0, 0, 0});
  PutChunk(out, "IHDR", header);
  std::vector<std::uint8_t> raw;
  const std::size_t row = width * bytesPerPixel;
  for (std::uint32_t y = 0; y < height; ++y) {
    raw.push_back(0);  // filter: none
    raw.insert(raw.end(), pixels.begin() + static_cast<std::ptrdiff_t>(y * row),
               pixels.begin() + static_cast<std::ptrdiff_t>((y + 1) * row));
  }
  PutChunk(out, "IDAT", Deflated(raw));
  PutChunk(out, "IEND", {});
  return out;
}

}  // namespace

std::vector<std::uint8_t> RgbaPng(std::uint32_t width, std::uint32_t height,
                                  const std::vector<std::uint8_t>& rgba) {
  return Png(width, height, 6, 4, rgba);
}

}  // namespace tabforge::testing
