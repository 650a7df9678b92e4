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

TEST_F(TabNavigation, PressesTheProductsTabOnTheSampleRibbonWithoutWaiting) {
  auto ribbon = Tree(SampleRibbonText(u"Morvelin"));
  Activate(ribbon);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 1);
  EXPECT_EQ(ribbon->Find(u"Home")->presses(), 0);
  EXPECT_EQ(passes(), 0);
  ExpectQuietEnd();
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

TEST_F(TabNavigation, SearchThatCannotSucceedEndsAtTheAttemptCapWithNothingPressed) {
  // Stage 1 never finds the page: five attempts, with a pass between each two.
  auto empty = Tree("22 \"Ribbon\"\n  10 \"nothing here\"\n");
  Activate(empty);
  EXPECT_EQ(passes(), 4);
  ExpectQuietEnd();

  // Stage 4 never finds the product's name among the tabs.
  auto ribbon = Tree(SampleRibbonText(u"Someone Else"));
  Activate(ribbon);
  EXPECT_EQ(passes(), 4 + 4);
  EXPECT_EQ(ribbon->Find(u"Someone Else")->presses(), 0);
  EXPECT_EQ(ribbon->Find(u"Home")->presses(), 0);
  ExpectQuietEnd();

  // Stage 3 never lists: a simple child of the client keeps the listing failing.
  auto simple = Tree(RibbonWith("        37 \"Morvelin\"\n        37 \"x\" simple\n"));
  Activate(simple);
  EXPECT_EQ(passes(), 4 + 4 + 4);
  EXPECT_EQ(simple->Find(u"Morvelin")->presses(), 0);
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

TEST_F(TabNavigation, NameOnAnAncestorSelectsTheFirstLeafBelowIt) {
  auto ribbon =
      Tree(RibbonWith("        37 \"Home\"\n"
                      "        37 \"Morvelin\"\n"
                      "          20 \"Inner\"\n"
                      "            43 \"first leaf\"\n"
                      "            43 \"second leaf\"\n"));
  Activate(ribbon);
  // The listed leaf two levels below the named tab is what gets pressed.
  EXPECT_EQ(ribbon->Find(u"first leaf")->presses(), 1);
  EXPECT_EQ(ribbon->Find(u"second leaf")->presses(), 0);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 0);
  // The level-0 entry before it read no parent; the leaf read one for each level.
  EXPECT_EQ(ribbon->Find(u"Home")->Calls(u"accParent"), 0);
  EXPECT_EQ(ribbon->Find(u"first leaf")->Calls(u"accParent"), 1);
  EXPECT_EQ(ribbon->Find(u"Inner")->Calls(u"accParent"), 1);
  ExpectQuietEnd();
}

TEST_F(TabNavigation, UnnamedOrEquallyNamedAncestorsArePassedOver) {
  // An unnamed group above a tab equals the empty text it is compared with; the tab below it
  // still qualifies by its own name.
  auto unnamed = Tree(RibbonWith("        20 \"\"\n          37 \"Morvelin\"\n"));
  Activate(unnamed);
  EXPECT_EQ(unnamed->Find(u"Morvelin")->presses(), 1);

  // An empty product name finds nothing even though unnamed elements are listed.
  main2.Initialize(nullptr, u"");
  auto blank = Tree(RibbonWith("        20 \"\"\n          37 \"\"\n"));
  Activate(blank);
  EXPECT_EQ(blank->Find(u"")->presses(), 0);
  ExpectQuietEnd();

  // A leaf named like its parent is found through the parent, and the leaf is pressed.
  main2.Initialize(nullptr, u"Morvelin");
  auto twice = Tree(RibbonWith(""));
  AccessibleElement& tab = twice->Find(u"")->Add(kRolePageTab, u"Morvelin");
  AccessibleElement& leaf = tab.Add(kRolePushButton, u"Morvelin");
  Activate(twice);
  EXPECT_EQ(leaf.presses(), 1);
  EXPECT_EQ(tab.presses(), 0);
  ExpectQuietEnd();
}

TEST_F(TabNavigation, FailingParentEndsThePassSoLaterEntriesAreNotReached) {
  auto ribbon =
      Tree(RibbonWith("        37 \"Home\"\n"
                      "          43 \"refuses\" fail=accParent\n"
                      "        37 \"Morvelin\"\n"));
  Activate(ribbon);
  EXPECT_EQ(ribbon->Find(u"Morvelin")->presses(), 0);
  EXPECT_EQ(ribbon->Find(u"refuses")->Calls(u"accParent"), 5);
  ExpectQuietEnd();

  // Case matters in the product name.
  main2.Initialize(nullptr, u"morvelin");
  auto cased = Tree(RibbonWith("        37 \"Morvelin\"\n"));
  Activate(cased);
  EXPECT_EQ(cased->Find(u"Morvelin")->presses(), 0);
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
