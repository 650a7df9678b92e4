// The picture loader: GDI+'s life, the composited pixels, the empty results, who owns what, the
// call by name, and what a dump of the loader holds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <zlib.h>

#include <cstdio>
#include <sstream>

#include "apartment.h"
#include "golden.h"
#include "pictures/transparent_gif_loader.h"
#include "pictures/vb_language_extensions.h"
#include "platform/portable/stb_allocation.h"
#include "tracing/call_by_name.h"

namespace tabforge::testing {
namespace {

using ::testing::HasSubstr;

// The bytes of a file of tests/pictures/, as an array whose first element is `lowerBound`.
ArrayRef Bytes(const std::string& file, std::int32_t lowerBound = 0) {
  const std::string text = ReadSource("tests/pictures/" + file);
  return MakeArray(std::vector<std::uint8_t>(text.begin(), text.end()), lowerBound);
}

class Loader : public ::testing::Test {
 protected:
  Apartment apartment;
  PortablePictureApi& api = apartment.platform.pictures;
  Ref<TransparentGifLoader> loader = MakeRef<TransparentGifLoader>(apartment.protector);
};

TEST_F(Loader, ConstructionFillsTheRecordsAndStartsGdiplusUntilDestruction) {
  EXPECT_EQ(loader->iguid(), TransparentGifLoader::kIPicture);
  EXPECT_EQ(loader->iguid().Data1, 0x7BF80980u);  // IPicture, not IPictureDisp (…81)
  EXPECT_NE(loader->token(), 0u);
  EXPECT_EQ(api.liveStarts(), 1u);
  loader.reset();
  EXPECT_EQ(api.liveStarts(), 0u);
  EXPECT_EQ(apartment.protector.Depth(), 0);
  EXPECT_TRUE(apartment.script->log.empty());
}

TEST_F(Loader, FailedStartGivesNothingWithoutFailureAndNoShutdownOfTokenZero) {
  api.failStartup = true;
  auto unstarted = MakeRef<TransparentGifLoader>(apartment.protector);
  EXPECT_EQ(unstarted->token(), 0u);
  ArrayRef bytes = Bytes("transparent.png");
  loader.reset();  // no GDI+ started anywhere now
  const int shutdowns = api.shutdowns;
  EXPECT_FALSE(unstarted->LoadTransparentGif(bytes));
  EXPECT_EQ(api.liveBlocks(), 0u);
  unstarted.reset();
  EXPECT_EQ(api.shutdowns, shutdowns);
  apartment.ExpectQuiet();
}

TEST_F(Loader, PictureOfAHandleIsMadeForIPictureAndIPictureDispOnly) {
  ArrayRef bytes = Bytes("transparent.png");
  Ref<Object> picture = loader->LoadTransparentGif(bytes);
  ASSERT_TRUE(picture);
  EXPECT_EQ(loader->picConv().hbitmap, dynamic_cast<PortablePicture&>(*picture).handle());
  // The platform makes a picture of that handle for IPicture and IPictureDisp (…81) only.
  PictureApi::Guid iid = TransparentGifLoader::kIPicture;
  for (std::uint32_t data1 : {0x7BF80980u, 0x7BF80981u, 0x7BF80982u}) {
    iid.Data1 = data1;
    EXPECT_EQ(
        FailureNumber([&] { api.OleCreatePictureIndirect(loader->picConv(), iid, false); }) != 0,
        data1 == 0x7BF80982u)
        << data1;
  }
}

// Whether two 0xAARRGGBB pixels have the same alpha and colours within three steps of each other.
bool Near(std::uint32_t actual, std::uint32_t expected) {
  for (int shift = 0; shift < 32; shift += 8) {
    const int difference =
        static_cast<int>((actual >> shift) & 0xFF) - static_cast<int>((expected >> shift) & 0xFF);
    if (difference > (shift == 24 ? 0 : 3) || difference < (shift == 24 ? 0 : -3))
      return false;
  }
  return true;
}

// Each case of pictures.txt: the picture or nothing, its size and its pixels, each file in a block
// of its own that the load releases, and no failure.
TEST_F(Loader, MakesThePictureOfEachFileAsTheTableSays) {
  const std::vector<Case> cases = ReadCases("tests/pictures.txt");
  for (const auto& [header, notes] : cases) {
    const std::vector<std::string> f = Fields(header);  // file, size, pixels
    ArrayRef bytes = Bytes(f[0]);
    Ref<Object> picture = loader->LoadTransparentGif(bytes);
    EXPECT_EQ(picture == nullptr, f[1] == "nothing") << f[0];
    if (!picture)
      continue;
    const PortableBitmap& bitmap = dynamic_cast<PortablePicture&>(*picture).bitmap();
    EXPECT_EQ(std::to_string(bitmap.width) + "x" + std::to_string(bitmap.height), f[1]) << f[0];
    std::istringstream checks(f.size() > 2 ? f[2] : "");
    for (std::string check; checks >> check;) {
      int x = 0, y = 0;
      char how = 0;
      unsigned expected = 0;
      char actual[16];
      if (check.starts_with("crc=")) {
        std::snprintf(actual, sizeof actual, "crc=%08lX",
                      crc32(0, bitmap.bgra.data(), static_cast<uInt>(bitmap.bgra.size())));
        EXPECT_EQ(actual, check) << f[0];
      } else if (check.starts_with("himetric=")) {
        const auto size = [&](Utf16View side) {
          return std::to_string(ToLong(CallByName(picture, side, CallKind::kPropertyGet)));
        };
        EXPECT_EQ("himetric=" + size(u"Width") + "x" + size(u"Height"), check) << f[0];
      } else if (std::sscanf(check.c_str(), "%d,%d%c%x", &x, &y, &how, &expected) == 4) {
        std::snprintf(actual, sizeof actual, "%08X", bitmap.Pixel(x, y));
        EXPECT_TRUE(how == '=' ? bitmap.Pixel(x, y) == expected
                               : Near(bitmap.Pixel(x, y), expected))
            << f[0] << " " << check << ": " << actual;
      } else {
        ADD_FAILURE() << f[0] << ": " << check;
      }
    }
  }
  EXPECT_EQ(api.allocations, static_cast<int>(cases.size()));
  EXPECT_EQ(api.liveBlocks(), 0u);  // each stream took its block and released it
  EXPECT_EQ(api.liveBitmaps(), 0u);
  apartment.ExpectQuiet();
}

// A decoder that keeps libjpeg's memory, or a table that keeps a released entry, shows as heap
// that grows with every load (under the sanitizers, whose heap this does not see, it cannot fail).
TEST_F(Loader, LoadsGiveBackTheirMemory) {
  ArrayRef bytes = Bytes("orange-teal-progressive.jpg");
  EXPECT_TRUE(loader->LoadTransparentGif(bytes));
  const std::size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 50; ++i)
    EXPECT_TRUE(loader->LoadTransparentGif(bytes));
  EXPECT_LT(mallinfo2().uordblks, before + 50 * 1024);
}

TEST_F(Loader, PictureAnswersItsMembersByName) {
  ArrayRef bytes = Bytes("transparent.png");
  Ref<Object> picture = loader->LoadTransparentGif(bytes);
  ASSERT_TRUE(picture);
  EXPECT_EQ(ToLong(CallByName(picture, u"Type", CallKind::kPropertyGet)), 1);
  EXPECT_EQ(
      static_cast<std::uintptr_t>(ToLong(CallByName(picture, u"Handle", CallKind::kPropertyGet))),
      dynamic_cast<PortablePicture&>(*picture).handle());
  // A size takes no argument, and a picture whose handle is gone has none.
  Variant argument = std::int32_t{1};
  EXPECT_EQ(FailureNumber([&] {
              picture->Invoke(u"Width", CallKind::kPropertyGet, {&argument, 1});
            }),
            5);
  const Ref<Object> borrowed =
      api.OleCreatePictureIndirect(loader->picConv(), TransparentGifLoader::kIPicture, false);
  EXPECT_TRUE(api.DeleteObject(loader->picConv().hbitmap));
  EXPECT_EQ(FailureNumber([&] { borrowed->Invoke(u"Width", CallKind::kPropertyGet, {}); }), 5);
}

// Each case of picture_refusals.txt on a loader of its own.
TEST(LoaderRefusals, GiveNothingAndLeaveNothingBehindAsTheTableSays) {
  for (const auto& [header, notes] : ReadCases("tests/picture_refusals.txt")) {
    const std::vector<std::string> f = Fields(header);  // file, platform, result, handler
    Apartment apartment;
    PortablePictureApi& api = apartment.platform.pictures;
    api.failAllocations = f[1] == "no-memory";
    api.failStreams = f[1] == "no-stream";
    api.failLocks = f[1] == "no-lock";
    api.refusePictures = f[1] == "no-picture";
    if (f[1].starts_with("pixels="))
      api.maxPixels = std::stoll(f[1].substr(7));
    const auto at = f[0].find('@');
    ArrayRef bytes = f[0] == "-"
                         ? ArrayRef()
                         : Bytes(f[0].substr(0, at),
                                 at == std::string::npos ? 0 : std::stoi(f[0].substr(at + 1)));
    auto loader = MakeRef<TransparentGifLoader>(apartment.protector);
    EXPECT_EQ(loader->LoadTransparentGif(bytes) ? "picture" : "nothing", f[2]) << header;
    const auto calls = apartment.script->CallsTo("vbwErrorHandler");
    ASSERT_EQ(calls.size(), f.size() > 3 ? 1u : 0u) << header;
    EXPECT_THAT(calls, ::testing::Each(HasSubstr(f.size() > 3 ? f[3] : ""))) << header;
    // An array without element 0 has no size to ask for.
    const bool noElementZero = at != std::string::npos && std::stoll(f[0].substr(at + 1)) > 0;
    EXPECT_EQ(api.allocations == 0, f[0] == "-" || noElementZero) << header;
    EXPECT_EQ(api.liveBlocks() + api.liveBitmaps() + api.liveHandles() + api.strayFrees, 0u)
        << header;
    EXPECT_EQ(apartment.protector.Depth(), 0) << header;
  }
}

TEST_F(Loader, EachLoadIsItsOwnPictureThatOutlivesTheLoader) {
  ArrayRef bytes = Bytes("transparent.png");
  Ref<Object> first = loader->LoadTransparentGif(bytes);
  Ref<Object> second = loader->LoadTransparentGif(bytes);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first, second);
  EXPECT_NE(dynamic_cast<PortablePicture&>(*first).handle(),
            dynamic_cast<PortablePicture&>(*second).handle());
  EXPECT_EQ(api.liveHandles(), 2u);
  EXPECT_EQ(api.liveBitmaps(), 0u);  // GDI+ bitmaps go as soon as the handle exists
  EXPECT_EQ(api.liveBlocks(), 0u);   // and the stream with its block when the load leaves

