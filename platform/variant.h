// Tagged values: a value together with the automation tag of its type.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "platform/object.h"
#include "platform/utf16.h"
#include "platform/variant_bool.h"

namespace tabforge {

// The published numbering of automation tags, for the tags this system uses.
enum class VarType : std::uint16_t {
  VT_EMPTY = 0,
  VT_NULL = 1,
  VT_I2 = 2,
  VT_I4 = 3,
  VT_BSTR = 8,
  VT_DISPATCH = 9,
  VT_ERROR = 10,
  VT_BOOL = 11,
  VT_VARIANT = 12,
  VT_UNKNOWN = 13,
  VT_UI1 = 17,
  VT_ARRAY = 0x2000,
  VT_BYREF = 0x4000,
};

constexpr VarType operator|(VarType a, VarType b) {
  return static_cast<VarType>(static_cast<std::uint16_t>(a) | static_cast<std::uint16_t>(b));
}
// The tag without the array and reference bits.
constexpr VarType BaseType(VarType t) {
  return static_cast<VarType>(static_cast<std::uint16_t>(t) & 0x0FFF);
}
constexpr bool IsArrayType(VarType t) {
  return (static_cast<std::uint16_t>(t) & 0x2000) != 0;
}
constexpr bool IsByRefType(VarType t) {
  return (static_cast<std::uint16_t>(t) & 0x4000) != 0;
}
// The tag without the reference bit: what the value is, wherever it lives.
constexpr VarType ValueType(VarType t) {
  return static_cast<VarType>(static_cast<std::uint16_t>(t) & ~0x4000);
}

struct VariantArray;
using ArrayRef = std::shared_ptr<VariantArray>;

class Variant {
 public:
  Variant() = default;
  Variant(std::int16_t value) : type_(VarType::VT_I2), value_(std::int32_t{value}) {}  // NOLINT
  Variant(std::int32_t value) : type_(VarType::VT_I4), value_(value) {}                // NOLINT
  Variant(VariantBool value)                                                           // NOLINT
      : type_(VarType::VT_BOOL), value_(std::int32_t{static_cast<std::int16_t>(value)}) {}
  Variant(Utf16String value) : type_(VarType::VT_BSTR), value_(std::move(value)) {}  // NOLINT
  Variant(Utf16View value) : Variant(Utf16String(value)) {}                          // NOLINT
  Variant(const char16_t* value) : Variant(Utf16String(value)) {}                    // NOLINT
  Variant(Ref<Object> value)                                                         // NOLINT
      : type_(VarType::VT_DISPATCH), value_(std::move(value)) {}
  // An array; `array` may be empty for an array that was never dimensioned.
  Variant(VarType elementType, ArrayRef array)
      : type_(VarType::VT_ARRAY | elementType), value_(std::move(array)) {}

  static Variant Null();
  static Variant Byte(std::uint8_t value);
  static Variant Unknown(Ref<Object> value);

  // References to the caller's variables. The variable must outlive the call it is passed to.
  static Variant ByRef(std::int16_t* target) { return {VarType::VT_I2, target, ByRefTag{}}; }
  static Variant ByRef(std::int32_t* target) { return {VarType::VT_I4, target, ByRefTag{}}; }
  static Variant ByRef(VariantBool* target) { return {VarType::VT_BOOL, target, ByRefTag{}}; }
  static Variant ByRef(Utf16String* target) { return {VarType::VT_BSTR, target, ByRefTag{}}; }
  static Variant ByRef(Ref<Object>* target) { return {VarType::VT_DISPATCH, target, ByRefTag{}}; }
  static Variant ByRef(Variant* target) { return {VarType::VT_VARIANT, target, ByRefTag{}}; }
  static Variant ByRef(VarType elementType, ArrayRef* target) {
    return {VarType::VT_ARRAY | elementType, target, ByRefTag{}};
  }

  VarType type() const { return type_; }
  bool IsByRef() const { return IsByRefType(type_); }

  // The value, looked up through a reference if this is one.
  Variant Value() const;

  // The raw contents for a tag that matches; each throws `Failure` (type mismatch) otherwise.
  std::int32_t Number() const;  // VT_I2, VT_I4, VT_BOOL, VT_UI1, VT_ERROR
  const Utf16String& String() const;
  const Ref<Object>& ObjectRef() const;
  const ArrayRef& Array() const;

  // The variable a reference points at, when the reference has exactly that type; else null.
  std::int16_t* RefI2() const { return Target<std::int16_t>(VarType::VT_I2); }
  std::int32_t* RefI4() const { return Target<std::int32_t>(VarType::VT_I4); }
  VariantBool* RefBool() const { return Target<VariantBool>(VarType::VT_BOOL); }
  Utf16String* RefString() const { return Target<Utf16String>(VarType::VT_BSTR); }
  Ref<Object>* RefObject() const { return Target<Ref<Object>>(VarType::VT_DISPATCH); }
  Variant* RefVariant() const { return Target<Variant>(VarType::VT_VARIANT); }
  ArrayRef* RefArray() const {
    return IsByRef() && IsArrayType(type_) ? static_cast<ArrayRef*>(std::get<void*>(value_))
                                           : nullptr;
  }

  friend bool operator==(const Variant& a, const Variant& b);

 private:
  struct ByRefTag {};
  Variant(VarType target, void* pointer, ByRefTag)
      : type_(target | VarType::VT_BYREF), value_(pointer) {}
  template <class T>
  T* Target(VarType base) const {
    return type_ == (base | VarType::VT_BYREF) ? static_cast<T*>(std::get<void*>(value_)) : nullptr;
  }

  VarType type_ = VarType::VT_EMPTY;
  std::variant<std::monostate, std::int32_t, Utf16String, Ref<Object>, ArrayRef, void*> value_;
};

// A one-dimensional automation array. Elements are kept in the vector that suits their tag.
struct VariantArray {
  using Elements =
      std::variant<std::vector<std::int16_t>, std::vector<std::int32_t>, std::vector<Utf16String>,
                   std::vector<Ref<Object>>, std::vector<Variant>, std::vector<std::uint8_t>>;

  std::int32_t lowerBound = 0;
  Elements elements;

  VarType ElementType() const;
  std::int64_t Count() const;
  std::int64_t UpperBound() const { return lowerBound + Count() - 1; }
};

template <class T>
ArrayRef MakeArray(std::vector<T> elements, std::int32_t lowerBound = 0) {
  return std::make_shared<VariantArray>(VariantArray{lowerBound, std::move(elements)});
}

// Conversions with the run time's rules. Each throws `Failure` when the value cannot be converted:
// type mismatch, overflow, or invalid use of Null.
std::int32_t ToLong(const Variant& value);
std::int16_t ToInteger(const Variant& value);
Utf16String ToBstr(const Variant& value);
VariantBool ToVariantBool(const Variant& value);
// An object reference; a value that holds no object reference is "object required".
Ref<Object> ToObject(const Variant& value);
bool HoldsObject(const Variant& value);

// Whole numbers in text: blanks around, an optional sign, decimal digits. Anything else is a type
// mismatch; a number outside the range is an overflow.
std::int32_t ParseLong(Utf16View text);
std::int16_t ParseInteger(Utf16View text);

// Writes `value` into the variable that `reference` points at, converted to that variable's type.
void AssignThrough(const Variant& reference, const Variant& value);

// A short, stable text for logs and test expectations, such as `I2 303` or `BSTR "Run"`.
std::string Describe(const Variant& value);

}  // namespace tabforge
