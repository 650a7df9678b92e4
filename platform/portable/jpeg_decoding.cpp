#include "platform/portable/jpeg_decoding.h"

// jpeglib.h needs size_t and FILE declared before it.
#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <utility>

#include <jpeglib.h>

namespace tabforge::portable {
namespace {

// A progressive file may refine its picture in many scans; real encoders use about ten. A few
// hundred bytes can declare thousands, each a pass over every coefficient, so a file with more
// than this is refused as corrupt.
constexpr int kMaxScans = 256;

// libjpeg reports a fatal error by calling error_exit, which must not return. Ours jumps back to
// DecodeOrLeave, and DecodeJpeg then destroys the decompressor. Warnings (a file cut short, bad
// data in a scan) are not errors: libjpeg goes on, and nothing is printed.
struct ErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf escape;
};

[[noreturn]] void LeaveDecoding(j_common_ptr info) {
  std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->escape, 1);
}

void Silent(j_common_ptr) {}

void CountScans(j_common_ptr info) {
  if (reinterpret_cast<j_decompress_ptr>(info)->input_scan_number > kMaxScans)
    LeaveDecoding(info);
}

// Adobe's CMYK files store each ink inverted (255 is no ink); others store the ink itself. Red is
// the light that cyan lets through times the light that black lets through, and so on.
void CmykToRgba(std::vector<std::uint8_t>& pixels, bool inverted) {
  for (std::size_t i = 0; i < pixels.size(); i += 4) {
    unsigned light[4];
    for (int c = 0; c < 4; ++c)
      light[c] = inverted ? pixels[i + c] : 255u - pixels[i + c];
    for (int c = 0; c < 3; ++c)
      pixels[i + c] = static_cast<std::uint8_t>((light[c] * light[3] + 127) / 255);
    pixels[i + 3] = 255;
  }
}

// A decompressor with what it reports to. It lives in DecodeJpeg's frame, outside the frame that
// sets the jump, so nothing that the jump returns to has changed since.
struct Decompressor {
  jpeg_decompress_struct info{};
  ErrorManager errors{};
  jpeg_progress_mgr progress{};
};

bool Decode(std::span<const std::uint8_t> bytes, std::int64_t maxPixels,
            jpeg_decompress_struct& info, RgbaImage& image) {
  jpeg_mem_src(&info, bytes.data(), static_cast<unsigned long>(bytes.size()));
  if (jpeg_read_header(&info, TRUE) != JPEG_HEADER_OK)
    return false;
  const std::int64_t width = info.image_width;
  const std::int64_t height = info.image_height;
  if (width <= 0 || height <= 0 || width * height > maxPixels)
    return false;
  const bool cmyk = info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK;
  info.out_color_space = cmyk ? JCS_CMYK : JCS_EXT_RGBA;
  jpeg_start_decompress(&info);
  if (info.output_components != 4)
    return false;
  const auto stride = static_cast<std::size_t>(width) * 4;
  image.rgba.resize(stride * static_cast<std::size_t>(height));
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = image.rgba.data() + stride * info.output_scanline;
    if (jpeg_read_scanlines(&info, &row, 1) != 1)
      return false;
  }
  jpeg_finish_decompress(&info);
  if (cmyk)
    CmykToRgba(image.rgba, info.saw_Adobe_marker != 0);
  image.width = static_cast<std::int32_t>(width);
  image.height = static_cast<std::int32_t>(height);
  return true;
}

// The frame that a fatal error of libjpeg jumps back to. Nothing in it has a destructor, and
// nothing in the frames that the jump leaves (Decode's and libjpeg's own) has one either.
bool DecodeOrLeave(Decompressor& decompressor, std::span<const std::uint8_t> bytes,
                   std::int64_t maxPixels, RgbaImage& image) {
  // setjmp's value may only be tested as a whole condition.
  if (setjmp(decompressor.errors.escape) != 0)
    return false;
  jpeg_create_decompress(&decompressor.info);
  decompressor.info.progress = &decompressor.progress;
  return Decode(bytes, maxPixels, decompressor.info, image);
}

}  // namespace

bool IsJpeg(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF;
}

bool DecodeJpeg(std::span<const std::uint8_t> bytes, std::int64_t maxPixels, RgbaImage& image) {
  Decompressor decompressor;
  decompressor.info.err = jpeg_std_error(&decompressor.errors.base);
  decompressor.errors.base.error_exit = LeaveDecoding;
  decompressor.errors.base.output_message = Silent;
  decompressor.progress.progress_monitor = CountScans;
  RgbaImage decoded;
  const bool done = DecodeOrLeave(decompressor, bytes, maxPixels, decoded);
  jpeg_destroy_decompress(&decompressor.info);
  if (done)
    image = std::move(decoded);
  return done;
}

}  // namespace tabforge::portable
