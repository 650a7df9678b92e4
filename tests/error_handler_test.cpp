// The failure handler, the error component's life, the dump sequence, and the bounds that keep a
// misbehaving component from hanging the host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "doubles/recording_ribbon.h"
#include "probe.h"
#include "ribbon/main2.h"

namespace tabforge::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::SizeIs;

using Handler = ProbeTest;

TEST_F(Handler, NumberMinusOneKeepsThePreviousKey) {
  apartment.protector.vbwErrorHandler(5, u"d", u"Tabforge", u"Main2", u"P", 12);
  const Utf16String key = apartment.protector.LastError();
  apartment.protector.vbwErrorHandler(-1, u"d", u"Tabforge", u"Other", u"P", 99);
  EXPECT_EQ(apartment.protector.LastError(), key);
}

TEST_F(Handler, WithoutComponentEveryFailureLeavesAndTriesCreationAgain) {
  int attempts = 0;
  apartment.platform.objects.Register(Utf16String(kErrorComponentProgId), [&]() -> Ref<Object> {
    ++attempts;
    Raise(RunTimeError::kCannotCreateObject);
  });
  apartment.faults.FailAt(u"Probe.Children", 1, 2);
  probe.Children();
  probe.Children();
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(probe.trail, "");
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

TEST_F(Handler, ComponentChangesSwitchesAndTheStackThroughTheirReferences) {
  script.onInitialize = [](std::span<Variant> switches) {
    AssignThrough(switches[0], Variant(kFalse));  // vbwCatchException
    AssignThrough(switches[1], Variant(kTrue));   // vbwTraceLine
  };
  script.onFailure = [](std::span<Variant> arguments) {
    AssignThrough(arguments[6], Variant(std::int16_t{2}));  // mStackCalls
    std::get<std::vector<Utf16String>>((*arguments[7].RefArray())->elements)[4] = u"Changed";
  };
  apartment.protector.vbwErrorHandler(5, u"d", u"Tabforge", u"M", u"P", 1);
  EXPECT_EQ(apartment.protector.vbwCatchException, kFalse);
  EXPECT_EQ(apartment.protector.vbwTraceLine, kTrue);
  EXPECT_EQ(apartment.protector.Depth(), 2);
  EXPECT_EQ(apartment.protector.StackSlot(5), u"Changed");

  // An erased stack stores no names until the apartment starts again.
  script.onFailure = [](std::span<Variant> arguments) { *arguments[7].RefArray() = nullptr; };
  apartment.protector.vbwErrorHandler(5, u"d", u"Tabforge", u"M", u"P", 2);
  EXPECT_FALSE(apartment.protector.StackAllocated());
}

// Inside the budget of one outside call every answer is carried out: more dumps than any bound
// per failure would allow, each after the first reporting the failure as numbered -1, and failures
// nested in failures, each asked.
TEST_F(Handler, EveryAnswerIsCarriedOutWithinTheBudget) {
  apartment.faults.FailAt(u"Probe.Children", 1, 1, 440);
  script.answers.assign(6, std::int32_t{8});
  probe.Children();
  EXPECT_THAT(script.CallsTo("vbwOpenDumpFile"), SizeIs(6));
  // The first dump tells the failure's number and every later one -1.
  const auto first = std::ranges::find_if(script.objects, [](auto& o) { return o[0] == 'E'; });
  ASSERT_NE(first, script.objects.end());
  EXPECT_EQ(*first, "Err 440 701 Tabforge");
  EXPECT_THAT(script.objects, Contains("Err -1 701 Tabforge").Times(5));

  script.log.clear();
  script.failOpenDump = true;
  script.answers.assign(7, std::int32_t{8});
  apartment.faults.FailAt(u"Probe.Children", 1, 1, 440);
  probe.Children();
  std::vector<std::string> numbers;
  for (const auto& line : script.CallsTo("vbwErrorHandler"))
    numbers.push_back(line.substr(19, line.find(',') - 19));
  numbers.resize(8);
  // The failing opening of each dump nests one level deeper, and the eighth level is asked too.
  EXPECT_THAT(numbers, ElementsAre("440", "75", "75", "75", "75", "75", "75", "75"));
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

// A component that dumps for ever, also while every opening fails (a tree of nested dumps that
// grows with every level), costs one outside call its budget and no more; the component is let go
// and the next outside call has a budget of its own.
TEST_F(Handler, DumpingForEverEndsWithTheBudget) {
  const auto limit =
      static_cast<std::size_t>(apartment.protector.budget.limits.maxCollaboratorCalls);
  script.fallback = std::int32_t{8};
  for (const bool failOpening : {false, true}) {
    script.log.clear();
    script.failOpenDump = failOpening;
    apartment.faults.FailAt(u"Probe.Children", 1);
    probe.Children();
    EXPECT_LE(script.log.size(), limit) << failOpening;
    EXPECT_GT(script.CallsTo("vbwOpenDumpFile").size(), 20u) << failOpening;
    EXPECT_EQ(probe.trail, "");
    EXPECT_FALSE(apartment.protector.ErrorComponent());
    EXPECT_EQ(apartment.protector.Depth(), 0);
  }
  script.log.clear();
  script.fallback = std::int32_t{7};
  apartment.faults.FailAt(u"Probe.Other", 1);
  probe.Other();
  EXPECT_THAT(script.CallsTo("vbwErrorHandler"), SizeIs(1));

  // The library's own time is bounded as well: with none to spend, a failure asks nobody.
  script.log.clear();
  apartment.protector.budget.limits.maxOwnTime = std::chrono::milliseconds(-1);
  apartment.faults.FailAt(u"Probe.Other", 1);
  probe.Other();
  EXPECT_THAT(script.log, SizeIs(0));
}

// Dumps nested in failures may go as deep as the stack lets them. Once the budget is spent, no
// level asks anything more while it unwinds: no report is made and none of the run time's objects,
// whose printer is a question to the spooler on a real machine.
TEST_F(Handler, ASpentBudgetLeavesTheRestOfEveryNestedDumpOut) {
  script.fallback = std::int32_t{8};
  script.failOpenDump = true;
  const PortableSystemFacts& system = apartment.platform.system;
  int questionsAtLastAnswer = 0;
  script.onFailure = [&](std::span<Variant>) { questionsAtLastAnswer = system.printerQuestions(); };
  apartment.faults.FailAt(u"Probe.Children", 1);
  probe.Children();
  EXPECT_GT(questionsAtLastAnswer, 100) << "the dumps nested deep before the budget ran out";
  // The one dump whose global section had begun when the last answer came may still finish it.
  EXPECT_LE(system.printerQuestions() - questionsAtLastAnswer, 1);
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

TEST_F(Handler, FailedOpeningThatLeavesDoesNotEndTheDump) {
  apartment.faults.FailAt(u"Probe.Children", 1, 1, 440);
  script.failOpenDump = true;
  script.answers = {std::int32_t{8}, std::int32_t{7}};
  probe.Children();
  // The opening's answer let the component go; the dump step goes on with its next call, and each
  // call that needs the component fails and tells a new one, the close last.
  std::vector<std::string> told;
  const std::regex procedure(R"re(BSTR "vbwProtector", BSTR "([^"]*)")re");
  for (const auto& line : script.CallsTo("vbwErrorHandler"))
    if (std::smatch m; std::regex_search(line, m, procedure))
      told.push_back(m[1]);
  EXPECT_THAT(told, ElementsAre("vbwOpenDumpFile", "vbwReportToFile", "vbwReportToFile",
                                "vbwReportToFile", "vbwReportObject", "vbwReportObject",
                                "vbwReportObject", "vbwReportObject", "vbwCloseDumpFile"));
  EXPECT_EQ(script.log.back().rfind("vbwErrorHandler(I4 -1,", 0), 0u);
  EXPECT_FALSE(apartment.protector.ErrorComponent());
}

TEST_F(Handler, NestedFailureThatEmptiesTheComponentDoesNotBreakTheOuterCall) {
  apartment.faults.FailAt(u"Probe.Children", 1);
  int nested = 0;
  script.onFailure = [&](std::span<Variant>) {
    if (nested++ > 0)
      return;
    apartment.faults.FailAt(u"Probe.Other", 1);
    probe.Other();  // fails, is answered, and empties the shared field
  };
  script.answers = {std::int32_t{7}, std::int32_t{5}};
  probe.Children();
  // The nested failure took answer 7 and the outer one got 5 from a component that the outer
  // call still held.
  EXPECT_EQ(probe.trail, "2");
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

// A dump that the spent budget cuts off while it is written is still closed: every opening that
// reached the component gets its close, however the budget ran out, and the closes too stay
// within the calls that the budget allows on the component.
TEST_F(Handler, EveryOpenedDumpIsClosedWhenTheBudgetRunsOut) {
  for (const int limit : {12, 41, 200}) {
    script.log.clear();
    script.created = 0;
    apartment.protector.budget.limits.maxCollaboratorCalls = limit;
    script.fallback = std::int32_t{8};
    apartment.faults.FailAt(u"Probe.Children", 1);
    probe.Children();
    const std::size_t opened = script.CallsTo("vbwOpenDumpFile").size();
    EXPECT_GT(opened, 0u) << limit;
    EXPECT_EQ(script.CallsTo("vbwCloseDumpFile").size(), opened) << limit;
    // Each creation of the component is a call on it too.
    EXPECT_LE(script.log.size() + static_cast<std::size_t>(script.created),
              static_cast<std::size_t>(limit))
        << limit;
    EXPECT_EQ(apartment.protector.Depth(), 0);
  }
}

// Calls from outside that arrive while the component runs (the host repainting the ribbon while
// the component's dialog is up) have bounds of their own and leave the failure that waits its own:
// after as many invalidations as one call may make, the dump and the answer after it still come.
// The whole stays bounded: a host that never stops calls no collaborator past the nested share.
TEST_F(Handler, CallsFromOutsideWhileTheComponentRunsHaveBoundsOfTheirOwn) {
  std::vector<std::string> ribbonLog;
  Main2 main2(apartment.protector);
  main2.Initialize(nullptr, u"Morvelin");
  main2.ribbon(MakeRef<RecordingRibbon>(&ribbonLog));
  const int limit = apartment.protector.budget.limits.maxCollaboratorCalls;
  int hostCalls = limit;
  bool first = true;
  script.onFailure = [&](std::span<Variant>) {
    if (!std::exchange(first, false))
      return;
    for (int i = 0; i < hostCalls; ++i)
      main2.EnableToolbar(i % 2 == 0 ? kFalse : kTrue);
  };
  script.answers = {std::int32_t{8}, std::int32_t{5}};
  apartment.faults.FailAt(u"Probe.Children", 1);
  probe.Children();
  EXPECT_EQ(ribbonLog.size(), static_cast<std::size_t>(limit));
  EXPECT_THAT(script.CallsTo("vbwOpenDumpFile"), SizeIs(1));
  EXPECT_THAT(script.CallsTo("vbwCloseDumpFile"), SizeIs(1));
  EXPECT_THAT(script.CallsTo("vbwErrorHandler"), SizeIs(2));
  EXPECT_EQ(probe.trail, "2");

  ribbonLog.clear();
  script.log.clear();
  first = true;
  hostCalls = limit * apartment.protector.budget.limits.nestedShare * 2;
  script.answers = {std::int32_t{5}};
  apartment.faults.FailAt(u"Probe.Children", 1);
  probe.Children();
  const auto whole =
      static_cast<std::size_t>(limit * apartment.protector.budget.limits.nestedShare);
  EXPECT_LE(ribbonLog.size(), whole);
  EXPECT_GT(ribbonLog.size(), whole - 10);
  EXPECT_EQ(apartment.protector.Depth(), 0);

  // The error component's calls are the one share that nesting does not widen: a component that,
  // while it answers, lets three more calls from outside fail and retry for ever gets no more of
  // them than one call may make, in the whole.
  script.log.clear();
  bool inside = false;
  script.onFailure = [&](std::span<Variant>) {
    if (std::exchange(inside, true))
      return;
    for (int i = 0; i < 3; ++i) {
      apartment.faults.FailAt(u"Probe.Other", 1, 1'000'000);
      probe.Other();
    }
  };
  script.fallback = std::int32_t{4};
  apartment.faults.FailAt(u"Probe.Children", 1);
  probe.Children();
  EXPECT_LE(script.log.size(), static_cast<std::size_t>(limit));
  EXPECT_GT(script.log.size(), static_cast<std::size_t>(limit) / 2);
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

// The dump's objects describe the failure being handled and the project.
TEST_F(Handler, ErrObjectDescribesTheFailureBeingHandled) {
  apartment.faults.FailAt(u"Probe.Children", 2, 1, 91);
  script.answers = {std::int32_t{8}, std::int32_t{7}};
  probe.Children();
  EXPECT_THAT(script.objects, ElementsAre("VB.App Tabforge 1.0", "Err 91 702 Tabforge"));
}

}  // namespace
}  // namespace tabforge::testing
