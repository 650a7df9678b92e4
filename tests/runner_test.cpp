// The statement runner: failure modes, retry and continue by statement, tracking and depth.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "probe.h"

namespace tabforge::testing {
namespace {

using ::testing::ElementsAre;

class Runner : public ::testing::Test {
 protected:
  Apartment apartment;
  Probe probe{apartment, {}};
};

// Each row: the probe called ("Branch+" is Branch(true)), the statements made to fail (procedure,
// step, times), the handler's answers, what ran and how often the handler was asked.
struct Failing {
  const char16_t* procedure;
  int step;
  int times = 1;
};
struct FlowCase {
  std::string call;
  std::vector<Failing> failures;
  std::vector<std::int32_t> answers;
  const char* trail;
  std::size_t handlerCalls;
};

TEST_F(Runner, FailuresTakeTheFlowTheirModeAndAnswerSay) {
  const FlowCase cases[] = {
      {"Branch+", {}, {}, "abc", 0},
      {"Branch-", {{u"Probe.Branch", 2}}, {5}, "abc", 1},  // continue runs the true branch
      {"Modes-", {{u"Probe.Modes", 3}}, {}, "abcd", 0},    // pass-over: the same, no handler
      // A continue or pass-over lands on the change of mode behind the failed statement: 1 is
      // answered "continue"; 3 is passed over into the branch; 6 leaves without the handler.
      {"Modes-", {{u"Probe.Modes", 1}, {u"Probe.Modes", 3}, {u"Probe.Modes", 6}}, {5}, "b", 1},
      {"Branch+", {{u"Probe.Branch", 3, 2}}, {4, 4}, "abc", 2},  // retry, twice
      // The head never ran: the body runs with what the loop variable held, then the loop goes on.
      {"Loop", {{u"Probe.Loop", 2}}, {5}, "x01y", 1},
      {"Modes+", {{u"Probe.Modes", 7}}, {}, "abc", 0},  // exit on failure, no handler
      {"Early", {}, {}, "1", 0},
      // Leave, and answers that are none of the known ones.
      {"Branch+", {{u"Probe.Branch", 3}}, {0}, "a", 1},
      {"Branch+", {{u"Probe.Branch", 3}}, {1}, "a", 1},
      {"Branch+", {{u"Probe.Branch", 3}}, {2}, "a", 1},
      {"Branch+", {{u"Probe.Branch", 3}}, {7}, "a", 1},
      {"Branch+", {{u"Probe.Branch", 3}}, {9}, "a", 1},
      {"Branch+", {{u"Probe.Branch", 3}}, {-3}, "a", 1},
  };
  for (const FlowCase& c : cases) {
    Apartment fresh;
    Probe run{fresh, {}};
    for (const Failing& f : c.failures)
      fresh.faults.FailAt(f.procedure, f.step, f.times);
    fresh.script->answers.assign(c.answers.begin(), c.answers.end());
    if (c.call == "Loop")
      run.Loop();
    else if (c.call == "Early")
      run.Early();
    else if (c.call.starts_with("Branch"))
      run.Branch(c.call.back() == '+');
    else
      run.Modes(c.call.back() == '+');
    const std::string row = "row " + std::to_string(&c - cases);
    EXPECT_EQ(run.trail, c.trail) << row;
    EXPECT_EQ(fresh.script->CallsTo("vbwErrorHandler").size(), c.handlerCalls) << row;
    if (c.handlerCalls == 0) {
      EXPECT_EQ(fresh.script->created, 0) << row;
    }
    EXPECT_EQ(fresh.protector.Depth(), 0) << row;
  }
}

// Retry is carried out as often as it is answered, until the outside call's budget is spent; then
// the procedure leaves.
TEST_F(Runner, RetryIsCarriedOutUntilTheBudgetIsSpent) {
  apartment.faults.FailAt(u"Probe.Branch", 1, /*times=*/300);
  apartment.script->answers.assign(300, std::int32_t{4});
  probe.Branch(true);
  EXPECT_EQ(apartment.faults.Visits(u"Probe.Branch", 1), 301);
  EXPECT_EQ(probe.trail, "abc");

  probe.trail.clear();
  apartment.faults.FailAt(u"Probe.Branch", 1, /*times=*/1'000'000);
  apartment.script->fallback = std::int32_t{4};
  probe.Branch(true);
  EXPECT_EQ(probe.trail, "");
  EXPECT_LE(apartment.script->log.size(),
            static_cast<std::size_t>(apartment.protector.budget.limits.maxCollaboratorCalls));
  // Each retry costs the handler's call and the failure's report: about two calls.
  EXPECT_GT(apartment.faults.Visits(u"Probe.Branch", 1),
            apartment.protector.budget.limits.maxCollaboratorCalls / 4);
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

// The stack keeps sixty-four names; deeper calls are counted and not stored, and a return at
// depth zero stays there.
TEST_F(Runner, TheStackNamesSixtyFourLevelsAndCountsTheRest) {
  int deepest = 0;
  probe.Nest(65, deepest);
  EXPECT_EQ(deepest, 65);
  EXPECT_EQ(apartment.protector.StackSlot(64), u"Probe.Nest");
  EXPECT_EQ(apartment.protector.StackSlot(1), u"Probe.Nest");  // names above the depth are kept
  EXPECT_EQ(apartment.protector.Depth(), 0);
  apartment.protector.vbwProcOut(u"Probe.Nest");
  EXPECT_EQ(apartment.protector.Depth(), 0);

  apartment.protector.vbwTraceProc = kFalse;  // nothing is tracked
  probe.Nest(3, deepest);
  EXPECT_EQ(deepest, 0);
}

TEST_F(Runner, RefusedEntryCountsNothingHoweverOftenRetried) {
  apartment.protector.limits.maxNestedProcedures = 2;
  apartment.script->answers = {std::int32_t{4}, std::int32_t{4}};
  int deepest = 0;
  probe.Nest(3, deepest);
  // The third level is refused at entry, retried twice, then left.
  EXPECT_EQ(apartment.script->CallsTo("vbwErrorHandler").size(), 3u);
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

// Parameter texts as the entries build them are in the sweep's golden table; here, the pieces
// that only a live component gives.
TEST_F(Runner, ParameterPiecesComeFromALiveComponentOnly) {
  apartment.protector.vbwTraceParameters = kTrue;
  tracing::ParameterText without(apartment.protector);
  without.Add(u"a", std::int32_t{1});
  without.Add(u"b", Utf16String(u"x"));
  EXPECT_EQ(std::move(without).Finish(), u"(, ) ");
  EXPECT_TRUE(apartment.script->log.empty());

  // Keep a component alive (an answer 8 does), then build a text while it is.
  apartment.faults.FailAt(u"Probe.Branch", 1);
  apartment.script->answers = {std::int32_t{8}};
  Utf16String text;
  apartment.script->onFailure = [&](std::span<Variant>) {
    if (!apartment.protector.ErrorComponent())
      return;
    tracing::ParameterText pieces(apartment.protector);
    pieces.Add(u"first", std::int32_t{1});
    text = std::move(pieces).Finish();
  };
  probe.Branch(true);
  EXPECT_EQ(text, u"(<first>) ");
}

}  // namespace
}  // namespace tabforge::testing
