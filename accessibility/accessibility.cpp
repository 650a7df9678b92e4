#include "accessibility/accessibility.h"

#include <limits>
#include <unordered_map>

#include "platform/checked_access.h"
#include "platform/failure.h"
#include "tracing/call_by_name.h"
#include "tracing/run.h"

namespace tabforge {

using namespace accessibility_procedures;
using tracing::Body;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

namespace {

bool IsNull(const Variant& value) {
  return value.Value().type() == VarType::VT_NULL;
}

std::int32_t Role(const Ref<Object>& element) {
  return ToLong(CallOnTree(element, u"accRole", CallKind::kPropertyGet, kChildIdSelf));
}

std::int32_t State(const Ref<Object>& element) {
  return ToLong(CallOnTree(element, u"accState", CallKind::kPropertyGet, kChildIdSelf));
}

std::int32_t ChildCount(const Ref<Object>& element) {
  return ToLong(CallOnTree(element, u"accChildCount", CallKind::kPropertyGet));
}

// Role first, then name, both always read; a Null on either side is no match.
bool HasRoleAndName(const Ref<Object>& element, std::int32_t role, const Utf16String& name) {
  const Variant roleValue = CallOnTree(element, u"accRole", CallKind::kPropertyGet, kChildIdSelf);
  const bool sameRole = !IsNull(roleValue) && ToLong(roleValue) == role;
  const Variant nameValue = CallOnTree(element, u"accName", CallKind::kPropertyGet, kChildIdSelf);
  const bool sameName = !IsNull(nameValue) && ToBstr(nameValue) == name;
  return sameRole && sameName;
}

// The role is read once for each comparison, and both are made.
bool NeitherGraphicNorText(const Ref<Object>& child) {
  const bool notGraphic = Role(child) != kRoleGraphic;
  const bool notText = Role(child) != kRoleStaticText;
  return notGraphic && notText;
}

// The child count is read whether or not descendents are wanted.
bool ListedItself(VariantBool getDescendents, const Ref<Object>& child) {
  const bool childrenWanted = IsTrue(getDescendents);
  const bool childless = ChildCount(child) == 0;
  return !childrenWanted || childless;
}

}  // namespace

// The elements entered by one outermost search or listing, held so that an address cannot be
// reused by a new element while the walk still compares against it.
struct Accessibility::Walk {
  std::unordered_map<const Object*, Ref<Object>> entered;
  int depth = 0;
};

// Opens a walk on the outermost call and tracks how deep the current call is.
class Accessibility::WalkScope {
 public:
  explicit WalkScope(Accessibility& owner) : owner_(owner), outer_(owner.walk_) {
    if (outer_ == nullptr)
      owner_.walk_ = &own_;
    ++owner_.walk_->depth;
  }
  ~WalkScope() {
    --owner_.walk_->depth;
    if (outer_ == nullptr)
      owner_.walk_ = nullptr;
  }
  WalkScope(const WalkScope&) = delete;
  WalkScope& operator=(const WalkScope&) = delete;

 private:
  Accessibility& owner_;
  Walk* outer_;
  Walk own_;
};

tracing::Module Accessibility::Trace() const noexcept {
  return tracing::Module(protector_, *this);
}

// The module has no variables: its section of a dump is the banner alone.
void Accessibility::vbwReportModuleVariables() const {}

std::vector<Variant> Accessibility::ChildrenWithinBounds(const Ref<Object>& Element) {
  EnterElement(Element);
  return GetChildren(Element);
}

void Accessibility::EnterElement(const Ref<Object>& Element) {
  if (walk_ == nullptr || !Element)
    return;
  if (walk_->depth > limits_.maxDepth ||
      static_cast<int>(walk_->entered.size()) >= limits_.maxElements)
    Raise(RunTimeError::kOutOfMemory);
  if (!walk_->entered.try_emplace(Element.get(), Element).second)
    Raise(RunTimeError::kInvalidProcedureCall);
}

std::vector<Variant> Accessibility::GetChildren(const Ref<Object>& Element) {
  std::vector<Variant> ChildrenArray;
  std::int32_t NumChildren = 0;
  std::int32_t NumReturned = 0;
  Run(
      Trace(), kGetChildren, [&](ParameterText& p) { p.Add(u"Element", Element); },
      [&](LocalReport& l) {
        l.Add(u"NumChildren", NumChildren);
        l.Add(u"NumReturned", NumReturned);
        l.Add(u"ChildrenArray", ChildrenArray);
        l.Add(u"Element", Element);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) NumChildren = ChildCount(Element);
        TF_STEP(2) if (NumChildren > 0) {
          // The count is the element's word: more children than the outside call may still visit
          // are out of memory before anything is made for them.
          TF_STEP(3)
          if (const CallBudget* running = CallBudget::Active();
              running != nullptr && NumChildren > running->TreeCallsLeft()) {
            Raise(RunTimeError::kOutOfMemory);
          }
          ChildrenArray.assign(static_cast<std::size_t>(NumChildren), Variant());
          // The status and the count are not looked at: entries not filled stay empty.
          // The array is handed over by its entry 0 with room for every child; an array that was
          // never made has no entry 0.
          TF_STEP(4) if (ChildrenArray.size() < static_cast<std::size_t>(NumChildren)) {
            Raise(RunTimeError::kSubscriptOutOfRange);
          }
          protector_.platform().accessibility->AccessibleChildren(
              Element, 0, NumChildren, ChildrenArray.data(), &NumReturned);
        }
        TF_END
      });
  return ChildrenArray;
}

