// The picture loader: GDI+'s life, the composited pixels, the empty results, who owns what, the
// call by name, and what a dump of the loader holds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apartment.h"
#include "doubles/picture_files.h"
#include "pictures/transparent_gif_loader.h"
#include "pictures/vb_language_extensions.h"
#include "platform/call_by_name.h"
#include "platform/portable/stb_allocation.h"

namespace tabforge::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// 2x2: opaque red, fully transparent, half green, a quarter of a dark blue-grey.
const std::vector<std::uint8_t> kTransparentPixels{255, 0,   0, 255, 0,  0,  0,  0,
                                                   0,   255, 0, 128, 10, 20, 30, 64};

ArrayRef Bytes(std::vector<std::uint8_t> bytes) {
  return MakeArray(std::move(bytes));
}

class Loader : public ::testing::Test {
 protected:
  const PortableBitmap& Pixels(const Ref<Object>& picture) {
    auto* portable = dynamic_cast<PortablePicture*>(picture.get());
    if (portable == nullptr)
      throw std::runtime_error("no picture");
    return portable->bitmap();
  }
  std::vector<std::string> HandlerCalls() { return apartment.script->CallsTo("vbwErrorHandler"); }

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
  ArrayRef bytes = Bytes(RgbaPng(2, 2, kTransparentPixels));
  loader.reset();  // no GDI+ started anywhere now
  const int shutdowns = api.shutdowns;
  EXPECT_FALSE(unstarted->LoadTransparentGif(bytes));
  EXPECT_EQ(api.liveBlocks(), 0u);
  unstarted.reset();
  EXPECT_EQ(api.shutdowns, shutdowns);
  EXPECT_TRUE(HandlerCalls().empty());
}

TEST_F(Loader, TransparentPngIsCompositedOverBlueWithAlphaKept) {
  ArrayRef bytes = Bytes(RgbaPng(2, 2, kTransparentPixels));
  Ref<Object> picture = loader->LoadTransparentGif(bytes);
  ASSERT_TRUE(picture);
  const PortableBitmap& bitmap = Pixels(picture);
  ASSERT_EQ(bitmap.width, 2);
  ASSERT_EQ(bitmap.height, 2);
  EXPECT_EQ(bitmap.Pixel(0, 0), 0xFFFF0000u);  // opaque: unchanged
  EXPECT_EQ(bitmap.Pixel(1, 0), 0x000000FFu);  // transparent: blue 255, alpha 0
  EXPECT_EQ(bitmap.Pixel(0, 1), 0x8000807Fu);  // half green over blue
  EXPECT_EQ(bitmap.Pixel(1, 1), 0x400305C7u);  // (10,20,30) at 64 over blue
  EXPECT_EQ(loader->picConv().hbitmap, dynamic_cast<PortablePicture&>(*picture).handle());
  // The platform makes a picture of that handle for IPicture and IPictureDisp (…81) only.
  PictureApi::Guid iid = TransparentGifLoader::kIPicture;
  for (std::uint32_t data1 : {0x7BF80980u, 0x7BF80981u, 0x7BF80982u}) {
    iid.Data1 = data1;
    bool refused = false;
    try {
      api.OleCreatePictureIndirect(loader->picConv(), iid, false);
    } catch (const Failure&) {
      refused = true;
    }
    EXPECT_EQ(refused, data1 == 0x7BF80982u) << data1;
  }
}

TEST_F(Loader, OpaquePngKeepsItsColoursAndGifTransparencyReadsBlue) {
  ArrayRef opaque = Bytes(RgbPng(3, 1, {1, 2, 3, 200, 100, 50, 0, 0, 0}));
  Ref<Object> first = loader->LoadTransparentGif(opaque);
  ASSERT_TRUE(first);
  EXPECT_EQ(Pixels(first).Pixel(0, 0), 0xFF010203u);
  EXPECT_EQ(Pixels(first).Pixel(1, 0), 0xFFC86432u);
  EXPECT_EQ(Pixels(first).Pixel(2, 0), 0xFF000000u);

  ArrayRef gif = Bytes(TransparentGif());
  Ref<Object> second = loader->LoadTransparentGif(gif);
  ASSERT_TRUE(second);
  EXPECT_EQ(Pixels(second).Pixel(0, 0), 0x000000FFu);
  EXPECT_EQ(Pixels(second).Pixel(1, 0), 0xFFFF0000u);
}

// Whether two 0xAARRGGBB pixels have the same alpha and colours within three steps of each other:
// JPEG keeps colours only to within rounding.
bool Near(std::uint32_t actual, std::uint32_t expected) {
  constexpr int step = 3;
  if (actual >> 24 != expected >> 24)
    return false;
  for (int shift = 0; shift < 24; shift += 8) {
    const int difference =
        static_cast<int>((actual >> shift) & 0xFF) - static_cast<int>((expected >> shift) & 0xFF);
    if (difference > step || difference < -step)
      return false;
  }
  return true;
}

