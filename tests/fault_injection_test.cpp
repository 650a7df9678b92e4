// Every public member of Main2, in each of its usual states, with each statement it runs made to
// fail in turn and answered with each handler result in turn. Whatever happens, the member returns,
// the depth is back where it was, and no component outlives the failure; what the component is told
// of each procedure (the failing lines and the dumps) is checked against a golden table. How the
// handler follows each answer is the handler tests' to check. The suite prints how many statements
// it reached of those that exist; a statement it could not reach is listed as a finding.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "accessibility/accessible_tree.h"
#include "apartment.h"
#include "doubles/recording_ribbon.h"
#include "doubles/recording_signaller.h"
#include "golden.h"
#include "ribbon/main2.h"
#include "tracing/call_by_name.h"

namespace tabforge::testing {
namespace {

using Statement = std::pair<std::u16string, int>;

// --- The statements that exist: every TF_STEP of every instrumented procedure of the core
// ---------------------

std::set<Statement> StatementsThatExist() {
  std::map<std::string, std::u16string> names;  // constant -> qualified name
  std::string all;
  for (const char* folder : {"ribbon", "accessibility", "pictures", "tracing"}) {
    for (const auto& file :
         std::filesystem::directory_iterator(std::filesystem::path(TABFORGE_SOURCE_DIR) / folder))
      all += ReadSource(std::string(folder) + "/" + file.path().filename().string()) + "\n";
  }
  const std::regex definition(R"((k\w+)\s*=\s*(?:tracing::)?DefineProcedure\(\s*u"([^"]+)\")");
  for (std::sregex_iterator it(all.begin(), all.end(), definition), end; it != end; ++it) {
    names[(*it)[1]] = FromUtf8((*it)[2].str());
  }
  std::set<Statement> statements;
  const std::regex run(R"(Run\(\s*\w+\(\),\s*(k\w+),)");
  const std::regex step(R"(TF_(?:STEP|LAST_IN_LOOP)\((\d+)\))");
  for (std::sregex_iterator it(all.begin(), all.end(), run), end; it != end; ++it) {
    const auto begin = all.find("TF_BEGIN", static_cast<std::size_t>(it->position()));
    const auto finish = all.find("TF_END", begin);
    const std::string body = all.substr(begin, finish - begin);
    for (std::sregex_iterator s(body.begin(), body.end(), step); s != end; ++s) {
      statements.emplace(names[(*it)[1]], std::stoi((*s)[1]));
    }
  }
  return statements;
}

// --- The members and their states ----------------------------------------------------------------

enum class State { kNew, kInitialized, kConnected };

struct Host {
  Apartment apartment;
  std::vector<std::string> log;
  Ref<RecordingRibbon> ribbon = MakeRef<RecordingRibbon>(&log);
  Ref<RecordingSignaller> signaller = MakeRef<RecordingSignaller>();
  Main2 main2{apartment.protector};

  explicit Host(State state) {
    const std::string png = ReadSource("tests/pictures/two-pixels.png");
    signaller->fallback =
        Variant(VarType::VT_UI1, MakeArray(std::vector<std::uint8_t>(png.begin(), png.end())));
    main2.SetTabSearchLimits(
        {.timeBudget = std::chrono::milliseconds(200), .maxAttemptsPerStage = 3, .walk = {}});
    if (state != State::kNew)
      main2.Initialize(signaller, u"Morvelin");
    if (state == State::kConnected)
      main2.ribbon(ribbon);
    apartment.faults.visits.clear();
    apartment.script->log.clear();
  }
};

void ExpectTruth(VariantBool value) {
  EXPECT_TRUE(value == kTrue || value == kFalse) << static_cast<int>(value);
}

void ExpectPictureOrNothing(const Ref<Object>& picture) {
  if (picture) {
    EXPECT_EQ(ToLong(CallByName(picture, u"Type", CallKind::kPropertyGet)), 1);
  }
}

// The members as fault_injection_members.txt gives them.
const std::vector<Case>& Members() {
  static const std::vector<Case> members = ReadCases("tests/fault_injection_members.txt");
  return members;
}

// Calls `member` as its case says, and checks that its result is one the member can give.
void Call(Host& host, const Case& member) {
  using A = const Utf16String&;
  static const std::map<std::string, std::function<void(Host&, A)>> calls = {
      {"Initialize", [](Host& h, A a) { h.main2.Initialize(h.signaller, a); }},
      {"ribbon", [](Host& h, A) { h.main2.ribbon(h.ribbon); }},
      {"GetRibbonXML", [](Host& h, A) { h.main2.GetRibbonXML(); }},
      {"productNameChanged", [](Host& h, A a) { h.main2.productNameChanged(a); }},
      {"GetLabel", [](Host& h, A a) { h.main2.GetLabel(a); }},
      {"GetEnabled", [](Host& h, A a) { ExpectTruth(h.main2.GetEnabled(a)); }},
      {"GetPressed", [](Host& h, A a) { ExpectTruth(h.main2.GetPressed(a)); }},
      {"GetScreentip", [](Host& h, A a) { h.main2.GetScreentip(a); }},
      {"GetImage", [](Host& h, A a) { ExpectPictureOrNothing(h.main2.GetImage(a)); }},
      {"LoadImage", [](Host& h, A a) { ExpectPictureOrNothing(h.main2.LoadImage(a)); }},
      {"RibbonCallback", [](Host& h, A a) { h.main2.RibbonCallback(a, kFalse); }},
      {"EnableGotoQuickBookmark",
       [](Host& h, A a) { h.main2.EnableGotoQuickBookmark(ToVariantBool(a == u"true")); }},
      {"UpdateLexoscopeIcon",
       [](Host& h, A a) { h.main2.UpdateLexoscopeIcon(ToVariantBool(a == u"true")); }},
      {"EnableToolbar", [](Host& h, A a) { h.main2.EnableToolbar(ToVariantBool(a == u"true")); }},
      {"vbwInitializeProtector",
       [](Host& h, A) { h.apartment.protector.vbwInitializeProtector(); }},
  };
  const std::vector<std::string> f = Fields(member.header);
  const std::string name = f[0].substr(0, f[0].find(' '));
  const Utf16String argument = FromUtf8(f[0].substr(std::min(f[0].find(' ') + 1, f[0].size())));
  const std::string setup = f.size() > 1 ? f[1] : "";
  if (setup == "traced")
    host.apartment.protector.vbwTraceParameters = kTrue;
  if (setup == "no memory")
    host.apartment.platform.pictures.failAllocations = true;
  if (setup.starts_with("bytes")) {
    std::istringstream numbers(setup.substr(5));
    std::vector<std::uint8_t> bytes;
    for (int byte; numbers >> byte;)
      bytes.push_back(static_cast<std::uint8_t>(byte));
    host.signaller->fallback =
        Variant(VarType::VT_UI1, setup == "bytes none" ? ArrayRef() : MakeArray(bytes));
  }
  if (name != "activateMorvelinTab")
    return calls.at(name)(host, argument);
  std::string trees = (member.body.empty() ? SampleRibbonText(argument) : member.body) + "--\n";
  for (auto end = trees.find("--\n"); end != std::string::npos; end = trees.find("--\n")) {
    host.main2.activateMorvelinTab(Tree(trees.substr(0, end)));
    trees.erase(0, end + 3);
  }
}

// --- The answers ---------------------------------------------------------------------------------

// The handler's answers in turn; none at all: no component can be created.
const std::vector<std::vector<std::int32_t>> kAnswers = {{},  {0}, {3},    {4, 5},   {5},
                                                         {6}, {7}, {8, 7}, {8, 8, 5}};

// --- What the component is told
// --------------------------------------------------------------------

// Per procedure, as the component names it: the line of each statement that failed, and the
// variables of every dump taken during it (locals | module | globals). Checked against
// fault_injection.golden, into which the procedures' locals and statement numbers were written.
struct Told {
  std::set<int> statements;  // every statement of the procedure: its number reaches a component
  std::set<int> lines;
  std::set<std::string> dumps;
};

// What the component was told of the injected failures, of `only` procedure if one is given.
void Record(const ComponentScript& script, std::map<std::string, Told>& told,
            const std::string& only = {}) {
  static const std::regex handler(
      R"re(^vbwErrorHandler\(I4 -?\d+, BSTR "injected", BSTR "[^"]*", BSTR "([^"]*)", )re"
      R"re(BSTR "([^"]*)", I4 (-?\d+),)re");
  const std::string report = R"(vbwReportVariable(BSTR ")";
  const auto& log = script.log;
  for (auto line = log.begin(); line != log.end(); ++line) {
    std::smatch m;
    if (!std::regex_search(*line, m, handler) ||
        (!only.empty() && only != m[1].str() + "." + m[2].str()))
      continue;
    Told& procedure = told[m[1].str() + "." + m[2].str()];
    procedure.lines.insert(std::stoi(m[3].str()));
    if (line + 1 == log.end() || line[1] != "vbwOpenDumpFile()")
      continue;
    // At the first statement the locals hold their starting values: those are told too.
    const bool first = std::stoi(m[3].str()) % 100 == 1;
    std::string names = first ? "starts" : "dump";
    int nested = 0;  // dumps of failures while this one is written
    int banners = 0;
    for (auto at = line + 2; at != log.end() && (nested > 0 || *at != "vbwCloseDumpFile()"); ++at) {
      if (*at == "vbwOpenDumpFile()" || *at == "vbwCloseDumpFile()") {
        nested += *at == "vbwOpenDumpFile()" ? 1 : -1;
      } else if (nested == 0 && at->rfind(report, 0) == 0) {
        const auto end = first && banners == 1 ? at->size() - 7 : at->find("\", ");
        // Appended piece by piece: GCC 12 at -O3 misreads `"literal" + std::string` as an overlap.
        names += ' ';
        names += std::regex_replace(at->substr(report.size(), end - report.size()),
                                    std::regex("\", "), "=");
        if (!at->ends_with(", I4 0)"))  // an indent other than none
          (names += '@') += at->substr(at->rfind(", ") + 2);
      } else if (nested == 0 && at->rfind("vbwReportToFile(", 0) == 0) {
        names += " |";
        ++banners;
      }
    }
    procedure.dumps.insert(names);
  }
}

void ExpectTold(const std::map<std::string, Told>& told) {
  std::string text;
  for (const auto& [procedure, facts] : told) {
    for (const auto& [label, numbers] :
         {std::pair{" statements", &facts.statements}, std::pair{" lines", &facts.lines}}) {
      if (numbers->empty())
        continue;
      text += procedure + label;
      for (int number : *numbers)
        (text += ' ') += std::to_string(number);
      text += "\n";
    }
    for (const auto& dump : facts.dumps)
      text += procedure + " " + dump + "\n";
  }
  ExpectGolden("tests/fault_injection.golden", text);
}

// --- The suite -----------------------------------------------------------------------------------

TEST(FaultInjection, EveryStatementOfEveryMemberFailsWithEveryAnswer) {
  const std::set<Statement> existing = StatementsThatExist();
  ASSERT_GT(existing.size(), 200u) << "the source scan found too few statements";
  std::set<Statement> covered;   // made to fail at least once
  std::set<Statement> handling;  // run at all, in any of the runs
  std::map<std::string, Told> told;
  int runs = 0;

  for (State state : {State::kNew, State::kInitialized, State::kConnected}) {
    for (const Case& member : Members()) {
      // Which statements does the member run, failure-free, in this state?
      std::set<Statement> reached;
      {
        Host host(state);
        Call(host, member);
        for (const auto& [name, step] : host.apartment.faults.visits)
          reached.emplace(name, step);
      }
      for (const Statement& target : reached) {
        for (const auto& answers : kAnswers) {
          Host host(state);
          if (answers.empty())
            host.apartment.platform.objects.Unregister(kErrorComponentProgId);
          host.apartment.script->answers.assign(answers.begin(), answers.end());
          host.apartment.faults.FailAt(target.first, target.second);
          const std::int16_t depth = host.apartment.protector.Depth();
          Call(host, member);
          ++runs;
          const std::string where =
              member.header + " state " + std::to_string(static_cast<int>(state)) + " failing " +
              ToUtf8(target.first) + " step " + std::to_string(target.second) + " answers " +
              ::testing::PrintToString(answers);
          EXPECT_EQ(host.apartment.protector.Depth(), depth) << where;
          EXPECT_FALSE(host.apartment.protector.ErrorComponent()) << where;
          // Only a failure in armed mode goes to the handler; the others are passed over or leave.
          const bool armed =
              !host.apartment.faults.injectedModes.empty() &&
              host.apartment.faults.injectedModes.front() == tracing::FailureMode::kArmed;
          Record(*host.apartment.script, told);
          if (armed && !answers.empty() && answers.front() == kIgnoreAlways) {
            EXPECT_FALSE(host.apartment.protector.RememberedErrors().empty()) << where;
          }
          covered.insert(target);
          for (const auto& [name, step] : host.apartment.faults.visits) {
            handling.insert({std::u16string(name), step});
          }
        }
        if (::testing::Test::HasFailure())
          return;  // one broken statement is enough to read
      }
    }
  }

  // Statements that run only while a failure is handled (the handler, the dump's reports) fail
  // in a second round, each during the handling of a failure of the first statement of GetEnabled.
  const Statement trigger{u"Main2.GetEnabled[Get]", 1};
  for (const Statement& target : handling) {
    if (covered.count(target))
      continue;
    for (const auto& answers : kAnswers) {
      if (answers.empty())
        continue;
      Host host(State::kConnected);
      host.apartment.script->answers.assign(answers.begin(), answers.end());
      host.apartment.faults.FailAt(trigger.first, trigger.second);
      host.apartment.faults.FailAt(target.first, target.second);
      ExpectTruth(host.main2.GetEnabled(u"MVN16"));
      ++runs;
      const std::string where = "GetEnabled failing " + ToUtf8(target.first) + " step " +
                                std::to_string(target.second) + " while handling, answers " +
                                ::testing::PrintToString(answers);
      EXPECT_EQ(host.apartment.protector.Depth(), 0) << where;
      EXPECT_FALSE(host.apartment.protector.ErrorComponent()) << where;
      Record(*host.apartment.script, told, ToUtf8(target.first));
      if (host.apartment.faults.Visits(target.first, target.second) > 0)
        covered.insert(target);
    }
    if (::testing::Test::HasFailure())
      return;
  }

  // What is left runs only when a failure comes back after the answer "ignore always": the same
  // failure twice, with the target failing on its first run in the second.
  for (const Statement& target : existing) {
    if (covered.count(target))
      continue;
    Host host(State::kConnected);
    host.apartment.script->answers = {std::int32_t{kIgnoreAlways}};
    host.apartment.faults.FailAt(trigger.first, trigger.second, /*times=*/2);
    ExpectTruth(host.main2.GetEnabled(u"MVN16"));
    host.apartment.faults.FailAt(target.first, target.second);
    ExpectTruth(host.main2.GetEnabled(u"MVN16"));
    runs += 2;
    EXPECT_EQ(host.apartment.protector.Depth(), 0) << ToUtf8(target.first) << " " << target.second;
    EXPECT_FALSE(host.apartment.protector.ErrorComponent());
    if (host.apartment.faults.injectedModes.size() == 3)
      covered.insert(target);
  }

  // With parameter tracing, every entry of every procedure fails, answered "dump" then "continue":
  // each dump shows the entered procedure's parameter text.
  for (const Case& member : Members()) {
    Host host(State::kConnected);
    host.apartment.protector.vbwTraceParameters = kTrue;
    host.apartment.faults.FailAt(u"vbwProtector.vbwProcIn", 1, /*times=*/1000);
    for (int i = 0; i < 1000; ++i)
      host.apartment.script->answers.insert(host.apartment.script->answers.end(), {8, 5});
    Call(host, member);
    EXPECT_EQ(host.apartment.protector.Depth(), 0) << member.header << " traced";
    Record(*host.apartment.script, told, "vbwProtector.vbwProcIn");
  }

  for (const auto& [procedure, step] : existing)
    told[ToUtf8(procedure)].statements.insert(step);
  ExpectTold(told);

  std::vector<std::string> unreached;
  int reachedThatExist = 0;
  for (const auto& statement : existing) {
    if (covered.count(statement)) {
      ++reachedThatExist;
    } else {
      unreached.push_back(ToUtf8(statement.first) + " step " + std::to_string(statement.second));
    }
  }
  std::printf("fault injection: %d runs; %d of %zu statements made to fail\n", runs,
              reachedThatExist, existing.size());
  for (const auto& finding : unreached)
    std::printf("  finding, never failed: %s\n", finding.c_str());
}

}  // namespace
}  // namespace tabforge::testing