  loader.reset();
  EXPECT_EQ(dynamic_cast<PortablePicture&>(*first).bitmap().Pixel(1, 0), 0x000000FFu);
  first.reset();
  EXPECT_EQ(api.liveHandles(), 1u);  // the picture owned its handle
  second.reset();
  EXPECT_EQ(api.liveHandles(), 0u);
}

TEST_F(Loader, ByNameTakesAByteArrayByValueOrReferenceAndNothingElse) {
  ArrayRef bytes = Bytes("transparent.png");
  Ref<Object> asObject(loader);
  EXPECT_TRUE(ToObject(CallByName(asObject, u"LoadTransparentGif", CallKind::kMethod,
                                  Variant(VarType::VT_UI1, bytes))));
  EXPECT_TRUE(ToObject(CallByName(asObject, u"LoadTransparentGif", CallKind::kMethod,
                                  Variant::ByRef(VarType::VT_UI1, &bytes))));
  EXPECT_FALSE(ToObject(CallByName(asObject, u"LoadTransparentGif", CallKind::kMethod,
                                   Variant(VarType::VT_UI1, ArrayRef()))));
  EXPECT_EQ(FailureNumber([&] {
              CallByName(asObject, u"LoadTransparentGif", CallKind::kMethod, Variant(u"bytes"));
            }),
            13);  // a string is no byte array
  EXPECT_EQ(FailureNumber([&] {
              CallByName(asObject, u"BitmapToPicture", CallKind::kMethod, std::int32_t{1});
            }),
            438);  // only LoadTransparentGif is public
}

