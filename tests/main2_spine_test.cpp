// Main2's state: initialisation, the ribbon property and the product-name-sensitive table.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "apartment.h"
#include "doubles/recording_ribbon.h"
#include "golden.h"
#include "ribbon/main2.h"
#include "ribbon/string_extensions.h"

namespace tabforge::testing {
namespace {

using ::testing::ElementsAre;

class Spine : public ::testing::Test {
 protected:
  Apartment apartment;
  Main2 main2{apartment.protector};
  std::vector<std::string> log;
  Ref<Object> signaller = MakeRef<PlainObject>();
};

TEST_F(Spine, InitializeSetsStateAndASecondReplacesTheTable) {
  main2.Initialize(signaller, u"Morvelin");
  EXPECT_EQ(main2.productName(), u"Morvelin");
  EXPECT_EQ(main2.enabled(), kTrue);
  EXPECT_EQ(main2.quickBookmarkEnabled(), kFalse);
  EXPECT_EQ(main2.eventSignaller(), signaller);
  Ref<Dictionary> first = main2.productNameSensitiveControls();
  EXPECT_THAT(first->Keys(), ElementsAre(0, 4, 1, 26));
  EXPECT_TRUE(apartment.script->log.empty());

  first->Item(7);  // a read of a missing key adds it
  main2.EnableGotoQuickBookmark(kTrue);
  main2.EnableToolbar(kFalse);
  main2.Initialize(nullptr, u"");
  EXPECT_NE(main2.productNameSensitiveControls(), first);
  EXPECT_THAT(main2.productNameSensitiveControls()->Keys(), ElementsAre(0, 4, 1, 26));
  EXPECT_EQ(main2.productName(), u"");
  EXPECT_EQ(main2.enabled(), kTrue);
  EXPECT_EQ(main2.quickBookmarkEnabled(), kFalse);
  EXPECT_FALSE(main2.eventSignaller());
}

TEST_F(Spine, ObjectWithoutRibbonInterfaceLeavesTheFieldAndEntersTheTail) {
  auto ribbonObject = MakeRef<RecordingRibbon>(&log);
  main2.ribbon(ribbonObject);
  main2.ribbon(MakeRef<PlainObject>());
  EXPECT_EQ(main2.ribbonUi(), Ref<RibbonUi>(ribbonObject));
  ASSERT_EQ(apartment.script->CallsTo("vbwErrorHandler").size(), 1u);
  EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler")[0],
              ::testing::HasSubstr(R"(I4 13, BSTR "Type mismatch", BSTR "Tabforge", )"
                                   R"(BSTR "Main2", BSTR "ribbon[Let]", I4 201, I2 1)"));
}

TEST_F(Spine, FailedTableCreationLeavesTheLaterStepsToTheirTails) {
  main2.Initialize(signaller, u"Morvelin");
  apartment.faults.FailAt(u"Main2.Initialize", 6);
  apartment.script->answers = {std::int32_t{5}, std::int32_t{5}};
  main2.Initialize(signaller, u"Quill");
  // The old table stayed, so adding the first template again fails inside its own procedure.
  EXPECT_EQ(main2.productName(), u"Quill");
  const auto calls = apartment.script->CallsTo("vbwErrorHandler");
  ASSERT_GE(calls.size(), 2u);
  EXPECT_THAT(calls[1], ::testing::HasSubstr(R"(BSTR "initProductNameSensitiveControl", I4 1601)"));
}

// Each case of replace_text.txt.
TEST(StringExtensionsTest, ReplaceTextIsOnePassAndExact) {
  for (const auto& c : ReadCases("tests/replace_text.txt")) {
    std::vector<std::string> f = Fields(c.header);
    ASSERT_EQ(f.size(), 7u) << c.header;
    for (std::string& field : f)
      field = field.starts_with("[") ? field.substr(1, field.size() - 2) : field;
    const auto number = [&](std::size_t i, int otherwise) {
      return f[i].empty() ? otherwise : std::stoi(f[i]);
    };
    EXPECT_EQ(ToUtf8(StringExtensions::replaceText(FromUtf8(f[0]), FromUtf8(f[1]), FromUtf8(f[2]),
                                                   number(3, 1), number(4, -1), number(5, 0))),
              f[6])
        << c.header;
  }
}

}  // namespace
}  // namespace tabforge::testing
