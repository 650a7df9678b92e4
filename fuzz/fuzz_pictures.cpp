// Picture bytes into TransparentGifLoader::LoadTransparentGif through the portable picture code:
// the answer is a picture or nothing, and once the loader is gone no memory block, decoded bitmap,
// bitmap handle or GDI+ start is left behind.
#include <cstdint>
#include <vector>

#include "fuzz/input_bytes.h"
#include "pictures/transparent_gif_loader.h"
#include "platform/portable/portable_platform.h"
#include "tracing/vbw_protector.h"

namespace tabforge::fuzzing {
namespace {

void RunOne(const std::uint8_t* data, std::size_t size) {
  PortablePlatform platform;
  // The platform's own bound (2^24 pixels) lets one picture take seconds to decode and composite
  // under the sanitizers; decoding is linear in the pixels, so a smaller bound loses nothing.
  platform.pictures.maxPixels = 1 << 16;
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  {
    auto loader = MakeRef<TransparentGifLoader>(protector);
    ArrayRef bytes = MakeArray(std::vector<std::uint8_t>(data, data + size));
    Ref<Object> picture = loader->LoadTransparentGif(bytes);
    Expect(protector.Depth() == 0, "depth after LoadTransparentGif");
    if (picture) {
      auto* portable = dynamic_cast<PortablePicture*>(picture.get());
      Expect(portable != nullptr, "a picture of the portable platform");
      const PortableBitmap& bitmap = portable->bitmap();
      Expect(bitmap.width > 0 && bitmap.height > 0, "a picture has pixels");
      Expect(bitmap.bgra.size() == static_cast<std::size_t>(bitmap.width) *
                                       static_cast<std::size_t>(bitmap.height) * 4,
             "four bytes a pixel");
      // Touch the last pixel, so that a short buffer shows.
      (void)bitmap.Pixel(bitmap.width - 1, bitmap.height - 1);
    }
    Expect(platform.pictures.liveBlocks() == 0, "no memory block left");
    Expect(platform.pictures.strayFrees == 0, "no block freed twice");
    Expect(platform.pictures.liveBitmaps() == 0, "no decoded bitmap left");
    Expect(platform.pictures.liveHandles() == (picture ? 1u : 0u), "one handle a picture");
  }
  Expect(platform.pictures.liveHandles() == 0, "the picture's handle goes with it");
  Expect(platform.pictures.liveStarts() == 0, "GDI+ shut down with the loader");
}

}  // namespace
}  // namespace tabforge::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tabforge::fuzzing::RunOne(data, size);
  return 0;
}
