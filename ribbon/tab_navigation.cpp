// Bringing the add-in's tab to the front: find its element in the ribbon's accessibility tree by
// the product name and carry out the element's default action.
#include <limits>
#include <optional>

#include "accessibility/roles.h"
#include "platform/checked_access.h"
#include "platform/failure.h"
#include "ribbon/main2.h"
#include "ribbon/procedure_names.h"
#include "tracing/call_by_name.h"
#include "tracing/run.h"

namespace tabforge {

using namespace main2_procedures;
using tracing::Body;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

namespace {

// One search's share of the bounds: a deadline for all stages together and the attempts of the
// stage that is waiting.
class SearchBounds {
 public:
  explicit SearchBounds(const TabSearchLimits& limits)
      : deadline_(std::chrono::steady_clock::now() + limits.timeBudget),
        maxAttempts_(limits.maxAttemptsPerStage) {}

  void StartStage() noexcept { attempts_ = 0; }
  // Counts an attempt that did not succeed; true when the stage may not try again.
  bool GivesUp() noexcept {
    return quit_ || ++attempts_ >= maxAttempts_ || std::chrono::steady_clock::now() >= deadline_;
  }
  std::chrono::steady_clock::time_point Deadline() const noexcept { return deadline_; }
  // The host's thread is to end: no stage tries again.
  void Quit() noexcept { quit_ = true; }

 private:
  std::chrono::steady_clock::time_point deadline_;
  int maxAttempts_;
  int attempts_ = 0;
  bool quit_ = false;
};

// A listing's lowest index; a listing without entries has none.
std::int16_t LowestIndex(const ChildList& info) {
  if (info.Children.empty())
    Raise(RunTimeError::kSubscriptOutOfRange);
  return 0;
}

// A listing's highest index as the 16-bit index that walks it.
std::int16_t HighestIndex(const ChildList& info) {
  return tabforge::HighestIndex<std::int16_t>(info.Children.size());
}

// An element and the ancestors that its level says it has.
std::size_t AncestryLength(std::int32_t level) {
  if (level < 0)
    Raise(RunTimeError::kSubscriptOutOfRange);
  return static_cast<std::size_t>(level) + 1;
}

Variant AccName(const Ref<Object>& element) {
  return CallOnTree(element, u"accName", CallKind::kPropertyGet, kChildIdSelf);
}

// A Null name is neither equal to nor different from any text.
std::optional<Utf16String> ComparableName(const Ref<Object>& element) {
  const Variant name = AccName(element);
  if (name.Value().type() == VarType::VT_NULL)
    return std::nullopt;
  return ToBstr(name);
}

// The name is read once for each comparison, and both are made.
bool NamedAfterItselfOnly(const Ref<Object>& element, const Utf16String& ancestralName,
                          const Utf16String& tabName) {
  const auto own = ComparableName(element);
  const bool differsFromAbove = own && *own != ancestralName;
  const auto again = ComparableName(element);
  const bool isTabName = again && *again == tabName;
  return differsFromAbove && isTabName;
}

}  // namespace

void Main2::SetTabSearchLimits(const TabSearchLimits& limits) {
  tabSearchLimits_ = limits;
  accessibility_.SetWalkLimits(limits.walk);
}

void Main2::activateMorvelinTab(const Ref<Object>& RibbonCommandBar) {
  Ref<Object> MorvelinTab;
  Run(
      Trace(), kActivateMorvelinTab,
      [&](ParameterText& p) { p.Add(u"RibbonCommandBar", RibbonCommandBar); },
      [&](LocalReport& l) {
        l.Add(u"RibbonCommandBar", RibbonCommandBar);
        l.Add(u"MorvelinTab", MorvelinTab);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) MorvelinTab = getMorvelinTab(RibbonCommandBar);
        // A search that ran out of bounds found nothing; pressing nothing would only bother the
        // user with a failure report.
        TF_STEP(2) if (!MorvelinTab) {
          TF_STEP(3) return;
        }
        TF_STEP(4) clickWidget(MorvelinTab);
        TF_END
      });
}

void Main2::clickWidget(const Ref<Object>& widget) {
  Run(
      Trace(), kClickWidget, [&](ParameterText& p) { p.Add(u"widget", widget); },
      [&](LocalReport& l) { l.Add(u"widget", widget); },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) CallByName(widget, u"accDoDefaultAction", CallKind::kMethod, kChildIdSelf);
        TF_END
      });
}

