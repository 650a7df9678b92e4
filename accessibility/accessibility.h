// The accessibility tree walker: a search for one element by role and name, and a listing of the
// elements below an element. Both walk accessible objects by member name and list children
// through the platform's AccessibleChildren.
//
// Bounds. A walk keeps the elements whose children it has listed; one that comes round again is
// not entered a second time, so a tree that leads back into itself ends. A walk also stops
// descending below `WalkLimits::maxDepth` levels and lists the children of at most
// `WalkLimits::maxElements` elements. Where a bound stops it, the search finds nothing below that
// point and the listing fails at that level, just as for an element that refuses to answer.
// Elements are told apart by object identity, so a platform that hands out a new object for the
// same element each time is kept in check by the depth and element bounds alone.
#pragma once

#include <cstdint>
#include <vector>

#include "accessibility/roles.h"
#include "platform/object.h"
#include "platform/variant.h"
#include "platform/variant_bool.h"
#include "tracing/procedure.h"
#include "tracing/vbw_protector.h"

namespace tabforge {

// A listing of accessible elements; `Children` and `Levels` always have the same length.
struct ChildList {
  std::vector<Ref<Object>> Children;
  // Generations below the direct children of the listed element: 0 for a direct child.
  std::vector<std::int32_t> Levels;
  // Index in `Children` of the last added element that was selected; 0 when none was.
  std::int32_t SelectedChild = 0;
};

namespace accessibility_procedures {

using tracing::DefineProcedure;

inline constexpr auto kGetAccessible = DefineProcedure(u"Accessibility.GetAccessible", 100);
inline constexpr auto kGetListOfChildren = DefineProcedure(u"Accessibility.GetListOfChildren", 200);
inline constexpr auto kAddChildToList = DefineProcedure(u"Accessibility.AddChildToList", 300);
inline constexpr auto kGetChildren = DefineProcedure(u"Accessibility.GetChildren", 400);
inline constexpr auto kReportChildList =
    DefineProcedure(u"Accessibility.vbwReport_Accessibility_ChildList", 500);

}  // namespace accessibility_procedures

inline constexpr std::int32_t kChildIdSelf = 0;
inline constexpr std::int32_t kNavDirFirstChild = 7;
inline constexpr std::int32_t kStateSystemSelected = 0x2;
// Unavailable (0x1) and invisible (0x8000): such an element is not listed.
inline constexpr std::int32_t kStateHidden = 0x8001;

struct WalkLimits {
  int maxDepth = 256;
  int maxElements = 100000;
};

class Accessibility {
 public:
  // Module procedures of the apartment whose tracing module `protector` is.
  explicit Accessibility(VbwProtector& protector) noexcept : protector_(protector) {}
  Accessibility(const Accessibility&) = delete;
  Accessibility& operator=(const Accessibility&) = delete;

  // The children of `Element` as tagged values: objects, child ids, or empty where fewer came.
  std::vector<Variant> GetChildren(const Ref<Object>& Element);
  // The first element, depth-first from `Element`, of that role and name; with `GetClient`, the
  // first child of what was found. Nothing when there is none.
  Ref<Object> GetAccessible(const Ref<Object>& Element, std::int32_t RoleWanted,
                            const Utf16String& NameWanted, VariantBool GetClient);
  // The visible, available children of `Parent` that are no graphic or static text; with
  // `GetDescendents`, the leaves below them instead. `isOK` is set to true only on success.
  ChildList GetListOfChildren(const Ref<Object>& Parent, VariantBool GetDescendents,
                              VariantBool& isOK);
  void AddChildToList(const Ref<Object>& Child, ChildList& ChildInfo);
  // A listing leaves nothing in a dump.
  void vbwReport_Accessibility_ChildList(const Utf16String& ignore,
                                         const ChildList& ignoreChildList);

  // The module has no variables: its report is the banner alone.
  void vbwReportModuleVariables() const;

  void SetWalkLimits(WalkLimits limits) noexcept { limits_ = limits; }

 private:
  class WalkScope;
  struct Walk;

  tracing::Module Trace() const noexcept;
  // Counts `Element` into the running walk; fails when a bound says not to enter it.
  void EnterElement(const Ref<Object>& Element);
  // The children of `Element`, or a failure without listing them when a bound says stop.
  std::vector<Variant> ChildrenWithinBounds(const Ref<Object>& Element);

  VbwProtector& protector_;
  WalkLimits limits_;
  Walk* walk_ = nullptr;
};

}  // namespace tabforge
