// Finding the add-in's tab in the ribbon's accessibility tree and pressing it: the four waits, the
// ancestry rule that picks the entry, and the bounds that end a search which cannot succeed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "accessibility/accessible_tree.h"
#include "apartment.h"
#include "ribbon/main2.h"

namespace tabforge::testing {
namespace {

using ::testing::IsEmpty;
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
  Ref<AccessibleElement> Tree(const std::string& text) {
    ParsedTree tree = ParseAccessibleTree(text);
    EXPECT_EQ(tree.error, "") << "line " << tree.errorLine;
    return tree.root;
  }
  void Activate(const Ref<AccessibleElement>& commandBar) {
    main2.activateMorvelinTab(Ref<Object>(commandBar));
  }
  int passes() const { return apartment.platform.messages.passes(); }
  // The search ended without a press, a report or a tracked procedure left on the stack.
  void ExpectQuietEnd() {
    EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler"), IsEmpty());
    EXPECT_EQ(apartment.protector.Depth(), 0);
  }
};

// Each row: the product's name, the ribbon, the one element pressed ("role name", or nothing), and
// the passes the search waited. A search that cannot succeed ends at the attempt cap: five
// attempts with a pass between each two.
TEST_F(TabNavigation, PressesTheEntryThatTheAncestryRulePicksOrNothing) {
  struct Case {
    const char16_t* product;
    std::string tree;
    const char* pressed;
    int passes;
  };
  const std::string twoLeaves =
      "        37 \"Home\"\n        37 \"Morvelin\"\n          20 \"Inner\"\n"
      "            43 \"first leaf\"\n            43 \"second leaf\"\n";
  const Case cases[] = {
      {u"Morvelin", SampleRibbonText(u"Morvelin"), "37 Morvelin", 0},
      {u"Morvelin", SampleRibbonText(u"Someone Else"), "", 4},         // stage 4 finds no name
      {u"Morvelin", "22 \"Ribbon\"\n  10 \"nothing here\"\n", "", 4},  // stage 1 finds no page
      // Stage 3 never lists: a simple child of the client keeps the listing failing.
      {u"Morvelin", RibbonWith("        37 \"Morvelin\"\n        37 \"x\" simple\n"), "", 4},
      // An unnamed group above the tab equals the empty text it is compared with.
      {u"Morvelin", RibbonWith("        20 \"\"\n          37 \"Morvelin\"\n"), "37 Morvelin", 0},
      {u"", RibbonWith("        20 \"\"\n          37 \"\"\n"), "", 4},
      // A name on an ancestor selects the first listed leaf below it, also one named the same.
      {u"Morvelin", RibbonWith(twoLeaves), "43 first leaf", 0},
      {u"Morvelin", RibbonWith("        37 \"Morvelin\"\n          43 \"Morvelin\"\n"),
       "43 Morvelin", 0},
      // A failing parent ends the pass, so the entries after it are not reached.
      {u"Morvelin",
       RibbonWith("        37 \"Home\"\n          43 \"refuses\" fail=accParent\n"
                  "        37 \"Morvelin\"\n"),
       "", 4},
      {u"morvelin", RibbonWith("        37 \"Morvelin\"\n"), "", 4},  // case matters
  };
  for (const Case& c : cases) {
    Apartment fresh;
    Main2 tabs{fresh.protector};
    tabs.Initialize(nullptr, c.product);
    tabs.SetTabSearchLimits({.timeBudget = 2s, .maxAttemptsPerStage = 5, .walk = {}});
    auto ribbon = Tree(c.tree);
    tabs.activateMorvelinTab(Ref<Object>(ribbon));
    std::string pressed;
    ribbon->VisitAll([&](AccessibleElement& element) {
      if (element.presses() > 0)
        pressed += std::to_string(element.role()) + " " + ToUtf8(element.name());
    });
    const std::string row = "row " + std::to_string(&c - cases);
    EXPECT_EQ(pressed, c.pressed) << row;
    EXPECT_EQ(fresh.platform.messages.passes(), c.passes) << row;
    EXPECT_THAT(fresh.script->CallsTo("vbwErrorHandler"), IsEmpty()) << row;
    EXPECT_EQ(fresh.protector.Depth(), 0) << row;
  }
}

TEST_F(TabNavigation, CommandBarThatIsTheRibbonPageEndsStageOneAtOnce) {
  auto page = Tree(
      "38 \"Ribbon\"\n"
      "  60 \"Ribbon Tabs\"\n"
      "    10 \"\"\n"
      "      37 \"Morvelin\"\n");
  Activate(page);
  EXPECT_EQ(page->Find(u"Morvelin")->presses(), 1);
  EXPECT_EQ(page->Calls(u"accChildCount"), 0 + 1);  // only stage 2 lists its children
  ExpectQuietEnd();
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
  ExpectQuietEnd();
}

TEST_F(TabNavigation, TimeBudgetEndsAWaitLongBeforeTheAttemptCap) {
  main2.SetTabSearchLimits({.timeBudget = 30ms, .maxAttemptsPerStage = 1 << 30, .walk = {}});
  auto empty = Tree("22 \"Ribbon\"\n");
  const auto start = std::chrono::steady_clock::now();
  Activate(empty);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_GT(passes(), 0);
  ExpectQuietEnd();
}

TEST_F(TabNavigation, TreeThatLeadsBackEndsWithinTheBound) {
  // No page, and a group that leads back to the command bar: every attempt ends, none finds.
  auto looping = Tree("22 \"Ribbon\"\n  20 \"group\"\n    43 \"button\"\n");
  looping->Find(u"group")->AddLink(*looping);
  Activate(looping);
  EXPECT_EQ(passes(), 4);
  ExpectQuietEnd();

  // A loop inside the tab list costs only the subtree that leads back; the tab is still found.
  auto ribbon =
      Tree(RibbonWith("        37 \"Home\"\n          43 \"b\"\n        37 \"Morvelin\"\n"));
  ribbon->Find(u"Home")->AddLink(*ribbon->Find(u"Ribbon Tabs"));
  Activate(ribbon);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 1);
  ExpectQuietEnd();
}

TEST_F(TabNavigation, FailingPressGoesToTheErrorComponentAndLeavesQuietly) {
  auto ribbon = Tree(RibbonWith("        37 \"Morvelin\" fail=accDoDefaultAction\n"));
  Activate(ribbon);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 1);
  EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler"),
              ::testing::ElementsAre(::testing::HasSubstr(R"(BSTR "Main2", BSTR "clickWidget")")));
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

}  // namespace
}  // namespace tabforge::testing
