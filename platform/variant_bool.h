// The 16-bit truth value of the automation boundary.
#pragma once

#include <cstdint>

namespace tabforge {

// True is -1 (all bits set) and false is 0. A distinct type, so that a truth value never passes
// for a 16-bit integer when it is reported under its tag.
enum class VariantBool : std::int16_t {};

inline constexpr VariantBool kTrue{-1};
inline constexpr VariantBool kFalse{0};

constexpr VariantBool ToVariantBool(bool value) {
  return value ? kTrue : kFalse;
}

// Any non-zero value counts as true, as a condition does on the boundary.
constexpr bool IsTrue(VariantBool value) {
  return value != kFalse;
}

}  // namespace tabforge
