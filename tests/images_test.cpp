// Main2's control images: the apply number that follows the product's name, the table's first
// fill, and what the ribbon gets back in the cases that are no picture. Which number each control
// asks for is in every_control.golden.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apartment.h"
#include "doubles/recording_signaller.h"
#include "golden.h"
#include "ribbon/main2.h"

namespace tabforge::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Images : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string png = ReadSource("tests/pictures/blue-pixel.png");
    const Variant picture(VarType::VT_UI1,
                          MakeArray(std::vector<std::uint8_t>(png.begin(), png.end())));
    for (std::int16_t number : {102, 318, 303})
      signaller->answers[number] = picture;
    main2.Initialize(signaller, u"Morvelin");
  }
  std::vector<std::string> HandlerCalls() { return apartment.script->CallsTo("vbwErrorHandler"); }

  Apartment apartment;
  Main2 main2{apartment.protector};
  Ref<RecordingSignaller> signaller = MakeRef<RecordingSignaller>();
};

TEST_F(Images, UndecodableOrMissingBytesAreNoFailure) {
  signaller->answers[303] = Variant(VarType::VT_UI1, MakeArray(std::vector<std::uint8_t>{1, 2}));
  EXPECT_FALSE(main2.LoadImage(u"5"));
  EXPECT_FALSE(main2.LoadImage(u"7"));  // 205 is not set: never dimensioned
  EXPECT_THAT(signaller->asked, ElementsAre(303, 205));
  EXPECT_THAT(HandlerCalls(), IsEmpty());
}

// (A picture asked before Initialize is in sessions.txt.)
TEST_F(Images, NoByteArrayOrFailingTemplateEnterTheTail) {
  signaller->answers[303] = Variant(u"303.png");
  EXPECT_FALSE(main2.LoadImage(u"5"));
  signaller->fail = true;
  EXPECT_FALSE(main2.GetImage(u"MVN0"));
  ASSERT_EQ(HandlerCalls().size(), 2u);
  EXPECT_THAT(HandlerCalls()[0], HasSubstr(R"(I4 13, BSTR "Type mismatch")"));
  EXPECT_THAT(HandlerCalls()[0], HasSubstr(R"(BSTR "LoadImage", I4 1007)"));
  EXPECT_THAT(HandlerCalls()[1], HasSubstr(R"(BSTR "GetImage[Get]", I4 905)"));
}

TEST_F(Images, InitializeStartsANewLoaderBeforeTheOldStops) {
  auto& api = apartment.platform.pictures;
  EXPECT_EQ(api.liveStarts(), 1u);
  main2.Initialize(signaller, u"Morvelin");
  EXPECT_EQ(api.liveStarts(), 1u);
  EXPECT_EQ(api.startups, 2);
  EXPECT_EQ(api.shutdowns, 1);
}

}  // namespace
}  // namespace tabforge::testing