Ref<Object> Accessibility::GetAccessible(const Ref<Object>& Element, std::int32_t RoleWanted,
                                         const Utf16String& NameWanted, VariantBool GetClient) {
  WalkScope scope(*this);
  Ref<Object> result;
  std::vector<Variant> ChildrenArray;
  std::int32_t ndxChild = 0;
  std::int32_t highestChild = -1;
  Ref<Object> Child;
  Ref<Object> ReturnElement;
  Run(
      Trace(), kGetAccessible,
      [&](ParameterText& p) {
        p.Add(u"Element", Element);
        p.Add(u"RoleWanted", RoleWanted);
        p.Add(u"NameWanted", NameWanted);
        p.Add(u"GetClient", GetClient);
      },
      [&](LocalReport& l) {
        l.Add(u"RoleWanted", RoleWanted);
        l.Add(u"NameWanted", NameWanted);
        l.Add(u"GetClient", GetClient);
        l.Add(u"ChildrenArray", ChildrenArray);
        l.Add(u"ndxChild", ndxChild);
        l.Add(u"Element", Element);
        l.Add(u"Child", Child);
        l.Add(u"ReturnElement", ReturnElement);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        // A search never fails: what cannot be read is given up and the walk goes on.
        TF_PASS_OVER(1)
        TF_STEP(2) if (HasRoleAndName(Element, RoleWanted, NameWanted)) {
          TF_STEP(3) ReturnElement = Element;
        }
        else {
          TF_STEP(4) ChildrenArray = ChildrenWithinBounds(Element);
          TF_STEP(5) if (!ChildrenArray.empty()) {
            TF_STEP(6)
            for (ndxChild = 0, highestChild = HighestIndex<std::int32_t>(ChildrenArray.size());
                 ndxChild <= highestChild; ++ndxChild) {
              TF_STEP(7) if (HoldsObject(At(ChildrenArray, ndxChild))) {
                TF_STEP(8) Child = ToObject(At(ChildrenArray, ndxChild));
                TF_STEP(9) ReturnElement = GetAccessible(Child, RoleWanted, NameWanted, kFalse);
                TF_STEP(10) if (ReturnElement) {
                  TF_LAST_IN_LOOP(11) break;
                }
              }
              TF_LOOP_END(11)
            }
          }
        }
        TF_STEP(12) if (IsTrue(GetClient)) {
          TF_STEP(13)
          ReturnElement = ToObject(CallOnTree(ReturnElement, u"accNavigate", CallKind::kMethod,
                                              kNavDirFirstChild, kChildIdSelf));
        }
        TF_STEP(14) result = ReturnElement;
        TF_END
      });
  return result;
}

