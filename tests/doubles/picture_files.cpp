#include "doubles/picture_files.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <jpeglib.h>
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
                              std::size_t bytesPerPixel, const std::vector<std::uint8_t>& pixels,
                              std::size_t trailing = 0) {
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
  raw.resize(raw.size() + trailing);
  PutChunk(out, "IDAT", Deflated(raw));
  PutChunk(out, "IEND", {});
  return out;
}

}  // namespace

std::vector<std::uint8_t> RgbaPng(std::uint32_t width, std::uint32_t height,
                                  const std::vector<std::uint8_t>& rgba) {
  return Png(width, height, 6, 4, rgba);
}

std::vector<std::uint8_t> RgbPng(std::uint32_t width, std::uint32_t height,
                                 const std::vector<std::uint8_t>& rgb) {
  return Png(width, height, 2, 3, rgb);
}

std::vector<std::uint8_t> RgbPngWithTrailingData(std::uint32_t width, std::uint32_t height,
                                                 const std::vector<std::uint8_t>& rgb,
                                                 std::size_t trailing) {
  return Png(width, height, 2, 3, rgb, trailing);
}

std::vector<std::uint8_t> Jpeg(std::uint32_t width, std::uint32_t height,
                               const std::vector<std::uint8_t>& samples, JpegOptions options) {
  // libjpeg's own error handler ends the process, which is fine for files the tests describe.
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = width;
  info.image_height = height;
  info.input_components = options.components;
  info.in_color_space = options.components == 1   ? JCS_GRAYSCALE
                        : options.components == 4 ? JCS_CMYK
                                                  : JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 100, TRUE);
  for (int c = 0; c < info.num_components; ++c)
    info.comp_info[c].h_samp_factor = info.comp_info[c].v_samp_factor = 1;
  if (options.progressive)
    jpeg_simple_progression(&info);
  info.write_Adobe_marker = options.components == 4 && options.adobeMarker;
  jpeg_start_compress(&info, TRUE);
  const std::size_t stride = std::size_t{width} * static_cast<std::size_t>(options.components);
  while (info.next_scanline < height) {
    auto* row = const_cast<JSAMPLE*>(samples.data() + stride * info.next_scanline);
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::vector<std::uint8_t> out(buffer, buffer + size);
  std::free(buffer);
  return out;
}

std::vector<std::uint8_t> TransparentGif() {
  return {
      'G',  'I',  'F',  '8',  '9',  'a',  2, 0, 1, 0,  // screen 2x1
      0x80, 0,    0,                                   // global palette of 2 entries
      0x00, 0x00, 0x00, 0xFF, 0x00, 0x00,              // black, red
      0x21, 0xF9, 4,    0x01, 0,    0,    0, 0,        // control extension: entry 0 is transparent
      0x2C, 0,    0,    0,    0,    2,    0, 1, 0, 0,  // image 2x1 at 0,0
      2,    2,    0x44, 0x0A, 0,                       // LZW: clear, 0, 1, end
      0x3B,
  };
}

}  // namespace tabforge::testing
