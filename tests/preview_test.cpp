// The preview page: pictures as PNG, and the state Main2 answers after a session.
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
using ::testing::Not;

TEST(Preview, EncodesEachPixelOpaqueAsPng) {
  PortableBitmap bitmap{3, 2, {}};
  for (std::uint8_t i = 0; i < 6; ++i) {
    // blue, green, red, alpha; the alpha is dropped, the loader has composited already
    bitmap.bgra.insert(bitmap.bgra.end(), {i, static_cast<std::uint8_t>(i * 40),
                                           static_cast<std::uint8_t>(255 - i), 7});
  }
  const auto png = EncodePng(bitmap);
  int width = 0, height = 0, channels = 0;
  unsigned char* rgba = stbi_load_from_memory(png.data(), static_cast<int>(png.size()), &width,
                                              &height, &channels, 4);
  ASSERT_NE(rgba, nullptr) << stbi_failure_reason();
  EXPECT_EQ(width, 3);
  EXPECT_EQ(height, 2);
  EXPECT_EQ(channels, 3);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(rgba[i * 4], 255 - i) << i;
    EXPECT_EQ(rgba[i * 4 + 1], i * 40) << i;
    EXPECT_EQ(rgba[i * 4 + 2], i) << i;
    EXPECT_EQ(rgba[i * 4 + 3], 255) << i;
  }
  stbi_image_free(rgba);
}

struct Page {
  int status = 0;
  std::string html;
  std::string errors;
};

Page Draw(const std::string& session, const std::string& icons = TABFORGE_ICONS,
          const std::string& name = "") {
  PreviewOptions options;
  options.iconDirectory = icons;
  if (!name.empty()) {
    options.productName = name;
    options.productNameGiven = true;
  }
  if (!session.empty()) {
    options.sessionFile = ::testing::TempDir() + "preview_test.session";
    std::ofstream(options.sessionFile) << session;
  }
  std::ostringstream html, errors;
  const int status = WritePreview(html, errors, options);
  return {status, html.str(), errors.str()};
}

// The opening tag of the control drawn for `id` (the first, where a split button repeats it).
std::string Tag(const std::string& html, const std::string& id) {
  const auto at = html.find("data-id=\"" + id + "\"");
  if (at == std::string::npos)
    return "";
  const auto open = html.rfind('<', at);
  return html.substr(open, html.find('>', at) - open);
}

TEST(Preview, DrawsTheStateTheSessionLeaves) {
  const Page fresh = Draw("");
  ASSERT_EQ(fresh.status, 0) << fresh.errors;
  EXPECT_THAT(Tag(fresh.html, "MVN16"), HasSubstr(" disabled"));  // no quick bookmark yet
  EXPECT_THAT(Tag(fresh.html, "MVN5"), Not(HasSubstr("disabled")));
  EXPECT_THAT(Tag(fresh.html, "MVN23"), HasSubstr("aria-pressed=\"false\""));
  EXPECT_THAT(fresh.html, HasSubstr(">Morvelin Core Features<"));
  EXPECT_THAT(fresh.html, Not(HasSubstr("<script")));

  const Page later = Draw(
      "Initialize Quill\nEnableGotoQuickBookmark true\nUpdateLexoscopeIcon true\n"
      "EnableToolbar false\n",
      TABFORGE_ICONS, "Quill Pro");
  ASSERT_EQ(later.status, 0) << later.errors;
  EXPECT_THAT(Tag(later.html, "MVN23"), HasSubstr("aria-pressed=\"true\""));
  EXPECT_THAT(Tag(later.html, "MVN5"), HasSubstr(" disabled"));
  EXPECT_THAT(later.html, HasSubstr(">Quill Pro Core Features<"));
  EXPECT_THAT(Tag(later.html, "MVN9"), HasSubstr("title=\"Set as Heading Level 1&#10;"));

  const Page bad = Draw("Initialize Quill\nNoSuchMember\n");
  EXPECT_EQ(bad.status, 2);
  EXPECT_THAT(bad.errors, HasSubstr("line 2"));
  EXPECT_EQ(bad.html, "");
}

TEST(Preview, ShowsWhereAPictureIsMissingOrBuiltIn) {
  const auto count = [](const std::string& html, const std::string& what) {
    std::size_t n = 0;
    for (auto at = html.find(what); at != std::string::npos; at = html.find(what, at + 1))
      ++n;
    return n;
  };
  const Page with = Draw("");
  const Page without = Draw("", "/nonexistent");
  ASSERT_EQ(without.status, 0);
  EXPECT_GT(count(with.html, "<img "), 10u);
  EXPECT_EQ(count(without.html, "<img "), 0u);
  EXPECT_EQ(count(without.html, "class=\"missing\""),
            count(with.html, "<img ") + count(with.html, "class=\"missing\""));
  EXPECT_THAT(with.html, HasSubstr("title=\"built-in image BookmarkInsert\""));
  EXPECT_EQ(count(with.html, "class=\"mso\""), count(without.html, "class=\"mso\""));
  // A built-in picture is a glyph of its size, not its name clipped to the box.
  EXPECT_EQ(count(with.html, "<svg width=\""), count(with.html, "class=\"mso\""));
  EXPECT_EQ(count(with.html, ">BookmarkInsert<"), 0u);
}

}  // namespace
}  // namespace tabforge::cli
