// The flight log: its line format, rotation at the bound, several processes writing at once, a
// folder that cannot be written, the events that the core notes, and reading a start back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "apartment.h"
#include "doubles/recording_ribbon.h"
#include "doubles/recording_signaller.h"
#include "golden.h"
#include "platform/flight_events.h"
#include "platform/flight_log.h"
#include "platform/portable/posix_log_folder.h"

namespace tabforge::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

flight::Stamp FixedStamp() {
  using namespace std::chrono;
  const auto time =
      sys_days{year{2026} / 11 / 25} + hours{22} + minutes{15} + seconds{3} + milliseconds{123};
  return {time_point_cast<system_clock::duration>(time), 1234, 5678};
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

// A fresh folder under the system's temporary folder, removed with the test.
struct TemporaryFolder {
  fs::path path;
  TemporaryFolder() {
    std::string pattern = (fs::temp_directory_path() / "tabforge-log-XXXXXX").string();
    path = ::mkdtemp(pattern.data());
  }
  ~TemporaryFolder() { fs::remove_all(path); }
};

// --- The line ------------------------------------------------------------------------------

TEST(FlightLine, StampEventAndFieldsInOrder) {
  const flight::Field fields[] = {{"ms", "31"}, {"path", "C:\\Program Files\\Tabforge.dll"}};
  EXPECT_EQ(flight::FormatLine(FixedStamp(), "loaded", fields),
            "2026-11-25T22:15:03.123Z 1234 5678 loaded ms=31 "
            "path=\"C:\\\\Program Files\\\\Tabforge.dll\"");
}

TEST(FlightLine, NoValueCanBreakTheLineOrForgeAField) {
  const std::string hostile = "two\nlines\r\tand \"quotes\" x=1 \x01\x7F end\\";
  const flight::Field fields[] = {{"description", hostile}, {"empty", ""}, {"utf8", "Größe"}};
  const std::string line = flight::FormatLine(FixedStamp(), "failure", fields);
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_EQ(line.find('\r'), std::string::npos);
  EXPECT_THAT(line, HasSubstr("\\x01\\x7F"));
  const auto event = flight::ParseLine(line);
  ASSERT_TRUE(event.has_value());
  EXPECT_EQ(event->name, "failure");
  EXPECT_EQ(event->process, 1234u);
  EXPECT_EQ(event->thread, 5678u);
  EXPECT_EQ(event->Value("description"), hostile);
  EXPECT_EQ(event->Value("empty"), "");
  EXPECT_EQ(event->Value("utf8"), "Größe");
  EXPECT_EQ(event->Value("x"), std::nullopt);
  EXPECT_EQ(event->fields.size(), 3u);
}

TEST(FlightLine, WhatIsNotALineIsNone) {
  for (const char* text :
       {"", "garbage", "2026-11-25T22:15:03.123Z 12 34", "2026-11-25T22:15:03.123Z x 34 loaded",
        "2026-11-25T22:15:03.123Z 12 34 failure description=\"cut short",
        "2026-11-25T22:15:03.123Z 12 34 failure novalue", "2026-11-25 12 34 loaded",
        "2026-11-25T22:15:03.123Z 12 34 failure d=\"\\q\""}) {
    EXPECT_EQ(flight::ParseLine(text), std::nullopt) << text;
  }
}

// --- Rotation and quiet failure, with a folder that logs what it is asked -----------------------

struct RecordingFolder final : flight::LogFolder {
  std::vector<std::string> calls;
  std::int64_t size = 0;
  bool lockFails = false;
  bool appendFails = false;
  std::optional<std::uintptr_t> Lock() override {
    calls.push_back("lock");
    if (lockFails)
      return std::nullopt;
    return 0xdeadbeef;
  }
  void Unlock(std::uintptr_t held) override {
    calls.push_back(held == 0xdeadbeef ? "unlock" : "unlock of something never locked");
  }
  std::int64_t CurrentSize() override {
    calls.push_back("size");
    return size;
  }
  bool Append(std::string_view bytes) override {
    calls.push_back("append " + std::to_string(bytes.size()));
    if (appendFails)
      return false;
    size += static_cast<std::int64_t>(bytes.size());
    return true;
  }
  std::optional<bool> AppendWithin(std::string_view bytes, std::int64_t limit) override {
    calls.push_back("append within " + std::to_string(limit));
    if (appendFails)
      return std::nullopt;
    if (size + static_cast<std::int64_t>(bytes.size()) > limit)
      return false;
    size += static_cast<std::int64_t>(bytes.size());
    return true;
  }
  bool Rotate() override {
    calls.push_back("rotate");
    size = 0;
    return true;
  }
};

TEST(RotatingLog, NearTheBoundSizeIsReadUnderTheLockAndTheFileRotatesBeforeItWouldPassIt) {
  RecordingFolder folder;
  flight::RotatingLog log(folder, {.maxBytes = 80});
  EXPECT_TRUE(log.Write(std::string(63, 'a')));  // 64 bytes: far from the bound, no lock
  EXPECT_TRUE(log.Write("123456"));              // 71: past 80 less an eighth, under the lock
  EXPECT_TRUE(log.Write("abcdefgh"));            // 80: exactly the bound
  EXPECT_TRUE(log.Write("x"));                   // would be 82: rotate first
  EXPECT_TRUE(log.Write(std::string(80, 'z')));  // 81 bytes alone: never written
  EXPECT_THAT(folder.calls,
              ElementsAre("append within 70", "append within 70", "lock", "size", "append 7",
                          "unlock", "append within 70", "lock", "size", "append 9", "unlock",
                          "append within 70", "lock", "size", "rotate", "append 2", "unlock",
                          "append within 70", "lock", "size", "rotate", "unlock"));
}

TEST(RotatingLog, AFolderThatFailsIsTriedOnceAndNeverAgain) {
  for (const bool lockFails : {true, false}) {
    RecordingFolder folder;
    folder.lockFails = lockFails;
    folder.appendFails = !lockFails;
    folder.size = lockFails ? 100 : 0;  // a lock is only asked for near the bound
    flight::RotatingLog log(folder, {.maxBytes = 100});
    EXPECT_FALSE(log.Write("first"));
    EXPECT_TRUE(log.Broken());
    const std::size_t calls = folder.calls.size();
    EXPECT_FALSE(log.Write("second"));
    EXPECT_EQ(folder.calls.size(), calls) << "a broken log touched the folder again";
  }
}

// --- The POSIX folder ----------------------------------------------------------------------------

// The lines of the older file then the current one in `dir`, each file within `bound`, and no
// third file.
std::vector<std::string> BoundedLines(const fs::path& dir, std::int64_t bound) {
  std::vector<std::string> lines;
  for (const char* name : {"tabforge.log.1", "tabforge.log"}) {
    EXPECT_TRUE(fs::exists(dir / name)) << name;
    if (!fs::exists(dir / name))
      continue;
    EXPECT_LE(fs::file_size(dir / name), static_cast<std::uintmax_t>(bound)) << name;
    for (const std::string& line : Lines(ReadFile(dir / name)))
      lines.push_back(line);
  }
  EXPECT_FALSE(fs::exists(dir / "tabforge.log.2"));
  return lines;
}

TEST(PosixLogFolder, KeepsOneOlderFileAndNeitherPassesTheBound) {
  TemporaryFolder dir;
  PosixLogFolder folder(dir.path.string(), "tabforge");
  constexpr std::int64_t kBound = 4096;
  flight::RotatingLog log(folder, {.maxBytes = kBound});
  int written = 0;
  for (; written < 500; ++written)
    ASSERT_TRUE(log.Write("line " + std::to_string(written) + std::string(40, '.')));
  EXPECT_EQ(folder.CurrentPath(), (dir.path / "tabforge.log").string());
  EXPECT_EQ(folder.OlderPath(), (dir.path / "tabforge.log.1").string());
  // The older file holds the lines just before the current file's, with none missing between.
  const std::vector<std::string> lines = BoundedLines(dir.path, kBound);
  ASSERT_FALSE(lines.empty());
  const int first = written - static_cast<int>(lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i)
    EXPECT_EQ(lines[i],
              "line " + std::to_string(first + static_cast<int>(i)) + std::string(40, '.'));
  EXPECT_GT(first, 0);
}

TEST(PosixLogFolder, AFolderThatCannotBeWrittenCostsNothingAndFailsNothing) {
  TemporaryFolder dir;
  // A folder below a plain file cannot exist, whoever runs the test.
  std::ofstream(dir.path / "file") << "x";
  PosixLogFolder folder((dir.path / "file" / "Logs").string(), "tabforge");
  flight::RotatingLog log(folder);
  LineRecorder recorder(log);
  flight::Install(&recorder, std::chrono::steady_clock::now());
  const flight::Field fields[] = {{"path", "x"}};
  flight::Note("loaded", fields);
  EXPECT_TRUE(log.Broken());
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10000; ++i)
    flight::Note("loaded", fields);
  flight::NoteStep(flight::Step::kInitialize);
  flight::Install(nullptr, {});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

// The line that `writer` writes `n`th when several write at once.
std::string ProbeLine(int writer, int n) {
  const flight::Field fields[] = {{"writer", std::to_string(writer)},
                                  {"n", std::to_string(n)},
                                  {"padding", std::string(static_cast<std::size_t>(n % 50), '#')}};
  return flight::FormatLine(FixedStamp(), "probe", fields);
}

// How many lines each writer wrote into `text`; every line must be whole and in its writer's order.
std::map<int, int> Counted(const std::string& text) {
  std::map<int, int> next;
  for (const std::string& line : Lines(text)) {
    const auto event = flight::ParseLine(line);
    EXPECT_TRUE(event.has_value()) << line;
    if (!event)
      continue;
    const int writer = std::stoi(*event->Value("writer"));
    const int n = std::stoi(*event->Value("n"));
    EXPECT_EQ(n, next[writer]) << "writer " << writer;
    next[writer] = n + 1;
    EXPECT_EQ(ProbeLine(writer, n), line);
  }
  return next;
}

// Children write at once, each its own numbered lines; every line arrives whole, once, and in the
// order its writer wrote it.
void WriteConcurrently(const fs::path& dir, std::int64_t bound, int writers, int lines) {
  std::vector<pid_t> children;
  for (int w = 0; w < writers; ++w) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      PosixLogFolder folder(dir.string(), "tabforge");
      flight::RotatingLog log(folder, {.maxBytes = bound});
      bool ok = true;
      for (int i = 0; i < lines; ++i)
        ok = log.Write(ProbeLine(w, i)) && ok;
      ::_exit(ok ? 0 : 1);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
}

TEST(PosixLogFolder, ProcessesWritingAtOnceLoseAndMixNoLine) {
  TemporaryFolder dir;
  WriteConcurrently(dir.path, 1024 * 1024, 3, 2000);
  EXPECT_EQ(Counted(ReadFile(dir.path / "tabforge.log")),
            (std::map<int, int>{{0, 2000}, {1, 2000}, {2, 2000}}));
}

TEST(PosixLogFolder, ProcessesRotatingAtOnceKeepWholeLinesWithinTheBound) {
  TemporaryFolder dir;
  WriteConcurrently(dir.path, 16 * 1024, 3, 1500);
  for (const std::string& line : BoundedLines(dir.path, 16 * 1024))
    EXPECT_TRUE(flight::ParseLine(line).has_value()) << line;
}

TEST(PosixLogFolder, ThreadsSharingOneLogLoseAndMixNoLine) {
  TemporaryFolder dir;
  PosixLogFolder folder(dir.path.string(), "tabforge");
  flight::RotatingLog log(folder);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < 500; ++i)
        EXPECT_TRUE(log.Write(ProbeLine(t, i)));
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(Counted(ReadFile(folder.CurrentPath())),
            (std::map<int, int>{{0, 500}, {1, 500}, {2, 500}, {3, 500}}));
}