TEST(StbAllocationBound, RefusesLargerRequestsKeepsTheBlockAndRestoresTheBoundBefore) {
  using portable::StbMalloc;
  using portable::StbRealloc;
  {
    const portable::StbAllocationBound outer(100);
    EXPECT_EQ(StbMalloc(101), nullptr);
    void* block = StbMalloc(100);
    ASSERT_NE(block, nullptr);
    static_cast<char*>(block)[99] = 'x';
    {
      const portable::StbAllocationBound inner(10);
      EXPECT_EQ(StbRealloc(block, 50), nullptr);
    }
    block = StbRealloc(block, 100);  // the outer bound again
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(static_cast<char*>(block)[99], 'x');
    portable::StbFree(block);
  }
  void* unbounded = StbMalloc(std::size_t{64} << 20);
  EXPECT_NE(unbounded, nullptr);
  portable::StbFree(unbounded);
}

TEST(VbLanguageExtensions, OnlyAnArrayWithoutStorageIsEmpty) {
  Apartment apartment;
  EXPECT_EQ(vb_language_extensions::isEmptyArrayByte(apartment.protector, nullptr), kTrue);
  EXPECT_EQ(vb_language_extensions::isEmptyArrayByte(apartment.protector,
                                                     MakeArray(std::vector<std::uint8_t>{})),
            kFalse);
  EXPECT_EQ(vb_language_extensions::isEmptyArrayByte(apartment.protector,
                                                     MakeArray(std::vector<std::uint8_t>{0})),
            kFalse);
  EXPECT_EQ(apartment.protector.Depth(), 0);
  EXPECT_TRUE(apartment.script->log.empty());
}

}  // namespace
}  // namespace tabforge::testing
