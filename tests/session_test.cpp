// The tabforge session command: host sessions replayed against Main2, their transcripts, and where
// a replay stops.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "golden.h"
#include "platform/failure.h"
#include "platform/portable/portable_platform.h"
#include "platform/recording.h"
#include "ribbon/main2.h"
#include "tools/replay.h"
#include "tools/session.h"

namespace tabforge::cli {
namespace {

// The options of a case's header behind " | ": those of the session command; --icons is the source
// tree's icons, and without it there are none.
SessionOptions Options(const std::string& header) {
  SessionOptions options;
  options.iconDirectory = "/nonexistent";
  std::istringstream words(header.substr(std::min(header.find(" | "), header.size())));
  for (std::string word, value; words >> word;) {
    if (word == "--icons")
      options.iconDirectory = TABFORGE_ICONS;
    options.errors = options.errors || word == "--errors";
    if (word == "--failing-macros" && words >> value)
      options.failingMacros.push_back(value);
    std::istringstream list(word == "--answers" && words >> value ? value : "");
    for (std::string answer; std::getline(list, answer, ',');)
      options.answers.push_back(std::stoi(answer));
  }
  return options;
}

std::string RecordingPath() {
  return ::testing::TempDir() + "tabforge-recording-" + std::to_string(::getpid()) + ".session";
}

std::string ReadFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// The lines of a recording that a replay writes again: all but the comments.
std::string Significant(const std::string& recording) {
  std::istringstream lines(recording);
  std::string out;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("# "))
      out += line + "\n";
  }
  return out;
}

// What the replay of `recording` writes, or its complaint behind its status.
std::string Replayed(const std::string& recording) {
  std::istringstream in(recording);
  std::ostringstream out, errors;
  const int status = ReplayRecording(in, out, errors);
  return status == 0 ? out.str() : std::to_string(status) + " " + errors.str();
}

// Each case of sessions.txt: the lines behind "> " are the session ($SOURCE the source tree),
// those behind "! " what it says on standard error, and the others its transcript.
TEST(Session, ReplaysEachCaseAsItsTranscriptSays) {
  for (const auto& [header, body] : testing::ReadCases("tests/sessions.txt")) {
    std::string script, out, errors;
    std::istringstream lines(body);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(">"))
        script += line.substr(std::min<std::size_t>(2, line.size())) + "\n";
      else if (line.starts_with("! "))
        errors += line.substr(2) + "\n";
      else if (!line.empty() && !line.starts_with("#"))
        out += line + "\n";
    }
    for (auto at = script.find("$SOURCE"); at != std::string::npos; at = script.find("$SOURCE"))
      script.replace(at, 7, TABFORGE_SOURCE_DIR);
    std::istringstream in(script);
    std::ostringstream transcript, said;
    SessionOptions options = Options(header);
    options.recordFile = RecordingPath();
    EXPECT_EQ(ReplaySession(in, transcript, said, options), errors.empty() ? 0 : 2) << header;
    EXPECT_EQ(transcript.str(), out) << header;
    EXPECT_EQ(said.str(), errors) << header;
    // The session's recording replays line for line, its collaborators' answers given back.
    if (errors.empty()) {
      const std::string recording = ReadFile(options.recordFile);
      EXPECT_EQ(Replayed(recording), Significant(recording)) << header;
    }
  }
}

// A target whose calls cannot be made, as when the registered class goes away under the replay:
// the replay must stop at that line like at a bad one, and keep what it printed before.
class UnreachableAfterInitialize final : public SessionTarget {
 public:
  void Initialize(Utf16View) override { log.push_back("  initialized"); }
  void Ribbon() override { Fail(); }
  Utf16String GetRibbonXML() override { Fail(); }
  Utf16String GetLabel(Utf16View) override { Fail(); }
  Utf16String GetScreentip(Utf16View) override { Fail(); }
  bool GetEnabled(Utf16View) override { Fail(); }
  bool GetPressed(Utf16View) override { Fail(); }
  SessionPicture GetImage(Utf16View) override { Fail(); }
  SessionPicture LoadImage(Utf16View) override { Fail(); }
  void productNameChanged(Utf16View) override { Fail(); }
  void RibbonCallback(Utf16View, bool) override { Fail(); }
  void EnableToolbar(bool) override { Fail(); }
  void EnableGotoQuickBookmark(bool) override { Fail(); }
  void UpdateLexoscopeIcon(bool) override { Fail(); }
  std::string ActivateTab(const std::string&) override { Fail(); }
  CallLog log;

 private:
  [[noreturn]] static void Fail() { throw std::runtime_error("GetLabel failed with 0x80010108"); }
};

TEST(Session, ACallThatCannotBeMadeStopsTheReplayAtItsLine) {
  UnreachableAfterInitialize target;
  std::istringstream in("Initialize Morvelin\n# gone\nGetLabel MVN0\nGetLabel MVN1\n");
  std::ostringstream out;
  std::ostringstream errors;
  EXPECT_EQ(ReplaySession(in, out, errors, target, target.log), 2);
  EXPECT_EQ(out.str(), "  initialized\n= ok\n");
  EXPECT_EQ(errors.str(),
            "tabforge session: line 3: GetLabel failed with 0x80010108: GetLabel MVN0\n");
}