// --- The events the core notes -------------------------------------------------------------------

// Keeps each event as its name and fields, without the stamp.
struct CollectingRecorder final : flight::Recorder {
  std::vector<std::string> events;
  void Write(std::string_view event, std::span<const flight::Field> fields) noexcept override {
    std::string text(event);
    for (const auto& field : fields) {
      text += ' ';
      text += field.key;
      text += '=';
      text += field.value;
    }
    events.push_back(text);
  }
  // The events' names and fields, the times left out.
  std::vector<std::string> WithoutTimes() const {
    std::vector<std::string> result;
    for (const std::string& event : events)
      result.push_back(std::regex_replace(event, std::regex(" (took_)?ms=[^ ]*"), ""));
    return result;
  }
};

struct Installed {
  CollectingRecorder recorder;
  Installed() { flight::Install(&recorder, std::chrono::steady_clock::now()); }
  ~Installed() { flight::Install(nullptr, {}); }
};

TEST(FlightEvents, NothingIsNotedWithoutARecorder) {
  EXPECT_FALSE(flight::Installed());
  EXPECT_FALSE(flight::StepPending(flight::Step::kInitialize));
  Apartment apartment;
  Main2 main2(apartment.protector);
  main2.Initialize(nullptr, u"Morvelin");
  CollectingRecorder recorder;
  flight::Install(&recorder, std::chrono::steady_clock::now());
  // The step was not taken while nobody recorded; the next one is written.
  EXPECT_TRUE(flight::StepPending(flight::Step::kInitialize));
  main2.Initialize(nullptr, u"Morvelin");
  flight::Install(nullptr, {});
  EXPECT_EQ(recorder.events.size(), 1u);
}