// 16x8: a block of orange beside a block of teal, so that no 8x8 block mixes two colours.
std::vector<std::uint8_t> OrangeAndTeal() {
  std::vector<std::uint8_t> rgb;
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 16; ++x)
      rgb.insert(rgb.end(), x < 8 ? std::initializer_list<std::uint8_t>{240, 120, 20}
                                  : std::initializer_list<std::uint8_t>{20, 160, 150});
  return rgb;
}

// Where the first (or the last) marker `code` of a JPEG file stands.
std::size_t MarkerAt(const std::vector<std::uint8_t>& jpeg, std::uint8_t code, bool last = false) {
  std::size_t at = jpeg.size();
  for (std::size_t i = 0; i + 1 < jpeg.size() && (last || at == jpeg.size()); ++i)
    if (jpeg[i] == 0xFF && jpeg[i + 1] == code)
      at = i;
  return at;
}

// The progressive form of OrangeAndTeal with its last scan repeated `times` more times.
std::vector<std::uint8_t> ProgressiveWithLastScanRepeated(int times) {
  std::vector<std::uint8_t> jpeg = Jpeg(16, 8, OrangeAndTeal(), {.progressive = true});
  const std::vector<std::uint8_t> scan(
      jpeg.begin() + static_cast<std::ptrdiff_t>(MarkerAt(jpeg, 0xDA, true)),
      jpeg.end() - 2);  // up to the end-of-image marker
  for (int i = 0; i < times; ++i)
    jpeg.insert(jpeg.end() - 2, scan.begin(), scan.end());
  return jpeg;
}

TEST_F(Loader, JpegDecodesInEachColourSpaceAndAsFarAsACutFileGoes) {
  for (bool progressive : {false, true}) {
    ArrayRef bytes = Bytes(Jpeg(16, 8, OrangeAndTeal(), {.progressive = progressive}));
    Ref<Object> picture = loader->LoadTransparentGif(bytes);
    ASSERT_TRUE(picture) << "progressive " << progressive;
    const PortableBitmap& bitmap = Pixels(picture);
    EXPECT_EQ(bitmap.width, 16);
    EXPECT_EQ(bitmap.height, 8);
    EXPECT_PRED2(Near, bitmap.Pixel(0, 0), 0xFFF07814u);
    EXPECT_PRED2(Near, bitmap.Pixel(15, 7), 0xFF14A096u);
  }
  ArrayRef grey = Bytes(Jpeg(8, 8, std::vector<std::uint8_t>(64, 90), {.components = 1}));
  Ref<Object> greyPicture = loader->LoadTransparentGif(grey);
  ASSERT_TRUE(greyPicture);
  EXPECT_PRED2(Near, Pixels(greyPicture).Pixel(7, 7), 0xFF5A5A5Au);

  // Full cyan ink with half black: Adobe's files store 255 minus each ink, other files the ink.
  std::vector<std::uint8_t> inverted;
  std::vector<std::uint8_t> inks;
  for (int i = 0; i < 64; ++i) {
    inverted.insert(inverted.end(), {0, 255, 255, 127});
    inks.insert(inks.end(), {255, 0, 0, 128});
  }
  ArrayRef adobe = Bytes(Jpeg(8, 8, inverted, {.components = 4}));
  ArrayRef plain = Bytes(Jpeg(8, 8, inks, {.components = 4, .adobeMarker = false}));
  for (ArrayRef* cmyk : {&adobe, &plain}) {
    Ref<Object> picture = loader->LoadTransparentGif(*cmyk);
    ASSERT_TRUE(picture);
    EXPECT_PRED2(Near, Pixels(picture).Pixel(3, 3), 0xFF007F7Fu);
  }

  // A few scans more than the progression needs are only redundant; a file cut short in its
  // pixel data keeps its size.
  std::vector<std::uint8_t> cut = Jpeg(16, 8, OrangeAndTeal());
  const std::size_t scan = MarkerAt(cut, 0xDA);
  const std::size_t pixelData = scan + 2 + (cut[scan + 2] << 8 | cut[scan + 3]);
  cut.resize(pixelData + (cut.size() - 2 - pixelData) / 2);  // half the pixel data, no end
  for (const std::vector<std::uint8_t>& file : {ProgressiveWithLastScanRepeated(20), cut}) {
    ArrayRef bytes = Bytes(file);
    Ref<Object> picture = loader->LoadTransparentGif(bytes);
    ASSERT_TRUE(picture) << file.size() << " bytes";
    EXPECT_EQ(Pixels(picture).width, 16);
    EXPECT_PRED2(Near, Pixels(picture).Pixel(0, 0), 0xFFF07814u);
  }
  EXPECT_TRUE(HandlerCalls().empty());
}