// Dumps go to a folder that is made when missing; one that cannot be written is said on standard
// error with the reason, and the session goes on.
TEST(Session, DumpsMakeTheirFolderOrSayWhyNot) {
  const std::string root = ::testing::TempDir() + "tabforge-dumps-" + std::to_string(::getpid());
  SessionOptions options = Options(" | --errors --answers 8,7");
  options.dumpDirectory = root + "/new/folder";
  std::ostringstream out, errors;
  const auto replay = [&] {  // what the replay says on standard error
    std::istringstream in("Initialize Morvelin\nGetLabel MVN9x\n");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(ReplaySession(in, out, errors, options), 0);
    return ::testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(replay(), "");
  std::stringstream text;
  text << std::ifstream(options.dumpDirectory + "/dump-1.txt").rdbuf();
  EXPECT_NE(text.str().find("LOCAL LEVEL VARIABLES"), std::string::npos);

  // A folder inside a file cannot be made.
  options.dumpDirectory += "/dump-1.txt/below";
  out.str("");
  EXPECT_EQ(replay(), "tabforge session: dump 1 cannot be written to " + options.dumpDirectory +
                          "/dump-1.txt: Not a directory\n");
  EXPECT_NE(out.str().find("  error.vbwOpenDumpFile\n  error.vbwErrorHandler 75"),
            std::string::npos)
      << out.str();
  std::filesystem::remove_all(root);
}

TEST(Session, ResultsQuoteTextsAndRoundPictureSizes) {
  EXPECT_EQ(Quote(u"a\"b\\c\x01\x7F\u00e9"), "\"a\\\"b\\\\c\\u0001\\u007F\xC3\xA9\"");
  EXPECT_EQ(PictureResult({}), "nothing");
  EXPECT_EQ(PictureResult({true, false, 0, 0}), "picture");
  // 847 HIMETRIC are 32.01 pixels, 833 are 31.49: the nearest pixel, as a screen rounds.
  EXPECT_EQ(PictureResult({true, true, 847, 833}), "picture 32x31");
  EXPECT_EQ(PictureResult({true, true, 2540, 26}), "picture 96x1");
}

// A recording made on another machine: the first line where the replay does otherwise is named,
// whether an answer differs or a call is missing; a file that is no recording is refused at its
// line.
TEST(Recording, TheReplaySaysWhereItPartsFromTheRecording) {
  const std::string recording =
      "# tabforge recording: made by hand\n"
      "#> host.CommandLine => \"\"\n"
      "#> host.GetSetting \"Tabforge\", \"Init\", \"vbwTrace\", \"\" => \"\"\n"
      "#> host.CommandLine => \"/trace\"\n"
      "Initialize Morvelin\n"
      "#= ok\n"
      "ribbon\n"
      "#> ribbon.QueryRibbonUi => yes\n"
      "#= ok\n"
      "EnableToolbar false\n"
      "#> ribbon.Invalidate => failure 5 \"refused\"\n"
      "#= ok\n"
      "LoadImage 5\n"
      "#> signaller.getToolbarIconBits ref i2 303 => array byte none; 1 := i2 5\n"
      "#= nothing\n";
  EXPECT_EQ(Replayed(recording), Significant(recording));

  std::string changed = recording;
  changed.replace(changed.find("#= nothing"), 10, "#= picture");
  EXPECT_EQ(Replayed(changed),
            "1 tabforge session: the replay parts from the recording at line "
            "15: recorded '#= picture', replayed '#= nothing'\n");
  std::string missing = recording;
  missing.erase(missing.find("#> ribbon.Invalidate"), 47);
  EXPECT_EQ(Replayed(missing).substr(0, 71),
            "1 tabforge session: the replay parts from the recording at line 11: rec");

  EXPECT_EQ(Replayed("Initialize Morvelin\n#} => empty\n"),
            "2 tabforge session: line 2: an answer without its call: #} => empty\n");
  EXPECT_EQ(Replayed("#> signaller.Run ref str \"A\"\n"),
            "2 tabforge session: line 1: a call without its answer: #> signaller.Run ref str "
            "\"A\"\n");
}

// A macro that calls the library back while it runs: the host's nested calls are kept inside the
// collaborator's call, and the replay makes them again from inside the same call.
class CallingBackSignaller final : public Object {
 public:
  std::function<void()> run;
  Variant Invoke(Utf16View member, CallKind, std::span<Variant>) override {
    if (member != u"Run")
      Raise(RunTimeError::kMemberNotFound);
    run();
    return Variant(std::int32_t{7});
  }
};

class SilentRibbon final : public RibbonUi {
 public:
  void Invalidate() override {}
  void InvalidateControl(const Utf16String&) override {}
  Variant Invoke(Utf16View, CallKind, std::span<Variant>) override { return {}; }
};

TEST(Recording, CallsBackFromACollaboratorReplayInsideItsCall) {
  std::string text;
  auto recorder = MakeRef<recording::Recorder>(
      [&](std::string_view line) {
        text += std::string(line) + "\n";
        return true;
      },
      recording::Limits{});
  PortablePlatform platform;
  VbwProtector protector(recorder->Wrap(platform.View()));
  protector.vbwInitializeProtector();
  Main2 main2(protector);
  const auto host = [&](std::string_view command, auto&& call) {
    recorder->HostCall(command);
    call();
    recorder->HostAnswer("ok");
  };
  auto signaller = MakeRef<CallingBackSignaller>();
  signaller->run = [&] {
    host("EnableGotoQuickBookmark true", [&] { main2.EnableGotoQuickBookmark(kTrue); });
  };
  host("Initialize Morvelin", [&] {
    main2.Initialize(recorder->Wrap(signaller, recording::kSignallerRole), u"Morvelin");
  });
  host("ribbon", [&] { main2.ribbon(recorder->Wrap(MakeRef<SilentRibbon>(), "ribbon")); });
  host("RibbonCallback MVN5 false", [&] { main2.RibbonCallback(u"MVN5", kFalse); });
  EXPECT_NE(text.find("RibbonCallback MVN5 false\n"
                      "#> signaller.Run ref str \"InsertReference\" {\n"
                      "#$ EnableGotoQuickBookmark true\n"
                      "#> ribbon.InvalidateControl \"MVN16\" => ok\n"
                      "#= ok\n"
                      "#} => i4 7\n"
                      "#= ok\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(Replayed(text), Significant(text));
}

// A recording stays within its bytes and its time, and says why it ended.
TEST(Recording, EndsAtItsBoundsAndSaysWhy) {
  std::string text;
  const auto sink = [&](std::string_view line) {
    text += std::string(line) + "\r\n";
    return true;
  };
  auto small = MakeRef<recording::Recorder>(sink, recording::Limits{600});
  for (int i = 0; i < 100 && small->On(); ++i) {
    small->HostCall("GetLabel MVN" + std::to_string(i));
    small->HostAnswer(Quote(u"Apply Morvelin"));
  }
  EXPECT_FALSE(small->On());
  EXPECT_LE(text.size(), 600u);
  EXPECT_TRUE(text.ends_with("\n# recording ends: it reached 600 bytes\r\n")) << text;

  text.clear();
  auto late = MakeRef<recording::Recorder>(
      sink, recording::Limits{1 << 20, std::chrono::system_clock::now()});
  late->HostCall("GetLabel MVN0");
  EXPECT_EQ(text, "# recording ends: its time was up\r\n");
}

// Every value a collaborator may answer is written so that it reads back as the same value; what
// is no value is refused.
TEST(Recording, ValuesReadBackAsWritten) {
  const auto name = [](const Object*) { return std::string("@1"); };
  const auto object = [](std::string_view) { return Ref<Object>(MakeRef<SilentRibbon>()); };
  const std::vector<Variant> values{
      Variant(),
      Variant::Null(),
      Variant(std::int16_t{-32768}),
      Variant(std::int32_t{2147483647}),
      Variant(kTrue),
      Variant(static_cast<VariantBool>(std::int16_t{5})),
      Variant::Byte(255),
      Variant(u"a \"b\" \\ c\r\n\u00e9 => ]"),
      Variant(Ref<Object>()),
      Variant(VarType::VT_UI1, MakeArray(std::vector<std::uint8_t>{0, 1, 2, 250, 255}, 3)),
      Variant(VarType::VT_UI1, MakeArray(std::vector<std::uint8_t>{})),
      Variant(VarType::VT_I2, ArrayRef()),
      Variant(VarType::VT_BSTR, MakeArray(std::vector<Utf16String>{u"x, y", u"]"}, -1)),
      Variant(VarType::VT_VARIANT,
              MakeArray(std::vector<Variant>{
                  Variant(std::int32_t{1}),
                  Variant(VarType::VT_I4, MakeArray(std::vector<std::int32_t>{1, -2})),
                  Variant(u"z")})),
  };
  for (const Variant& value : values) {
    const std::string text = recording::ValueText(value, name);
    std::string_view rest = text;
    const auto read = recording::ParseValue(rest, object);
    ASSERT_TRUE(read.has_value()) << text;
    EXPECT_EQ(*read, value) << text;
    EXPECT_EQ(recording::ValueText(*read, name), text);
    EXPECT_TRUE(rest.empty()) << text;
  }
  for (std::string_view bad : {"", "i2 40000", "i4 1x", "byte 256", "str \"open", "str \"\\q\"",
                               "bytes 0 abc", "bytes 0 a===", "array i9 0 []", "array i2 0 [i2 1",
                               "array i2 0 [str \"a\"]", "number 3"}) {
    std::string_view rest = bad;
    EXPECT_FALSE(recording::ParseValue(rest, object).has_value()) << bad;
  }
}

}  // namespace
}  // namespace tabforge::cli