TEST(FlightEvents, AStartWritesEachStepOnceInTheOrderTheHostTakesThem) {
  Installed installed;
  Apartment apartment;
  std::vector<std::string> log;
  Main2 main2(apartment.protector);
  flight::NoteStep(flight::Step::kMain2Created);
  for (int round = 0; round < 2; ++round) {
    main2.Initialize(MakeRef<RecordingSignaller>(&log), u"Morvelin");
    main2.GetRibbonXML();
    main2.ribbon(MakeRef<RecordingRibbon>(&log));
    main2.GetEnabled(u"MVN16");
    main2.GetLabel(u"MVN16");
    main2.LoadImage(u"5");
    main2.GetImage(u"MVN16");
  }
  EXPECT_THAT(installed.recorder.WithoutTimes(),
              ElementsAre("main2-created", "initialize", "get-ribbon-xml", "ribbon-handed-over",
                          "first-callback", "first-picture"));
  // Each step has its time since load, and the members' steps how long the first call took.
  for (const std::string& event : installed.recorder.events) {
    EXPECT_THAT(event, HasSubstr(" ms="));
    if (!event.starts_with("main2-created")) {
      EXPECT_THAT(event, HasSubstr(" took_ms=")) << event;
    }
  }
  apartment.ExpectQuiet();
}

