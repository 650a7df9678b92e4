// The platform seam's value types: text, tagged values and their conversions.
#include <gtest/gtest.h>

#include "platform/failure.h"
#include "platform/variant.h"

namespace tabforge {
namespace {

std::int32_t FailureNumber(auto&& call) {
  try {
    call();
  } catch (const Failure& failure) {
    return failure.number;
  }
  return 0;
}

TEST(Text, Utf8RoundTripAndReplacement) {
  EXPECT_EQ(ToUtf8(FromUtf8("Morvelin é 𝄞")), "Morvelin é 𝄞");
  EXPECT_EQ(FromUtf8("\xC3"), u"\uFFFD");
  EXPECT_EQ(FromUtf8("\xE0\x80\xAF"), u"\uFFFD\uFFFD\uFFFD");  // overlong form
  EXPECT_EQ(ToUtf8(Bstr(1, u'\xD800')), "\xEF\xBF\xBD");
  EXPECT_EQ(DecimalText(-2147483648LL), u"-2147483648");
  EXPECT_EQ(DecimalText(0), u"0");
}

TEST(Conversions, IntegerTextAcceptsOnlyPlainDecimals) {
  EXPECT_EQ(ParseInteger(u"26"), 26);
  EXPECT_EQ(ParseInteger(u" -7 "), -7);
  EXPECT_EQ(ParseInteger(u"+05"), 5);
  EXPECT_EQ(ParseInteger(u"32767"), 32767);
  const auto mismatch = static_cast<std::int32_t>(RunTimeError::kTypeMismatch);
  const auto overflow = static_cast<std::int32_t>(RunTimeError::kOverflow);
  for (const char16_t* text : {u"", u"MVN5", u"5x", u"1e2", u"&H1F", u"- 5", u"4.0", u" "}) {
    EXPECT_EQ(FailureNumber([&] { ParseInteger(text); }), mismatch) << ToUtf8(text);
  }
  EXPECT_EQ(FailureNumber([] { ParseInteger(u"32768"); }), overflow);
  EXPECT_EQ(FailureNumber([] { ParseInteger(u"99999999999999999999"); }), overflow);
  EXPECT_EQ(ParseLong(u"-2147483648"), -2147483647 - 1);
}

TEST(Conversions, TaggedValuesFollowTheRunTimeRules) {
  EXPECT_EQ(ToLong(Variant()), 0);
  EXPECT_EQ(ToLong(Variant(kTrue)), -1);
  EXPECT_EQ(ToBstr(Variant(kTrue)), u"True");
  EXPECT_EQ(ToBstr(Variant(std::int16_t{-3})), u"-3");
  EXPECT_EQ(FailureNumber([] { ToBstr(Variant::Null()); }),
            static_cast<std::int32_t>(RunTimeError::kInvalidUseOfNull));
  EXPECT_EQ(FailureNumber([] { ToInteger(Variant(std::int32_t{40000})); }),
            static_cast<std::int32_t>(RunTimeError::kOverflow));
  EXPECT_EQ(FailureNumber([] { ToObject(Variant(std::int32_t{1})); }),
            static_cast<std::int32_t>(RunTimeError::kObjectRequired));
}

TEST(Conversions, ReferencesReadAndWriteTheCallersVariable) {
  std::int16_t number = 303;
  Variant reference = Variant::ByRef(&number);
  EXPECT_EQ(reference.type(), VarType::VT_I2 | VarType::VT_BYREF);
  EXPECT_EQ(Describe(reference), "&I2 303");
  AssignThrough(reference, Variant(u"12"));
  EXPECT_EQ(number, 12);
  Bstr text = u"before";
  AssignThrough(Variant::ByRef(&text), Variant(std::int32_t{5}));
  EXPECT_EQ(text, u"5");
  ArrayRef bytes;
  Variant byteReference = Variant::ByRef(VarType::VT_UI1, &bytes);
  EXPECT_EQ(Describe(byteReference), "&ARRAY(UI1) undimensioned");
  AssignThrough(byteReference,
                Variant(VarType::VT_UI1, MakeArray(std::vector<std::uint8_t>{1, 2})));
  ASSERT_TRUE(bytes);
  EXPECT_EQ(bytes->Count(), 2);
  EXPECT_EQ(FailureNumber([&] { AssignThrough(Variant(std::int32_t{1}), Variant()); }),
            static_cast<std::int32_t>(RunTimeError::kTypeMismatch));
}

}  // namespace
}  // namespace tabforge