// Four waits, each repeating its attempt with a message pass in between until it succeeds: the
// ribbon's tree fills in while the word processor runs its own messages. A wait that runs out of
// its bounds ends the search with nothing.
Ref<Object> Main2::getMorvelinTab(const Ref<Object>& RibbonCommandBar) {
  const Utf16String ribbonName(u"Ribbon");
  const Utf16String ribbonTabsName(u"Ribbon Tabs");
  SearchBounds bounds(tabSearchLimits_);
  Ref<Object> result;
  VariantBool isOK = kFalse;
  ChildList tabInfo;
  std::int16_t MorvelinTabIndex = 0;
  Ref<Object> RibbonPropPage;
  Ref<Object> PageTabListClient;
  // A message pass runs the host's code, and it may call back into the library.
  // A pass that finds the host's thread asked to quit leaves the request where it was and ends the
  // search at the stage's next look at its bounds.
  auto pass = [this, &bounds] {
    if (!protector_.platform().messages->PumpOnce(bounds.Deadline()))
      bounds.Quit();
  };
  Run(
      Trace(), kGetMorvelinTab,
      [&](ParameterText& p) { p.Add(u"RibbonCommandBar", RibbonCommandBar); },
      [&](LocalReport& l) {
        l.Add(u"isOK", isOK);
        l.AddRecord([&] {
          accessibility_.vbwReport_Accessibility_ChildList(Utf16String(u"tabInfo"), tabInfo);
        });
        l.Add(u"MorvelinTabIndex", MorvelinTabIndex);
        l.Add(u"RibbonCommandBar", RibbonCommandBar);
        l.Add(u"RibbonPropPage", RibbonPropPage);
        l.Add(u"PageTabListClient", PageTabListClient);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) bounds.StartStage();
        TF_STEP(2) do {
          TF_STEP(3)
          RibbonPropPage =
              accessibility_.GetAccessible(RibbonCommandBar, kRolePropertyPage, ribbonName, kFalse);
          TF_STEP(4) if (!RibbonPropPage) {
            TF_STEP(5) if (bounds.GivesUp()) {
              TF_STEP(6) return;
            }
            TF_LAST_IN_LOOP(7) pass();
          }
          TF_LOOP_END(7)
        }
        while (!RibbonPropPage)
          ;
        TF_STEP(8) bounds.StartStage();
        TF_STEP(9) do {
          TF_STEP(10)
          PageTabListClient =
              accessibility_.GetAccessible(RibbonPropPage, kRolePageTabList, ribbonTabsName, kTrue);
          TF_STEP(11) if (!PageTabListClient) {
            TF_STEP(12) if (bounds.GivesUp()) {
              TF_STEP(13) return;
            }
            TF_LAST_IN_LOOP(14) pass();
          }
          TF_LOOP_END(14)
        }
        while (!PageTabListClient)
          ;
        TF_STEP(15) bounds.StartStage();
        TF_STEP(16) do {
          TF_STEP(17) tabInfo = accessibility_.GetListOfChildren(PageTabListClient, kTrue, isOK);
          TF_STEP(18) if (!IsTrue(isOK)) {
            TF_STEP(19) if (bounds.GivesUp()) {
              TF_STEP(20) return;
            }
            TF_LAST_IN_LOOP(21) pass();
          }
          TF_LOOP_END(21)
        }
        while (!IsTrue(isOK))
          ;
        // The listing is not made again while the names are awaited: a tab renamed after it was
        // listed is still found under its new name.
        TF_STEP(22) bounds.StartStage();
        TF_STEP(23) do {
          TF_STEP(24) MorvelinTabIndex = TabIndex(tabInfo, mProductName);
          TF_STEP(25) if (MorvelinTabIndex == -1) {
            TF_STEP(26) if (bounds.GivesUp()) {
              TF_STEP(27) return;
            }
            TF_LAST_IN_LOOP(28) pass();
          }
          TF_LOOP_END(28)
        }
        while (MorvelinTabIndex == -1)
          ;
        TF_STEP(29) result = At(tabInfo.Children, MorvelinTabIndex);
        TF_END
      });
  return result;
}

std::int16_t Main2::TabIndex(const ChildList& Info, const Utf16String& tabName) {
  std::int16_t result = 0;
  std::int16_t ndxObject = 0;
  std::int16_t highestObject = -1;
  std::vector<Ref<Object>> Ancestry;
  std::int32_t ndxAncestry = 0;
  std::int32_t highestAncestry = -1;
  Utf16String AncestralName;
  Run(
      Trace(), kTabIndex,
      [&](ParameterText& p) {
        p.AddRecord(u"Info");
        p.Add(u"tabName", tabName);
      },
      [&](LocalReport& l) {
        l.AddRecord(
            [&] { accessibility_.vbwReport_Accessibility_ChildList(Utf16String(u"Info"), Info); });
        l.Add(u"tabName", tabName);
        l.Add(u"ndxObject", ndxObject);
        l.Add(u"ndxAncestry", ndxAncestry);
        l.Add(u"AncestralName", AncestralName);
        l.Add(u"Ancestry", Ancestry);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) result = -1;
        // Any entry that cannot be read ends this pass as "not found"; the caller tries again.
        TF_EXIT_ON_FAILURE(2)
        TF_STEP(3)
        for (ndxObject = LowestIndex(Info), highestObject = HighestIndex(Info);
             ndxObject <= highestObject; ndxObject = CheckedIncrement(ndxObject)) {
          TF_STEP(4) Ancestry.assign(AncestryLength(At(Info.Levels, ndxObject)), nullptr);
          TF_STEP(5) At(Ancestry, 0) = At(Info.Children, ndxObject);
          TF_STEP(6)
          for (ndxAncestry = 1, highestAncestry = static_cast<std::int32_t>(Ancestry.size()) - 1;
               ndxAncestry <= highestAncestry; ++ndxAncestry) {
            TF_LAST_IN_LOOP(7)
            At(Ancestry, ndxAncestry) = ToObject(
                CallOnTree(At(Ancestry, ndxAncestry - 1), u"accParent", CallKind::kPropertyGet));
            TF_LOOP_END(7)
          }
          // From the oldest ancestor down: the first element in the chain that carries the tab's
          // name, and not merely the name of the element above it, decides.
          TF_STEP(8) for (ndxAncestry = highestAncestry; ndxAncestry >= 0; --ndxAncestry) {
            TF_STEP(9) AncestralName = Utf16String();
            TF_STEP(10) if (ndxAncestry < highestAncestry) {
              TF_STEP(11)
              AncestralName = ToBstr(AccName(At(Ancestry, ndxAncestry + 1)));
            }
            TF_STEP(12)
            if (NamedAfterItselfOnly(At(Ancestry, ndxAncestry), AncestralName, tabName)) {
              TF_STEP(13) result = ndxObject;
              TF_LAST_IN_LOOP(14) return;
            }
            TF_LOOP_END(14)
          }
        }
        TF_END
      });
  return result;
}

}  // namespace tabforge