TEST(FlightEvents, AFailureIsWrittenWithTheComponentsAnswer) {
  Installed installed;
  Apartment apartment;
  apartment.script->answers = {Variant(std::int32_t{8}), Variant(std::int32_t{5})};
  Main2 main2(apartment.protector);
  main2.Initialize(nullptr, u"Morvelin");
  main2.GetLabel(u"MVN9x\nsecond line");
  const auto events = installed.recorder.WithoutTimes();
  std::vector<std::string> failures;
  for (const auto& event : events) {
    if (event.starts_with("failure"))
      failures.push_back(event);
  }
  // Asked once (a dump), then again numbered -1 after the dump (ignore once).
  EXPECT_THAT(failures, ElementsAre("failure procedure=Main2.convertToId line=2002 number=13 "
                                    "description=Type mismatch outcome=answered answer=8",
                                    "failure procedure=Main2.convertToId line=2002 number=-1 "
                                    "description=Type mismatch outcome=answered answer=5"));
}

TEST(FlightEvents, AFailureWithoutAComponentSaysSo) {
  Installed installed;
  PortablePlatform platform;  // no error component registered
  VbwProtector protector{platform.View()};
  protector.vbwInitializeProtector();
  Main2 main2(protector);
  main2.GetLabel(u"MVN9x");
  EXPECT_THAT(installed.recorder.WithoutTimes(),
              ElementsAre("failure procedure=Main2.convertToId line=2002 number=13 "
                          "description=Type mismatch outcome=no-component",
                          // never initialized: no dictionary of labels
                          "failure procedure=Main2.GetLabel[Get] line=502 number=91 "
                          "description=Object variable or With block variable not set "
                          "outcome=no-component",
                          "first-callback"));
}

