// How the variables of a procedure become tagged values for parameter texts and dumps: each C++
// type maps to the tag of the variable's declared type.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "platform/variant.h"

namespace tabforge::tracing {

// An object reference that is reported without automation, under VT_UNKNOWN.
struct AsUnknown {
  Ref<Object> object;
};

inline Variant ToVariant(std::int16_t value) {
  return Variant(value);
}
inline Variant ToVariant(std::int32_t value) {
  return Variant(value);
}
inline Variant ToVariant(VariantBool value) {
  return Variant(value);
}
inline Variant ToVariant(const Utf16String& value) {
  return Variant(value);
}
inline Variant ToVariant(Utf16View value) {
  return Variant(value);
}
inline Variant ToVariant(const Variant& value) {
  return value;
}
inline Variant ToVariant(const AsUnknown& value) {
  return Variant::Unknown(value.object);
}
template <class T>
Variant ToVariant(const Ref<T>& value) {
  return Variant(Ref<Object>(value));
}

// Arrays: an empty dynamic array is one that was never dimensioned.
template <class T>
Variant ArrayVariant(VarType elementType, const std::vector<T>& elements) {
  return Variant(elementType, elements.empty() ? nullptr : MakeArray(elements));
}
inline Variant ToVariant(const std::vector<Utf16String>& value) {
  return ArrayVariant(VarType::VT_BSTR, value);
}
inline Variant ToVariant(const std::vector<Ref<Object>>& value) {
  return ArrayVariant(VarType::VT_DISPATCH, value);
}
inline Variant ToVariant(const std::vector<Variant>& value) {
  return ArrayVariant(VarType::VT_VARIANT, value);
}
inline Variant ToVariant(const std::vector<std::uint8_t>& value) {
  return ArrayVariant(VarType::VT_UI1, value);
}
template <std::size_t N>
Variant ToVariant(const std::array<std::int16_t, N>& value) {
  return Variant(VarType::VT_I2, MakeArray(std::vector<std::int16_t>(value.begin(), value.end())));
}
template <std::size_t N>
Variant ToVariant(const std::array<Utf16String, N>& value) {
  return Variant(VarType::VT_BSTR, MakeArray(std::vector<Utf16String>(value.begin(), value.end())));
}

}  // namespace tabforge::tracing
