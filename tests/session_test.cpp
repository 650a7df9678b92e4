// The tabforge session command: host sessions replayed against Main2, their transcripts, and where
// a replay stops.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "golden.h"
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
    EXPECT_EQ(ReplaySession(in, transcript, said, Options(header)), errors.empty() ? 0 : 2)
        << header;
    EXPECT_EQ(transcript.str(), out) << header;
    EXPECT_EQ(said.str(), errors) << header;
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

}  // namespace
}  // namespace tabforge::cli