TEST(FlightEvents, AStormOfFailuresIsCountedNotWritten) {
  Installed installed;
  // Start at the beginning of a second, so that the burst below falls in one.
  using namespace std::chrono;
  const auto now = steady_clock::now().time_since_epoch();
  std::this_thread::sleep_for(ceil<seconds>(now) - now);
  for (int i = 0; i < 100; ++i)
    flight::NoteFailure(u"Main2.GetLabel[Get]", 402, 13, u"Type mismatch",
                        flight::Answer::kAnswered, 4);
  EXPECT_EQ(installed.recorder.events.size(),
            static_cast<std::size_t>(flight::kFailureLinesPerSecond));
  std::this_thread::sleep_for(seconds{1});
  flight::NoteFailure(u"Main2.GetLabel[Get]", 402, 13, u"Type mismatch",
                      flight::Answer::kBudgetSpent, 0);
  EXPECT_EQ(installed.recorder.events.back(),
            "failure procedure=Main2.GetLabel[Get] line=402 number=13 description=Type mismatch "
            "outcome=budget-spent left_out=" +
                std::to_string(100 - flight::kFailureLinesPerSecond));
}

// --- Reading a log back --------------------------------------------------------------------------

TEST(FlightLogReading, TheLastStartIsTheLastLoadedLineAndItsProcesssSteps) {
  const std::string text =
      "2026-11-24T08:00:00.000Z 10 1 loaded path=a\n"
      "2026-11-24T08:00:00.010Z 10 1 initialize ms=10 took_ms=0\n"
      "2026-11-25T09:00:00.000Z 20 1 loaded path=b\n"
      "2026-11-25T09:00:00.001Z 30 1 loaded path=c\n"
      "2026-11-25T09:00:00.002Z 20 1 main2-created ms=2\n"
      "2026-11-25T09:00:00.003Z 30 1 main2-created ms=5\n"
      "2026-11-25T09:00:00.004Z 30 1 failure procedure=Main2.GetLabel[Get] number=13\n"
      "2026-11-25T09:00:00.040Z 30 1 initialize ms=39 took_ms=1\n"
      "2026-11-25T09:00:00.090Z 30 7 get-ribbon-xml ms=x\n"
      "2026-11-25T09:00:00.100Z 30 1 first-callback ms=1\r\n"
      "2026-11-25T09:00:00.200Z 30 1 first-pic";
  const auto start = flight::FindLastStart(text);
  ASSERT_TRUE(start.has_value());
  EXPECT_EQ(start->loaded.Value("path"), "c");
  std::vector<std::string> steps;
  for (const auto& step : start->steps)
    steps.push_back(step.name + " " + std::to_string(step.ms));
  EXPECT_THAT(steps, ElementsAre("main2-created 5", "initialize 39", "get-ribbon-xml -1",
                                 "first-callback 1"));
  EXPECT_EQ(flight::FindLastStart("2026-11-25T09:00:00.040Z 30 1 initialize ms=39\n"),
            std::nullopt);
}

TEST(FlightLogReading, TheLastFailuresOldestFirst) {
  std::string text;
  for (int i = 0; i < 5; ++i) {
    const flight::Field fields[] = {{"number", std::to_string(i)}};
    text += flight::FormatLine(FixedStamp(), i == 2 ? "loaded" : "failure", fields) + "\n";
  }
  std::vector<std::string> numbers;
  for (const auto& failure : flight::LastFailures(text, 3))
    numbers.push_back(*failure.Value("number"));
  EXPECT_THAT(numbers, ElementsAre("1", "3", "4"));
  EXPECT_EQ(flight::LastFailures(text, 10).size(), 4u);
}

// Each case of tests/flight_log_cases.txt: the findings in order, and the last one's detail.
TEST(FlightLogJudgement, EachLogGetsTheVerdictItsCaseSays) {
  for (const auto& c : ReadCases("tests/flight_log_cases.txt")) {
    const std::vector<std::string> fields = Fields(c.header);
    const auto findings = flight::JudgeLastStart(c.body, std::stoll(fields[0]));
    std::string verdict;
    for (const auto& finding : findings)
      verdict += (verdict.empty() ? "" : ", ") + finding.check + " " + finding.status;
    EXPECT_EQ(verdict, fields.at(1)) << c.header;
    if (fields.size() < 3 || findings.empty())
      continue;
    if (fields[2].starts_with("= "))
      EXPECT_EQ(findings.back().detail, fields[2].substr(2)) << c.header;
    else
      EXPECT_THAT(findings.back().detail, HasSubstr(fields[2])) << c.header;
  }
}

}  // namespace
}  // namespace tabforge::testing