TEST_F(Loader, PictureAnswersItsMembersByName) {
  ArrayRef bytes = Bytes(RgbaPng(2, 2, kTransparentPixels));
  Ref<Object> picture = loader->LoadTransparentGif(bytes);
  ASSERT_TRUE(picture);
  EXPECT_EQ(ToLong(CallByName(picture, u"Type", CallKind::kPropertyGet)), 1);
  EXPECT_EQ(ToLong(CallByName(picture, u"Width", CallKind::kPropertyGet)), 53);  // 2 px, HIMETRIC
  EXPECT_EQ(ToLong(CallByName(picture, u"Height", CallKind::kPropertyGet)), 53);
  EXPECT_EQ(
      static_cast<std::uintptr_t>(ToLong(CallByName(picture, u"Handle", CallKind::kPropertyGet))),
      dynamic_cast<PortablePicture&>(*picture).handle());
}

TEST_F(Loader, NoPictureGivesNothingWithoutFailureAndLeavesNothingBehind) {
  ArrayRef never;  // never dimensioned: nothing is allocated
  EXPECT_FALSE(loader->LoadTransparentGif(never));
  EXPECT_EQ(api.allocations, 0);
  // A 32-bit BMP that declares a width of 0 and a height of 1, with one pixel's bytes behind it.
  const std::vector<std::uint8_t> bmpWithoutPixels{
      'B', 'M', 58, 0, 0, 0, 0, 0, 0,    0,    54,  0,  0,    0,            // file header
      40,  0,   0,  0, 0, 0, 0, 0, 1,    0,    0,   0,  1,    0,    32, 0,  // size, 0x1
      0,   0,   0,  0, 4, 0, 0, 0, 0x13, 0x0B, 0,   0,  0x13, 0x0B, 0,  0,
      0,   0,   0,  0, 0, 0, 0, 0, 0,    0,    255, 255};
  // The transparent GIF with its logical screen made 8192 by 4096: 2^25 pixels, over the bound,
  // refused before decoding. About the same size in a JPEG's frame header.
  std::vector<std::uint8_t> gifTooLarge = TransparentGif();
  gifTooLarge[6] = 0x00;
  gifTooLarge[7] = 0x20;
  gifTooLarge[8] = 0x00;
  gifTooLarge[9] = 0x10;
  std::vector<std::uint8_t> jpegTooLarge = Jpeg(16, 8, OrangeAndTeal());
  const std::size_t frame = MarkerAt(jpegTooLarge, 0xC0);
  jpegTooLarge[frame + 5] = 0x10;
  jpegTooLarge[frame + 7] = 0x20;
  // A huffman table whose code counts add up to more than the 256 symbols a table holds.
  const std::vector<std::uint8_t> overfullTable{0xFF, 0xD8, 0xFF, 0xC4, 0xFF, 0xFF, 0x00, 0,
                                                0,    0xBD, 0xBD, 0xBD, 0xBD, 0xBD, 0xBD, 0xBD,
                                                0xBD, 0xBD, 0xBD, 0xBD, 0xBD, 0xBD, 0xBD, 0xBD};
  const std::vector<std::vector<std::uint8_t>> files{
      {},  // zero bytes are allocated, and the lock fails
      {'n', 'o', 't', ' ', 'a', ' ', 'p', 'i', 'c', 't', 'u', 'r', 'e'},
      bmpWithoutPixels,
      gifTooLarge,
      jpegTooLarge,
      overfullTable,
      ProgressiveWithLastScanRepeated(300),
      {0xFF, 0xD8, 0xFF},
  };
  for (const std::vector<std::uint8_t>& file : files) {
    ArrayRef bytes = Bytes(file);
    EXPECT_FALSE(loader->LoadTransparentGif(bytes)) << file.size() << " bytes";
  }
  EXPECT_EQ(api.allocations, static_cast<int>(files.size()));
  // The platform refuses the block, or the stream over it.
  ArrayRef bytes = Bytes(RgbaPng(2, 2, kTransparentPixels));
  api.failAllocations = true;
  EXPECT_FALSE(loader->LoadTransparentGif(bytes));
  api.failAllocations = false;
  api.failStreams = true;
  EXPECT_FALSE(loader->LoadTransparentGif(bytes));
  EXPECT_EQ(api.liveBlocks(), 0u);  // each stream took its block and released it
  EXPECT_EQ(api.liveBitmaps(), 0u);
  EXPECT_EQ(api.liveHandles(), 0u);
  EXPECT_TRUE(HandlerCalls().empty());
}

