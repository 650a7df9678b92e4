// The role numbers of accessible elements that the library and its tools speak of, as the
// accessibility platform numbers them.
#pragma once

#include <cstdint>

namespace tabforge {

inline constexpr std::int32_t kRoleClient = 10;
inline constexpr std::int32_t kRoleGrouping = 20;
inline constexpr std::int32_t kRoleToolBar = 22;
inline constexpr std::int32_t kRolePageTab = 37;
inline constexpr std::int32_t kRolePropertyPage = 38;
inline constexpr std::int32_t kRoleGraphic = 40;
inline constexpr std::int32_t kRoleStaticText = 41;
inline constexpr std::int32_t kRolePushButton = 43;
inline constexpr std::int32_t kRolePageTabList = 60;

}  // namespace tabforge
