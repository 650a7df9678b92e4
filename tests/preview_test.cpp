// The preview page: pictures as PNG, and what it shows where a picture is missing or built in.
// preview_browser_test.py checks each control's state as a browser draws it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stb/stb_image.h>

#include <fstream>
#include <sstream>

#include "platform/portable/portable_pictures.h"
#include "tools/preview.h"

namespace tabforge::cli {
namespace {

using ::testing::HasSubstr;

TEST(Preview, EncodesEachPixelOpaqueAsPng) {
  PortableBitmap bitmap{3, 2, {}};
  std::vector<unsigned char> rgba;
  for (std::uint8_t i = 0; i < 6; ++i) {
    // blue, green, red, alpha; the alpha is dropped, the loader has composited already
    const std::uint8_t green = i * 40, red = 255 - i;
    bitmap.bgra.insert(bitmap.bgra.end(), {i, green, red, 7});
    rgba.insert(rgba.end(), {red, green, i, 255});
  }
  const auto png = EncodePng(bitmap);
  int width = 0, height = 0, channels = 0;
  unsigned char* decoded = stbi_load_from_memory(png.data(), static_cast<int>(png.size()), &width,
                                                 &height, &channels, 4);
  ASSERT_NE(decoded, nullptr) << stbi_failure_reason();
  EXPECT_EQ(std::vector(decoded, decoded + width * height * 4), rgba);
  EXPECT_EQ(std::pair(width, height), std::pair(3, 2));
  EXPECT_EQ(channels, 3);
  stbi_image_free(decoded);
}

struct Page {
  int status = 0;
  std::string html;
  std::string errors;
};

Page Draw(const std::string& session, const std::string& icons = TABFORGE_ICONS) {
  PreviewOptions options{"Quill Pro", true, icons, ""};
  if (!session.empty()) {
    options.sessionFile = ::testing::TempDir() + "preview_test.session";
    std::ofstream(options.sessionFile) << session;
  }
  std::ostringstream html, errors;
  const int status = WritePreview(html, errors, options);
  return {status, html.str(), errors.str()};
}

// Missing pictures are marked, built-in ones drawn as a glyph, whatever the icons.
TEST(Preview, DrawsTheSessionWithThePicturesMissingOrBuiltIn) {
  const auto count = [](const std::string& html, const std::string& what) {
    std::size_t n = 0;
    for (auto at = html.find(what); at != std::string::npos; at = html.find(what, at + 1))
      ++n;
    return n;
  };
  const Page with = Draw("Initialize Quill\n");
  const Page without = Draw("", "/nonexistent");
  ASSERT_EQ(with.status, 0) << with.errors;
  ASSERT_EQ(without.status, 0) << without.errors;
  for (const Page* page : {&with, &without})  // the name given wins over the session's
    EXPECT_THAT(page->html, HasSubstr(">Quill Pro Core Features<"));
  EXPECT_THAT(with.html, HasSubstr("title=\"Set as Heading Level 1&#10;"));
  EXPECT_GT(count(with.html, "<img "), 10u);
  EXPECT_EQ(count(without.html, "<img "), 0u);
  EXPECT_EQ(count(without.html, "class=\"missing\""),
            count(with.html, "<img ") + count(with.html, "class=\"missing\""));
  EXPECT_THAT(with.html, HasSubstr("title=\"built-in image BookmarkInsert\""));
  EXPECT_EQ(count(with.html, "class=\"mso\""), count(without.html, "class=\"mso\""));
  EXPECT_EQ(count(with.html, "<svg width=\""), count(with.html, "class=\"mso\""));
  EXPECT_EQ(count(with.html, ">BookmarkInsert<"), 0u);  // not the name clipped to the box

  const Page bad = Draw("Initialize Quill\nNoSuchMember\n");
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.errors, "tabforge session: line 2: unknown command 'NoSuchMember': NoSuchMember\n");
  EXPECT_EQ(bad.html, "");
}

}  // namespace
}  // namespace tabforge::cli
