// The seams charge the budget: every call that the core makes on the platform's collaborators
// through the tracing module's copy of the platform, and every invalidation of the ribbon that
// Main2 keeps, counts against the running outside call, and a spent budget refuses the call before
// the collaborator sees it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "apartment.h"
#include "doubles/recording_ribbon.h"
#include "tracing/call_budget.h"
#include "tracing/counted_platform.h"

namespace tabforge::testing {
namespace {

using ::testing::ElementsAre;

constexpr auto kRefused = static_cast<std::int32_t>(RunTimeError::kCannotPerformOperation);

// An outside call in progress on the apartment: its budget is open for the test's length.
struct OpenCall {
  Apartment apartment;
  CallBudget::Scope call{&apartment.protector.budget, TABFORGE_STACK_HERE(), nullptr};
  const Platform& platform() { return apartment.protector.platform(); }
};

TEST(CountedPlatform, EachMessagePassIsACollaboratorCall) {
  OpenCall open;
  open.apartment.protector.budget.limits.maxCollaboratorCalls = 2;
  const auto later = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  EXPECT_TRUE(open.platform().messages->PumpOnce(later));
  EXPECT_TRUE(open.platform().messages->PumpOnce(later));
  EXPECT_EQ(FailureNumber([&] { open.platform().messages->PumpOnce(later); }), kRefused);
  EXPECT_EQ(open.apartment.platform.messages.passes(), 2);
}

TEST(CountedPlatform, EachCreationIsACollaboratorCall) {
  OpenCall open;
  open.apartment.protector.budget.limits.maxCollaboratorCalls = 1;
  EXPECT_TRUE(open.platform().objects->CreateObject(kErrorComponentProgId));
  EXPECT_EQ(FailureNumber([&] { open.platform().objects->CreateObject(kErrorComponentProgId); }),
            kRefused);
}

// Listing children is a call on the tree, counted with the tree's calls and not with the others;
// the mark is for that one call, so a message pass after it is an ordinary call.
TEST(CountedPlatform, ListingChildrenIsATreeCall) {
  OpenCall open;
  CallBudget& budget = open.apartment.protector.budget;
  budget.limits.maxCollaboratorCalls = 1;
  budget.limits.maxTreeCalls = 2;
  const auto root = Tree(
      "22 \"bar\"\n"
      "  43 \"leaf\"\n");
  const auto list = [&] {
    Variant child;
    std::int32_t obtained = 0;
    open.platform().accessibility->AccessibleChildren(Ref<Object>(root), 0, 1, &child, &obtained);
    return obtained;
  };
  EXPECT_EQ(list(), 1);
  EXPECT_EQ(budget.TreeCallsLeft(), 1);
  EXPECT_EQ(list(), 1);
  EXPECT_EQ(budget.TreeCallsLeft(), 0);
  EXPECT_TRUE(open.platform().messages->PumpOnce(std::chrono::steady_clock::now()));
  EXPECT_EQ(FailureNumber(list), kRefused);
  EXPECT_EQ(root->Calls(kPortableChildrenMember), 2);
}

TEST(CountedRibbon, InvalidationsAreChargedAndCallsByNameGoThrough) {
  std::vector<std::string> log;
  OpenCall open;
  open.apartment.protector.budget.limits.maxCollaboratorCalls = 2;
  auto real = MakeRef<RecordingRibbon>(&log);
  CountedRibbonUi ribbon(real);
  ribbon.Invalidate();
  ribbon.InvalidateControl(u"id7");
  EXPECT_EQ(FailureNumber([&] { ribbon.InvalidateControl(u"id8"); }), kRefused);
  EXPECT_EQ(FailureNumber([&] { ribbon.Invalidate(); }), kRefused);
  // A call by name is passed on uncharged: the recording ribbon's own answer, not the refusal.
  EXPECT_EQ(FailureNumber([&] { ribbon.Invoke(u"Invalidate", CallKind::kMethod, {}); }),
            static_cast<std::int32_t>(RunTimeError::kMemberNotFound));
  EXPECT_THAT(log, ElementsAre("ribbon.Invalidate", "ribbon.InvalidateControl id7"));
  EXPECT_EQ(ribbon.real(), Ref<RibbonUi>(real));
}

// The ribbon that Main2 keeps is the counting one: within one outside call, an invalidation past
// the budget never reaches the host's ribbon.
TEST(CountedRibbon, Main2KeepsItsRibbonBehindTheCount) {
  std::vector<std::string> log;
  OpenCall open;
  Main2 main2(open.apartment.protector);
  main2.Initialize(nullptr, u"Morvelin");
  main2.ribbon(MakeRef<RecordingRibbon>(&log));
  open.apartment.protector.budget.limits.maxCollaboratorCalls = 1;
  main2.EnableGotoQuickBookmark(kTrue);
  main2.UpdateLexoscopeIcon(kTrue);
  main2.EnableToolbar(kFalse);
  EXPECT_EQ(log.size(), 1u);
}

}  // namespace
}  // namespace tabforge::testing
