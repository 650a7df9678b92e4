// The platform seam's value types: text, tagged values and their conversions.
#include <gtest/gtest.h>

#include <sstream>

#include "apartment.h"
#include "golden.h"
#include "platform/failure.h"
#include "platform/variant.h"
#include "ribbon/dictionary.h"
#include "tracing/runtime_objects.h"

namespace tabforge {
namespace {

using testing::FailureNumber;

// Each case of utf8.txt.
TEST(Text, ConvertsEachCaseOfTheTable) {
  for (const auto& c : testing::ReadCases("tests/utf8.txt")) {
    const std::vector<std::string> f = testing::Fields(c.header);  // units, bytes, way
    Utf16String utf16;
    std::string utf8;
    std::istringstream units(f[0]), bytes(f[1]);
    for (unsigned unit; units >> std::hex >> unit;)
      utf16 += static_cast<char16_t>(unit);
    for (unsigned byte; bytes >> std::hex >> byte;)
      utf8 += static_cast<char>(byte);
    EXPECT_TRUE(f[2] == "from-utf8" || ToUtf8(utf16) == utf8) << c.header;
    EXPECT_TRUE(f[2] == "to-utf8" || FromUtf8(utf8) == utf16) << c.header;
  }
  EXPECT_EQ(DecimalText(-2147483648LL), u"-2147483648");
  EXPECT_EQ(DecimalText(0), u"0");
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

// Each case of integers.txt.
TEST(Conversions, IntegerTextAcceptsOnlyPlainDecimals) {
  for (const auto& c : testing::ReadCases("tests/integers.txt")) {
    const std::vector<std::string> f = testing::Fields(c.header);  // [text], result
    std::int16_t value = 0;
    const std::int32_t failure =
        FailureNumber([&] { value = ParseInteger(FromUtf8(f[0].substr(1, f[0].size() - 2))); });
    EXPECT_EQ(failure != 0 ? "failure " + std::to_string(failure) : std::to_string(value), f[1])
        << c.header;
  }
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