TEST_F(Loader, DecoderMayAskOnlyForWhatTheBoundOfPixelsNeeds) {
  // One pixel with three megabytes of trailing data: the inflated stream outgrows what one pixel
  // needs. Under the default bound (16 bytes for each of 2^24 pixels) it decodes; with a bound of
  // one pixel its decoder may not ask for more than a megabyte and sixteen bytes, and it fails.
  const std::vector<std::uint8_t> file = RgbPngWithTrailingData(1, 1, {9, 8, 7}, 3 << 20);
  ArrayRef bytes = Bytes(file);
  Ref<Object> picture = loader->LoadTransparentGif(bytes);
  ASSERT_TRUE(picture);
  EXPECT_EQ(Pixels(picture).Pixel(0, 0), 0xFF090807u);

  api.maxPixels = 1;
  ArrayRef again = Bytes(file);
  EXPECT_FALSE(loader->LoadTransparentGif(again));
  EXPECT_EQ(api.liveBitmaps(), 0u);
  EXPECT_TRUE(HandlerCalls().empty());
}

TEST_F(Loader, RefusedPictureEntersTheTailOfBitmapToPictureAndDeletesTheHandle) {
  ArrayRef bytes = Bytes(RgbaPng(2, 2, kTransparentPixels));
  api.refusePictures = true;
  EXPECT_FALSE(loader->LoadTransparentGif(bytes));
  ASSERT_EQ(HandlerCalls().size(), 1u);
  EXPECT_THAT(HandlerCalls()[0],
              HasSubstr(R"(BSTR "TransparentGifLoader", BSTR "BitmapToPicture", )"
                        R"(I4 404)"));
  EXPECT_EQ(api.liveHandles(), 0u);
  EXPECT_EQ(api.liveBitmaps(), 0u);
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

TEST_F(Loader, EachLoadIsItsOwnPictureThatOutlivesTheLoader) {
  ArrayRef bytes = Bytes(RgbaPng(2, 2, kTransparentPixels));
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
  EXPECT_EQ(Pixels(first).Pixel(1, 0), 0x000000FFu);
  first.reset();
  EXPECT_EQ(api.liveHandles(), 1u);  // the picture owned its handle
  second.reset();
  EXPECT_EQ(api.liveHandles(), 0u);
}

TEST_F(Loader, ArrayWithoutElementZeroIsABoundFailureOfTheCopy) {
  ArrayRef shifted = MakeArray(RgbaPng(2, 2, kTransparentPixels), 1);
  EXPECT_FALSE(loader->LoadTransparentGif(shifted));
  ASSERT_EQ(HandlerCalls().size(), 1u);
  EXPECT_THAT(HandlerCalls()[0], HasSubstr(R"(I4 9, BSTR "Subscript out of range")"));
  EXPECT_THAT(HandlerCalls()[0], HasSubstr(R"(BSTR "LoadResourceAsStream", I4 310)"));
  EXPECT_EQ(api.liveBlocks(), 0u);
}

TEST_F(Loader, ByNameTakesAByteArrayByValueOrReferenceAndNothingElse) {
  ArrayRef bytes = Bytes(RgbaPng(2, 2, kTransparentPixels));
  Ref<Object> asObject(loader);
  EXPECT_TRUE(ToObject(CallByName(asObject, u"LoadTransparentGif", CallKind::kMethod,
                                  Variant(VarType::VT_UI1, bytes))));
  EXPECT_TRUE(ToObject(CallByName(asObject, u"LoadTransparentGif", CallKind::kMethod,
                                  Variant::ByRef(VarType::VT_UI1, &bytes))));
  EXPECT_FALSE(ToObject(CallByName(asObject, u"LoadTransparentGif", CallKind::kMethod,
                                   Variant(VarType::VT_UI1, ArrayRef()))));
  try {
    CallByName(asObject, u"LoadTransparentGif", CallKind::kMethod, Variant(u"bytes"));
    ADD_FAILURE() << "a string is no byte array";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.number, 13);
  }
  try {
    CallByName(asObject, u"BitmapToPicture", CallKind::kMethod, std::int32_t{1});
    ADD_FAILURE() << "only LoadTransparentGif is public";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.number, 438);
  }
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
  EXPECT_EQ(vb_language_extensions::isEmptyArrayByte(apartment.protector, Bytes({})), kFalse);
  EXPECT_EQ(vb_language_extensions::isEmptyArrayByte(apartment.protector, Bytes({0})), kFalse);
  EXPECT_EQ(apartment.protector.Depth(), 0);
  EXPECT_TRUE(apartment.script->log.empty());
}

}  // namespace
}  // namespace tabforge::testing
