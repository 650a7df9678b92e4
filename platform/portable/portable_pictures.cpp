#include "platform/portable/portable_pictures.h"

#include <stb/stb_image.h>

#include <climits>
#include <cstdint>
#include <memory>

#include "platform/failure.h"
#include "platform/portable/stb_allocation.h"
#include "platform/variant.h"

namespace tabforge {
namespace {

constexpr std::uint32_t kPicTypeBitmap = 1;
constexpr PictureApi::Guid kIPicture{
    0x7BF80980, 0xBF32, 0x101A, {0x8B, 0xBB, 0x00, 0xAA, 0x00, 0x30, 0x0C, 0xAB}};
constexpr PictureApi::Guid kIPictureDisp{
    0x7BF80981, 0xBF32, 0x101A, {0x8B, 0xBB, 0x00, 0xAA, 0x00, 0x30, 0x0C, 0xAB}};

// A stream over a memory block. Like a stream on a global block it reads the block's bytes
// where they lie and, when it owns the block, releases it with its last reference.
class PortableStream final : public Object {
 public:
  PortableStream(PortablePictureApi& api, std::uintptr_t block, bool deleteOnRelease) noexcept
      : api_(api), block_(block), deleteOnRelease_(deleteOnRelease) {}
  ~PortableStream() override {
    if (deleteOnRelease_)
      api_.GlobalFree(block_);
  }
  Variant Invoke(Utf16View, CallKind, std::span<Variant>) override {
    Raise(RunTimeError::kMemberNotFound);
  }
  const std::vector<std::uint8_t>* Bytes() const { return api_.Block(block_); }

 private:
  PortablePictureApi& api_;
  std::uintptr_t block_;
  bool deleteOnRelease_;
};

// One colour channel over the background, rounded to the nearest value: c*a/255 + b*(255-a)/255.
// Alpha 255 gives the colour itself and alpha 0 the background, exactly.
std::uint8_t Composite(std::uint8_t colour, std::uint8_t background, std::uint8_t alpha) {
  const unsigned sum = colour * alpha + background * (255u - alpha);
  return static_cast<std::uint8_t>((sum + 127u) / 255u);
}

// HIMETRIC (hundredths of a millimetre) of `pixels` at 96 dots an inch.
std::int32_t Himetric(std::int32_t pixels) {
  return static_cast<std::int32_t>((static_cast<std::int64_t>(pixels) * 2540 + 48) / 96);
}

// The most that stb_image may ask for at once while it decodes a picture of `maxPixels`: 16 bytes
// a pixel covers its largest buffer (16-bit samples of four channels, doubled while a deflate
// stream's output grows), and a megabyte more the tables and a small picture's data.
std::size_t StbBound(std::int64_t maxPixels) {
  constexpr std::size_t kSlack = std::size_t{1} << 20;
  if (maxPixels <= 0)
    return kSlack;
  if (static_cast<std::uint64_t>(maxPixels) > (SIZE_MAX - kSlack) / 16)
    return SIZE_MAX;
  return static_cast<std::size_t>(maxPixels) * 16 + kSlack;
}

// PNG, GIF and BMP through stb_image. The header is read first, so that a file that declares
// more than `maxPixels` is refused before its pixels are decoded, and no single request for
// memory may be more than such a picture needs.
bool DecodeWithStb(const std::vector<std::uint8_t>& bytes, std::int64_t maxPixels,
                   portable::RgbaImage& image) {
  const portable::StbAllocationBound bound(StbBound(maxPixels));
  int width = 0;
  int height = 0;
  int channels = 0;
  const int length = static_cast<int>(bytes.size());
  if (stbi_info_from_memory(bytes.data(), length, &width, &height, &channels) == 0 || width <= 0 ||
      height <= 0 || std::int64_t{width} * std::int64_t{height} > maxPixels)
    return false;
  std::unique_ptr<stbi_uc, void (*)(void*)> pixels(
      stbi_load_from_memory(bytes.data(), length, &width, &height, &channels, 4), stbi_image_free);
  // stb_image hands back a buffer for a file that declares no pixels at all (a bitmap 0 wide);
  // GDI+ refuses such a file, and so do we.
  if (!pixels || width <= 0 || height <= 0)
    return false;
  image.width = width;
  image.height = height;
  image.rgba.assign(pixels.get(), pixels.get() + static_cast<std::size_t>(width) *
                                                     static_cast<std::size_t>(height) * 4);
  return true;
}

}  // namespace

std::uint32_t PortableBitmap::Pixel(std::int32_t x, std::int32_t y) const {
  const auto at = (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                   static_cast<std::size_t>(x)) *
                  4;
  return static_cast<std::uint32_t>(bgra.at(at + 3)) << 24 |
         static_cast<std::uint32_t>(bgra.at(at + 2)) << 16 |
         static_cast<std::uint32_t>(bgra.at(at + 1)) << 8 | bgra.at(at);
}

PortablePicture::~PortablePicture() {
  if (own_)
    api_.DeleteObject(handle_);
}

const PortableBitmap& PortablePicture::bitmap() const {
  const PortableBitmap* pixels = api_.Handle(handle_);
  if (pixels == nullptr)
    Raise(RunTimeError::kInvalidProcedureCall);
  return *pixels;
}

Variant PortablePicture::Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) {
  if (kind != CallKind::kPropertyGet && kind != CallKind::kMethod)
    Raise(RunTimeError::kMemberNotFound);
  if (!arguments.empty())
    Raise(RunTimeError::kInvalidProcedureCall);
  if (member == u"Width")
    return Himetric(bitmap().width);
  if (member == u"Height")
    return Himetric(bitmap().height);
  if (member == u"Type")
    return std::int16_t{1};
  if (member == u"Handle")
    return static_cast<std::int32_t>(handle_);
  Raise(RunTimeError::kMemberNotFound);
}

