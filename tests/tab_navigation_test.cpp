// Finding the add-in's tab in the ribbon's accessibility tree and pressing it: the four waits, the
// ancestry rule that picks the entry, and the bounds that end a search which cannot succeed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "accessibility/accessible_tree.h"
#include "apartment.h"
#include "golden.h"
#include "ribbon/main2.h"

namespace tabforge::testing {
namespace {

using namespace std::chrono_literals;

// The ribbon down to the page tab list's client, with `tabs` below the client at level 4.
std::string RibbonWith(const std::string& tabs) {
  return "22 \"Ribbon\"\n"
         "  38 \"Ribbon\"\n"
         "    60 \"Ribbon Tabs\"\n"
         "      10 \"\"\n" +
         tabs;
}

class TabNavigation : public ::testing::Test {
 protected:
  Apartment apartment;
  Main2 main2{apartment.protector};

  TabNavigation() {
    main2.Initialize(nullptr, u"Morvelin");
    main2.SetTabSearchLimits({.timeBudget = 2s, .maxAttemptsPerStage = 5, .walk = {}});
  }
  void Activate(const Ref<AccessibleElement>& commandBar) {
    main2.activateMorvelinTab(Ref<Object>(commandBar));
  }
  int passes() const { return apartment.platform.messages.passes(); }
};

// Each case of tab_search.txt on an apartment of its own: the one element pressed and how often,
// the passes the search waited, what reached the error component, and no procedure left.
TEST(TabSearch, PressesTheEntryThatTheAncestryRulePicksOrNothing) {
  const std::vector<Case> cases = ReadCases("tests/tab_search.txt");
  ASSERT_GE(cases.size(), 10u);
  for (const auto& [header, tree] : cases) {
    const std::vector<std::string> fields = Fields(header);  // product, pressed, passes[, told]
    ASSERT_GE(fields.size(), 3u) << header;
    Apartment fresh;
    Main2 tabs{fresh.protector};
    tabs.Initialize(nullptr, FromUtf8(fields[0]));
    tabs.SetTabSearchLimits({.timeBudget = 2s, .maxAttemptsPerStage = 5, .walk = {}});
    const auto ribbon = Tree(tree);
    tabs.activateMorvelinTab(Ref<Object>(ribbon));
    std::string pressed;
    ribbon->VisitAll([&](AccessibleElement& element) {
      if (element.presses() > 0)
        pressed += std::to_string(element.role()) + " " + ToUtf8(element.name()) +
                   std::string(element.presses() - 1, '+');
    });
    EXPECT_EQ(pressed, fields[1]) << header;
    EXPECT_EQ(std::to_string(fresh.platform.messages.passes()), fields[2]) << header;
    const auto told = fresh.script->CallsTo("vbwErrorHandler");
    EXPECT_EQ(told.size(), fields.size() > 3 ? 1u : 0u) << header;
    EXPECT_THAT(told, ::testing::Each(::testing::HasSubstr(fields.size() > 3 ? fields[3] : "")));
    EXPECT_EQ(fresh.protector.Depth(), 0) << header;
  }
}

TEST_F(TabNavigation, TabThatAppearsAfterSomePassesIsFoundAndPressed) {
  auto commandBar = MakeRef<AccessibleElement>(22, u"Ribbon");
  Ref<AccessibleElement> ribbon = Tree(SampleRibbonText(u"Morvelin"));
  apartment.platform.messages.OnEveryPass([&] {
    if (passes() == 3)
      commandBar->Add(Ref<AccessibleElement>(ribbon->Find(u"Ribbon Tabs")->parent()));
  });
  Activate(commandBar);
  EXPECT_EQ(passes(), 3);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 1);
  apartment.ExpectQuiet();
}

TEST_F(TabNavigation, TimeBudgetEndsAWaitLongBeforeTheAttemptCap) {
  main2.SetTabSearchLimits({.timeBudget = 30ms, .maxAttemptsPerStage = 1 << 30, .walk = {}});
  auto empty = Tree("22 \"Ribbon\"\n");
  const auto start = std::chrono::steady_clock::now();
  Activate(empty);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_GT(passes(), 0);
  apartment.ExpectQuiet();
}

// A word processor that is asked to quit while the search waits: the request stays for its own loop
// and the search ends at once, pressing nothing.
TEST_F(TabNavigation, AQuitRequestEndsTheSearch) {
  main2.SetTabSearchLimits({.timeBudget = 2s, .maxAttemptsPerStage = 1 << 30, .walk = {}});
  apartment.platform.messages.OnEveryPass([&] {
    if (passes() == 2)
      apartment.platform.messages.PostQuit();
  });
  auto empty = Tree("22 \"Ribbon\"\n");
  Activate(empty);
  EXPECT_EQ(passes(), 2);
  apartment.ExpectQuiet();
}

TEST_F(TabNavigation, TreeThatLeadsBackEndsWithinTheBound) {
  // No page, and a group that leads back to the command bar: every attempt ends, none finds.
  auto looping = Tree("22 \"Ribbon\"\n  20 \"group\"\n    43 \"button\"\n");
  looping->Find(u"group")->AddLink(*looping);
  Activate(looping);
  EXPECT_EQ(passes(), 4);
  apartment.ExpectQuiet();

  // A loop inside the tab list costs only the subtree that leads back; the tab is still found.
  auto ribbon =
      Tree(RibbonWith("        37 \"Home\"\n          43 \"b\"\n        37 \"Morvelin\"\n"));
  ribbon->Find(u"Home")->AddLink(*ribbon->Find(u"Ribbon Tabs"));
  Activate(ribbon);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 1);
  apartment.ExpectQuiet();
}

// The search's calls on the tree have a budget of their own, apart from the component's: a bound
// on the one does not cut the other short.
TEST_F(TabNavigation, TreeCallsHaveABudgetOfTheirOwn) {
  Ref<AccessibleElement> ribbon = Tree(SampleRibbonText(u"Morvelin"));
  apartment.protector.budget.limits.maxCollaboratorCalls = 3;
  Activate(ribbon);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 1);
  apartment.protector.budget.limits = {};
  apartment.protector.budget.limits.maxTreeCalls = 3;
  Activate(ribbon);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 1);  // the tree's spent budget pressed nothing
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

}  // namespace
}  // namespace tabforge::testing