ChildList Accessibility::GetListOfChildren(const Ref<Object>& Parent, VariantBool GetDescendents,
                                           VariantBool& isOK) {
  WalkScope scope(*this);
  ChildList result;
  ChildList ChildInfo;
  std::int32_t ndxChild = 0;
  std::int32_t highestChild = -1;
  std::vector<Variant> LocalChildren;
  ChildList GrandChildInfo;
  std::int32_t ndxGrandChild = 0;
  std::int32_t highestGrandChild = -1;
  Ref<Object> Child;
  Ref<Object> GrandChild;
  auto report = [this](Utf16View name, const ChildList& list) {
    return [this, name, &list] { vbwReport_Accessibility_ChildList(Utf16String(name), list); };
  };
  Run(
      Trace(), kGetListOfChildren,
      [&](ParameterText& p) {
        p.Add(u"Parent", Parent);
        p.Add(u"GetDescendents", GetDescendents);
        p.Add(u"isOK", isOK);
      },
      [&](LocalReport& l) {
        l.Add(u"GetDescendents", GetDescendents);
        l.Add(u"isOK", isOK);
        l.AddRecord(report(u"ChildInfo", ChildInfo));
        l.Add(u"ndxChild", ndxChild);
        l.Add(u"LocalChildren", LocalChildren);
        l.AddRecord(report(u"GrandChildInfo", GrandChildInfo));
        l.Add(u"ndxGrandChild", ndxGrandChild);
        l.Add(u"Parent", Parent);
        l.Add(u"Child", Child);
        l.Add(u"GrandChild", GrandChild);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        // A listing that cannot be completed is no listing: it leaves with nothing and isOK as
        // it came in, and the caller decides whether to try again.
        TF_EXIT_ON_FAILURE(1)
        TF_STEP(2) LocalChildren = ChildrenWithinBounds(Parent);
        TF_STEP(3) if (!LocalChildren.empty()) {
          TF_STEP(4)
          for (ndxChild = 0, highestChild = HighestIndex<std::int32_t>(LocalChildren.size());
               ndxChild <= highestChild; ++ndxChild) {
            TF_STEP(5) Child = ToObject(At(LocalChildren, ndxChild));
            TF_STEP(6) if (NeitherGraphicNorText(Child)) {
              TF_STEP(7) if ((State(Child) & kStateHidden) == 0) {
                TF_STEP(8) if (ListedItself(GetDescendents, Child)) {
                  TF_STEP(9) AddChildToList(Child, ChildInfo);
                }
                else {
                  TF_STEP(10) {
                    VariantBool grandChildOK = kFalse;
                    GrandChildInfo = GetListOfChildren(Child, kTrue, grandChildOK);
                  }
                  TF_STEP(11) if (!GrandChildInfo.Children.empty()) {
                    TF_STEP(12)
                    for (ndxGrandChild = 0, highestGrandChild = HighestIndex<std::int32_t>(
                                                GrandChildInfo.Children.size());
                         ndxGrandChild <= highestGrandChild; ++ndxGrandChild) {
                      TF_STEP(13)
                      GrandChild = At(GrandChildInfo.Children, ndxGrandChild);
                      TF_STEP(14) AddChildToList(GrandChild, ChildInfo);
                      TF_LAST_IN_LOOP(15)
                      Last(ChildInfo.Levels) =
                          CheckedIncrement(At(GrandChildInfo.Levels, ndxGrandChild));
                      TF_LOOP_END(15)
                    }
                  }
                }
              }
            }
          }
        }
        TF_STEP(16) result = std::move(ChildInfo);
        TF_STEP(17) isOK = kTrue;
        TF_END
      });
  return result;
}

void Accessibility::AddChildToList(const Ref<Object>& Child, ChildList& ChildInfo) {
  Run(
      Trace(), kAddChildToList,
      [&](ParameterText& p) {
        p.Add(u"Child", Child);
        p.AddRecord(u"ChildInfo");
      },
      [&](LocalReport& l) {
        l.AddRecord(
            [&] { vbwReport_Accessibility_ChildList(Utf16String(u"ChildInfo"), ChildInfo); });
        l.Add(u"Child", Child);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (ChildInfo.Children.empty()) {
          TF_STEP(2) ChildInfo.Children.assign(1, nullptr);
          TF_STEP(3) ChildInfo.Levels.assign(1, 0);
        }
        else {
          TF_STEP(4) ChildInfo.Children.emplace_back();
          TF_STEP(5) ChildInfo.Levels.resize(ChildInfo.Children.size(), 0);
        }
        TF_STEP(6) Last(ChildInfo.Children) = Child;
        TF_STEP(7) if ((State(Child) & kStateSystemSelected) == kStateSystemSelected) {
          TF_STEP(8)
          ChildInfo.SelectedChild = HighestIndex<std::int32_t>(ChildInfo.Children.size());
        }
        TF_END
      });
}

void Accessibility::vbwReport_Accessibility_ChildList(const Utf16String& ignore,
                                                      const ChildList& ignoreChildList) {
  Run(
      Trace(), kReportChildList,
      [&](ParameterText& p) {
        p.Add(u"ignore", ignore);
        p.AddRecord(u"ignoreChildList");
      },
      [&](LocalReport& l) {
        l.Add(u"ignore", ignore);
        l.AddRecord([&] { vbwReport_Accessibility_ChildList(ignore, ignoreChildList); });
      },
      [](Body& body) {
        TF_BEGIN(body)
        TF_END
      });
}

}  // namespace tabforge
