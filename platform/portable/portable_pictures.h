// Pictures without GDI+ and OLE: memory blocks in a table, streams over them, decoding by
// libjpeg-turbo (JPEG) and stb_image (PNG, GIF, BMP), bitmap handles in a table, and a picture
// object that owns its handle.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "platform/platform.h"
#include "platform/portable/jpeg_decoding.h"

namespace tabforge {

// A decoded picture, four bytes a pixel in the order blue, green, red, alpha, rows top down - the
// layout of a 32-bit device-independent bitmap.
struct PortableBitmap {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::vector<std::uint8_t> bgra;

  // The pixel as 0xAARRGGBB.
  std::uint32_t Pixel(std::int32_t x, std::int32_t y) const;
};

class PortablePictureApi;

// What OleCreatePictureIndirect gives: answers `Width` and `Height` (HIMETRIC at 96 dpi, as a
// real picture does), `Type` (1, a bitmap) and `Handle` by name.
class PortablePicture final : public Object {
 public:
  PortablePicture(PortablePictureApi& api, std::uintptr_t handle, bool own) noexcept
      : api_(api), handle_(handle), own_(own) {}
  ~PortablePicture() override;

  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

  std::uintptr_t handle() const noexcept { return handle_; }
  // The pixels behind the handle; throws `Failure` when the handle has gone.
  const PortableBitmap& bitmap() const;

 private:
  PortablePictureApi& api_;
  std::uintptr_t handle_;
  bool own_;
};

class PortablePictureApi final : public PictureApi {
 public:
  // GDI+ statuses that the portable side gives.
  static constexpr std::int32_t kOk = 0;
  static constexpr std::int32_t kGenericError = 1;
  static constexpr std::int32_t kInvalidParameter = 2;
  static constexpr std::int32_t kNotInitialized = 18;
  // The status of a refused picture, E_INVALIDARG.
  static constexpr std::int32_t kPictureRefused = static_cast<std::int32_t>(0x80070057);

  std::int32_t GdiplusStartup(std::uintptr_t* token, const GdiplusStartupInput& input) override;
  void GdiplusShutdown(std::uintptr_t token) override;
  std::uintptr_t GlobalAlloc(std::uint32_t flags, std::size_t size) override;
  void* GlobalLock(std::uintptr_t block) override;
  void GlobalUnlock(std::uintptr_t block) override;
  std::uintptr_t GlobalFree(std::uintptr_t block) override;
  Ref<Object> CreateStreamOnHGlobal(std::uintptr_t block, bool deleteOnRelease) override;
  std::int32_t GdipCreateBitmapFromStream(const Ref<Object>& stream,
                                          std::uintptr_t* bitmap) override;
  std::int32_t GdipCreateHBITMAPFromBitmap(std::uintptr_t bitmap, std::uintptr_t* hbitmap,
                                           std::uint32_t background) override;
  std::int32_t GdipDisposeImage(std::uintptr_t bitmap) override;
  bool DeleteObject(std::uintptr_t hbitmap) override;
  Ref<Object> OleCreatePictureIndirect(const PictureDescription& description, const Guid& iid,
                                       bool own) override;

  // The pixels behind a bitmap handle, or null.
  const PortableBitmap* Handle(std::uintptr_t hbitmap) const;
  // The bytes of a block, or null.
  const std::vector<std::uint8_t>* Block(std::uintptr_t block) const;

  // --- Knobs and counts, for hosts and tests ---------------------------------------------------

  bool failStartup = false;
  bool failAllocations = false;
  bool failStreams = false;
  bool failLocks = false;
  bool refusePictures = false;
  // The most pixels a picture file may declare; a larger one is refused before it is decoded, so
  // that a few bytes of header cannot make the decoder ask for gigabytes. Icons are 32 by 32.
  std::int64_t maxPixels = std::int64_t{1} << 24;

  int allocations = 0;
  int startups = 0;
  int shutdowns = 0;
  // Blocks freed that were not live: freed twice, or never allocated. Windows may corrupt its heap.
  int strayFrees = 0;
  std::size_t liveStarts() const { return tokens_.size(); }
  std::size_t liveBlocks() const { return blocks_.size(); }
  std::size_t liveBitmaps() const { return bitmaps_.size(); }
  std::size_t liveHandles() const { return handles_.size(); }

 private:
  struct MemoryBlock {
    std::vector<std::uint8_t> bytes;
    int locks = 0;
  };
  // Decoded, not yet composited: red, green, blue, alpha with straight alpha.
  using DecodedImage = portable::RgbaImage;
  std::uintptr_t NextHandle() { return next_ += 4; }

  std::uintptr_t next_ = 0x1000;
  std::set<std::uintptr_t> tokens_;
  std::map<std::uintptr_t, MemoryBlock> blocks_;
  std::map<std::uintptr_t, DecodedImage> bitmaps_;
  std::map<std::uintptr_t, PortableBitmap> handles_;
};

}  // namespace tabforge
