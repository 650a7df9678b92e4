// The platform seam's value types: text, tagged values and their conversions.
#include <gtest/gtest.h>

#include "apartment.h"
#include "platform/failure.h"
#include "platform/variant.h"
#include "ribbon/dictionary.h"
#include "tracing/runtime_objects.h"

namespace tabforge {
namespace {

using testing::FailureNumber;

TEST(Text, Utf8RoundTripAndReplacement) {
  EXPECT_EQ(ToUtf8(FromUtf8("Morvelin é 𝄞")), "Morvelin é 𝄞");
  EXPECT_EQ(FromUtf8("\xC3"), u"\uFFFD");
  EXPECT_EQ(FromUtf8("\xE0\x80\xAF"), u"\uFFFD\uFFFD\uFFFD");  // overlong form
  EXPECT_EQ(ToUtf8(Utf16String(1, u'\xD800')), "\xEF\xBF\xBD");
  EXPECT_EQ(DecimalText(-2147483648LL), u"-2147483648");
  EXPECT_EQ(DecimalText(0), u"0");
}

TEST(Text, EveryEncodedLengthsEdgeConvertsBothWays) {
  const std::pair<Utf16String, std::string> both[] = {
      {u"\x7F", "\x7F"},
      {u"\x80", "\xC2\x80"},
      {u"\x7FF", "\xDF\xBF"},
      {u"\x800", "\xE0\xA0\x80"},
      {u"\xFFFF", "\xEF\xBF\xBF"},
      {u"\xD800\xDC00", "\xF0\x90\x80\x80"},
      {u"\xDBFF\xDFFF", "\xF4\x8F\xBF\xBF"},
  };
  for (const auto& [utf16, utf8] : both) {
    EXPECT_EQ(ToUtf8(utf16), utf8);
    EXPECT_EQ(FromUtf8(utf8), utf16) << utf8;
  }
  // Surrogates that make no pair, and UTF-8 past U+10FFFF, overlong or cut short: each unit
  // that cannot be read is one replacement.
  EXPECT_EQ(ToUtf8(u"\xDC00\xD800"
                   u"A\xDBFF\xE000"),
            "\xEF\xBF\xBD\xEF\xBF\xBD"
            "A\xEF\xBF\xBD\xEE\x80\x80");
  for (const char* bad :
       {"\xF4\x90\x80\x80", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80\x80", "\xC1\xBF\xE0\xA0"})
    EXPECT_EQ(FromUtf8(bad), Utf16String(4, u'\xFFFD')) << bad;
}

// Names and text compared without case fold A to Z and nothing beside them.
TEST(Text, CaseIsIgnoredFromAToZOnly) {
  const auto properties = MakeRef<PropertyObject>(std::vector<std::pair<Utf16String, Variant>>{
      {u"AZaz", std::int32_t{1}}, {u"@[", std::int32_t{2}}});
  for (const char16_t* name : {u"AZaz", u"azAZ", u"aZAz"})
    EXPECT_EQ(ToLong(properties->Invoke(name, CallKind::kPropertyGet, {})), 1);
  for (const char16_t* name : {u"`{", u"@{", u"`["})
    EXPECT_EQ(FailureNumber([&] { properties->Invoke(name, CallKind::kPropertyGet, {}); }), 438);
  Variant argument = std::int32_t{1};  // a property takes no argument
  EXPECT_EQ(FailureNumber([&] {
              properties->Invoke(u"AZaz", CallKind::kPropertyGet, {&argument, 1});
            }),
            438);
}

TEST(Dictionary, KeepsKeysInTheOrderOfAddingAndRefusesASecondAdd) {
  const auto table = MakeRef<Dictionary>();
  auto call = [&](const char16_t* member, std::vector<Variant> arguments) {
    return table->Invoke(member, CallKind::kMethod, arguments);
  };
  call(u"Add", {std::int32_t{4}, Variant(u"four")});
  call(u"Add", {std::int32_t{1}, Variant(u"one")});
  EXPECT_EQ(FailureNumber([&] { call(u"Add", {std::int32_t{4}, Variant(u"again")}); }), 457);
  EXPECT_EQ(ToBstr(call(u"Item", {std::int32_t{4}})), u"four");
  EXPECT_EQ(ToVariantBool(call(u"Exists", {std::int32_t{9}})), kFalse);
  EXPECT_EQ(ToVariantBool(call(u"Exists", {std::int32_t{1}})), kTrue);
  EXPECT_EQ(ToBstr(call(u"Item", {std::int32_t{9}})), u"");  // reading adds the key
  EXPECT_EQ(ToLong(call(u"Count", {})), 3);
  EXPECT_EQ(Describe(call(u"Keys", {})), "ARRAY(VARIANT) 3");
  EXPECT_EQ(table->Keys(), (std::vector<std::int32_t>{4, 1, 9}));
  EXPECT_EQ(FailureNumber([&] { call(u"Remove", {std::int32_t{4}}); }), 438);
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
  EXPECT_NE(Variant(std::int32_t{1}), Variant(std::int16_t{1}));  // the tag is part of the value
  EXPECT_EQ(ToLong(Variant(kTrue)), -1);
  EXPECT_EQ(ToBstr(Variant(kTrue)), u"True");
  EXPECT_EQ(ToVariantBool(Variant(u"True")), kTrue);
  EXPECT_EQ(ToVariantBool(Variant(u"False")), kFalse);
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
  Utf16String text = u"before";
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
