// The statement runner: failure modes, retry and continue by statement, tracking and depth.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>

#include "golden.h"
#include "probe.h"

namespace tabforge::testing {
namespace {

using Runner = ProbeTest;

// Each case of runner_flows.txt on an apartment of its own.
TEST(RunnerFlows, FailuresTakeTheFlowTheirModeAndAnswerSay) {
  for (const auto& c : ReadCases("tests/runner_flows.txt")) {
    const std::vector<std::string> fields = Fields(c.header);
    ASSERT_GE(fields.size(), 5u) << c.header;
    Apartment fresh;
    Probe run{fresh, {}};
    std::istringstream failures(fields[1]), answers(fields[2]);
    for (std::string failure; failures >> failure;) {
      const auto colon = failure.find(':'), star = failure.find('*');
      fresh.faults.FailAt(FromUtf8(failure.substr(0, colon)), std::stoi(failure.substr(colon + 1)),
                          star == std::string::npos ? 1 : std::stoi(failure.substr(star + 1)));
    }
    for (std::string answer; answers >> answer;) {
      if (answer == "failing-start")
        fresh.script->failInitialize = true;
      else if (answer.find_first_not_of("-0123456789") == std::string::npos)
        fresh.script->answers.push_back(std::stoi(answer));
      else
        fresh.script->answers.push_back(FromUtf8(answer));
    }
    std::istringstream calls(fields[0]);
    for (std::string call; calls >> call;) {
      if (call == "Loop")
        run.Loop();
      else if (call == "Early")
        run.Early();
      else if (call == "Children")
        run.Children();
      else if (call.starts_with("Branch"))
        run.Branch(call.back() == '+');
      else
        run.Modes(call.back() == '+');
    }
    EXPECT_EQ(run.trail, fields[3]) << c.header;
    EXPECT_EQ(std::to_string(fresh.script->CallsTo("vbwErrorHandler").size()), fields[4])
        << c.header;
    if (fields[4] == "0" && fields.size() == 5) {
      EXPECT_EQ(fresh.script->created, 0) << c.header;
    }
    EXPECT_EQ(fresh.protector.Depth(), 0) << c.header;
    EXPECT_FALSE(fresh.protector.ErrorComponent()) << c.header;
    if (fields.size() > 5) {
      EXPECT_EQ(fresh.script->Members(), fields[5]) << c.header;
    }
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
// Only the library's own time counts against the budget: a collaborator's is its own, whether it
// has returned or is still running while the library is called back.
TEST(CallBudget, CountsTheLibrarysOwnTimeAlone) {
  using std::chrono::milliseconds;
  CallBudget budget;
  budget.limits.maxOwnTime = milliseconds(200);
  const int base = 0;
  budget.Open(reinterpret_cast<std::uintptr_t>(&base));
  ASSERT_TRUE(budget.BeginCollaboratorCall());
  std::this_thread::sleep_for(milliseconds(250));
  EXPECT_FALSE(budget.Spent());  // asked from inside the collaborator
  budget.EndCollaboratorCall();
  EXPECT_FALSE(budget.Spent());
  std::this_thread::sleep_for(milliseconds(250));
  EXPECT_TRUE(budget.Spent());
  // The stack is the library's below the outermost procedure's frame; above it is the host's.
  const auto at = reinterpret_cast<std::uintptr_t>(&base);
  EXPECT_FALSE(budget.StackExhausted(at - budget.limits.maxStackBytes + 8, 8));
  EXPECT_TRUE(budget.StackExhausted(at - budget.limits.maxStackBytes - 16, 8));
  EXPECT_FALSE(budget.StackExhausted(at + 4096));
  budget.Close();
}

// Nested procedures, each noting how deep it came, until one is refused at entry.
void Deeper(Probe& probe, int level, int& deepest) {
  Run(probe.Trace(), kNest, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    TF_STEP(1) deepest = std::max(deepest, level);
    TF_STEP(2) if (level < 100000) {
      TF_STEP(3) Deeper(probe, level + 1, deepest);
    }
    TF_END
  });
}

// A host that has used most of its thread's stack before it calls leaves the library only what is
// left above the reserve, however far the bound below the first frame would reach: the nesting
// ends early, and its refusal is still reported.
TEST_F(Runner, TheStackBoundIsTheRoomTheThreadHasLeft) {
  apartment.protector.vbwTraceProc = kFalse;  // no depth bound of tracking's own
  int shallow = 0;
  const auto here = reinterpret_cast<std::uintptr_t>(&shallow);
  const CallBudgetLimits& limits = apartment.protector.budget.limits;
  apartment.platform.system.SetStackFloor(here - limits.stackReserveBytes - 32 * 1024);
  apartment.script->fallback = std::int32_t{7};
  Deeper(probe, 1, shallow);
  EXPECT_GT(shallow, 1);
  EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler"),
              ::testing::ElementsAre(::testing::HasSubstr("I4 28, BSTR \"Out of stack space\"")));

  apartment.platform.system.SetStackFloor(0);  // the thread's own floor, far below
  apartment.script->log.clear();
  int deep = 0;
  Deeper(probe, 1, deep);
  EXPECT_GT(deep, shallow * 4);
  EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler"), ::testing::SizeIs(1));
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

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