std::int32_t PortablePictureApi::GdiplusStartup(std::uintptr_t* token,
                                                const GdiplusStartupInput& input) {
  ++startups;
  if (failStartup || input.GdiplusVersion != 1)
    return kGenericError;
  *token = NextHandle();
  tokens_.insert(*token);
  return kOk;
}

void PortablePictureApi::GdiplusShutdown(std::uintptr_t token) {
  ++shutdowns;
  tokens_.erase(token);
}

std::uintptr_t PortablePictureApi::GlobalAlloc(std::uint32_t, std::size_t size) {
  ++allocations;
  if (failAllocations)
    return 0;
  const std::uintptr_t block = NextHandle();
  blocks_[block].bytes.resize(size);
  return block;
}

void* PortablePictureApi::GlobalLock(std::uintptr_t block) {
  auto it = blocks_.find(block);
  if (failLocks || it == blocks_.end() || it->second.bytes.empty())
    return nullptr;
  ++it->second.locks;
  return it->second.bytes.data();
}

void PortablePictureApi::GlobalUnlock(std::uintptr_t block) {
  if (auto it = blocks_.find(block); it != blocks_.end() && it->second.locks > 0)
    --it->second.locks;
}

std::uintptr_t PortablePictureApi::GlobalFree(std::uintptr_t block) {
  if (blocks_.erase(block) == 1)
    return 0;
  ++strayFrees;
  return block;
}

Ref<Object> PortablePictureApi::CreateStreamOnHGlobal(std::uintptr_t block, bool deleteOnRelease) {
  if (failStreams || !blocks_.contains(block))
    return nullptr;
  return MakeRef<PortableStream>(*this, block, deleteOnRelease);
}

std::int32_t PortablePictureApi::GdipCreateBitmapFromStream(const Ref<Object>& stream,
                                                            std::uintptr_t* bitmap) {
  *bitmap = 0;
  if (tokens_.empty())
    return kNotInitialized;
  const auto* source = dynamic_cast<const PortableStream*>(stream.get());
  const std::vector<std::uint8_t>* bytes = source != nullptr ? source->Bytes() : nullptr;
  if (bytes == nullptr || bytes->empty() || bytes->size() > INT_MAX)
    return kInvalidParameter;
  DecodedImage image;
  const bool decoded = portable::IsJpeg(*bytes) ? portable::DecodeJpeg(*bytes, maxPixels, image)
                                                : DecodeWithStb(*bytes, maxPixels, image);
  if (!decoded)
    return kInvalidParameter;
  *bitmap = NextHandle();
  bitmaps_.emplace(*bitmap, std::move(image));
  return kOk;
}

std::int32_t PortablePictureApi::GdipCreateHBITMAPFromBitmap(std::uintptr_t bitmap,
                                                             std::uintptr_t* hbitmap,
                                                             std::uint32_t background) {
  *hbitmap = 0;
  auto it = bitmaps_.find(bitmap);
  if (it == bitmaps_.end())
    return kInvalidParameter;
  const DecodedImage& image = it->second;
  const auto red = static_cast<std::uint8_t>(background >> 16);
  const auto green = static_cast<std::uint8_t>(background >> 8);
  const auto blue = static_cast<std::uint8_t>(background);
  PortableBitmap result{image.width, image.height, {}};
  result.bgra.resize(image.rgba.size());
  for (std::size_t i = 0; i < image.rgba.size(); i += 4) {
    const std::uint8_t alpha = image.rgba[i + 3];
    result.bgra[i] = Composite(image.rgba[i + 2], blue, alpha);
    result.bgra[i + 1] = Composite(image.rgba[i + 1], green, alpha);
    result.bgra[i + 2] = Composite(image.rgba[i], red, alpha);
    result.bgra[i + 3] = alpha;
  }
  *hbitmap = NextHandle();
  handles_.emplace(*hbitmap, std::move(result));
  return kOk;
}

std::int32_t PortablePictureApi::GdipDisposeImage(std::uintptr_t bitmap) {
  return bitmaps_.erase(bitmap) == 1 ? kOk : kInvalidParameter;
}

bool PortablePictureApi::DeleteObject(std::uintptr_t hbitmap) {
  return handles_.erase(hbitmap) == 1;
}

Ref<Object> PortablePictureApi::OleCreatePictureIndirect(const PictureDescription& description,
                                                         const Guid& iid, bool own) {
  const bool known = iid == kIPicture || iid == kIPictureDisp;
  if (refusePictures || !known || description.cbSizeofstruct != 20 ||
      description.picType != kPicTypeBitmap || !handles_.contains(description.hbitmap)) {
    Raise(kPictureRefused, u"One or more arguments are invalid");
  }
  return MakeRef<PortablePicture>(*this, description.hbitmap, own);
}

const PortableBitmap* PortablePictureApi::Handle(std::uintptr_t hbitmap) const {
  auto it = handles_.find(hbitmap);
  return it == handles_.end() ? nullptr : &it->second;
}

const std::vector<std::uint8_t>* PortablePictureApi::Block(std::uintptr_t block) const {
  auto it = blocks_.find(block);
  return it == blocks_.end() ? nullptr : &it->second.bytes;
}

}  // namespace tabforge
