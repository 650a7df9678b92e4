// What a control picture costs: LoadImage through Main2 (two calls by name, the loader's copies
// and the picture object) beside stb decoding the same bytes alone.
#include <benchmark/benchmark.h>
#include <stb/stb_image.h>

#include "picture_files.h"
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tracing/vbw_protector.h"

namespace tabforge {
namespace {

// A 32x32 icon with a soft alpha ramp, the size the ribbon asks for.
std::vector<std::uint8_t> IconBytes() {
  std::vector<std::uint8_t> rgba;
  for (int y = 0; y < 32; ++y) {
    for (int x = 0; x < 32; ++x) {
      rgba.insert(rgba.end(), {static_cast<std::uint8_t>(x * 8), static_cast<std::uint8_t>(y * 8),
                               128, static_cast<std::uint8_t>((x + y) * 4)});
    }
  }
  return testing::RgbaPng(32, 32, rgba);
}

class IconSignaller final : public Object {
 public:
  explicit IconSignaller(std::vector<std::uint8_t> bytes)
      : bits_(VarType::VT_UI1, MakeArray(std::move(bytes))) {}
  Variant Invoke(Utf16View, CallKind, std::span<Variant>) override { return bits_; }

 private:
  Variant bits_;
};

void LoadImage32(benchmark::State& state) {
  PortablePlatform platform;
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  Main2 main2(protector);
  main2.Initialize(MakeRef<IconSignaller>(IconBytes()), u"Morvelin");
  const Utf16String id(u"5");
  for (auto _ : state) {
    Ref<Object> picture = main2.LoadImage(id);
    if (!picture)
      state.SkipWithError("no picture");
    benchmark::DoNotOptimize(picture.get());
  }
}
BENCHMARK(LoadImage32)->Name("Op/LoadImage 32x32");

void DecodeOnly32(benchmark::State& state) {
  const std::vector<std::uint8_t> bytes = IconBytes();
  for (auto _ : state) {
    int width = 0;
    int height = 0;
    int channels = 0;
    stbi_uc* pixels = stbi_load_from_memory(bytes.data(), static_cast<int>(bytes.size()), &width,
                                            &height, &channels, 4);
    benchmark::DoNotOptimize(pixels);
    stbi_image_free(pixels);
  }
}
BENCHMARK(DecodeOnly32)->Name("Floor/LoadImage 32x32");

}  // namespace
}  // namespace tabforge
