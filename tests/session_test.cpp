// The tabforge session command: host sessions replayed against Main2, their transcripts, and where
// a replay stops.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tools/session.h"

namespace tabforge::cli {
namespace {

struct Transcript {
  int status;
  std::string out;
  std::string errors;
};

Transcript Replay(const std::string& script, SessionOptions options = {}) {
  std::istringstream in(script);
  std::ostringstream out;
  std::ostringstream errors;
  options.iconDirectory = "/nonexistent";
  const int status = ReplaySession(in, out, errors, options);
  return {status, out.str(), errors.str()};
}

TEST(Session, PrintsTheCallsOfEachCommandThenItsResult) {
  const std::string tree = ::testing::TempDir() + "tabforge-ribbon.tree";
  std::ofstream(tree) << "22 \"Ribbon\"\n  38 \"Ribbon\"\n    60 \"Ribbon Tabs\"\n      10 \"\"\n"
                         "        37 \"Home\"\n        37 \"Quill\"\n";
  const std::pair<std::string, std::string> cases[] = {
      // Comments and blank lines skipped, either line end; the last text takes the rest.
      {"# comment\n\nInitialize Morvelin Pro\r\nGetLabel MVN0\nproductNameChanged A B\r\n"
       "GetLabel MVN0\nInitialize\nGetLabel MVN1\n",
       "= ok\n= \"Apply Morvelin Pro\"\n= ok\n= \"Apply A B\"\n= ok\n= \"Configure \"\n"},
      {"Initialize M\nribbon\nEnableGotoQuickBookmark true\nGetEnabled MVN16\n"
       "RibbonCallback MVN23 true\nGetPressed MVN23\nUpdateLexoscopeIcon true\nGetScreentip MVN23\n"
       "EnableToolbar false\nGetEnabled MVN5\n",
       "= ok\n= ok\n  ribbon.InvalidateControl MVN16\n= ok\n= true\n"
       "  signaller.Run ToggleLexoscope\n= ok\n= false\n  ribbon.InvalidateControl MVN23\n= ok\n"
       "= \"Turn Lexoscope off\"\n  ribbon.Invalidate\n= ok\n= false\n"},
      // Without icons every picture is nothing; the built-in one is not even asked for.
      {"Initialize Morvelin\nGetImage MVN0\nLoadImage 5\nLoadImage 2\n",
       "= ok\n  signaller.getToolbarIconBits 102\n= nothing\n  signaller.getToolbarIconBits 303\n"
       "= nothing\n= nothing\n"},
      {"Initialize Quill\nactivateMorvelinTab " + tree + "\n",
       "= ok\n  tree.accDoDefaultAction \"Quill\"\n= ok\n"},
  };
  for (const auto& [script, out] : cases) {
    const auto t = Replay(script);
    EXPECT_EQ(t.status, 0) << script << t.errors;
    EXPECT_EQ(t.out, out) << script;
  }
}

TEST(Session, BadLinesStopWithTheirNumber) {
  for (const char* line : {"Frobnicate", "EnableToolbar yes", "RibbonCallback MVN5 maybe",
                           "ribbon extra", "GetRibbonXML now", "activateMorvelinTab /none.tree"}) {
    const auto t = Replay(std::string("Initialize Morvelin\n\n") + line + "\nGetLabel MVN0\n");
    EXPECT_EQ(t.status, 2) << line;
    EXPECT_NE(t.errors.find("line 3:"), std::string::npos) << t.errors;
    EXPECT_EQ(t.out, "= ok\n") << line;  // nothing behind the bad line runs
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

TEST(Session, ErrorsShowWhatTheComponentReceivesAndAnswers) {
  SessionOptions options;
  options.failingMacros = {"InsertReference"};
  options.errors = true;
  options.answers = {8, 5};
  const auto t = Replay("Initialize Morvelin\nGetLabel MVN9x\nRibbonCallback MVN5\n", options);
  const std::string start =
      "  error.vbwInitializeProtector vbwCatchException=true vbwTraceLine=false "
      "mOldTraceProc=false vbwCallStack=true vbwSystemInfo=true vbwScreenshot=true\n";
  const std::string failure = R"( "Type mismatch" "Tabforge" "Main2" "convertToId" line 2002 )"
                              R"(depth 2 stack "Main2.GetLabel[Get]" "Main2.convertToId" => )";
  // The answers in turn: a dump, then on at the next statement; used up, a new component leaves.
  EXPECT_EQ(t.out.substr(0, t.out.find("  error.vbwOpenDumpFile\n")),
            "= ok\n" + start + "  error.vbwErrorHandler 13" + failure + "8\n");
  EXPECT_NE(t.out.find("  error.vbwCloseDumpFile\n  error.vbwErrorHandler -1" + failure +
                       "5\n= \"Apply Morvelin\"\n  signaller.Run InsertReference\n" + start +
                       R"(  error.vbwErrorHandler 1004 "The macro 'InsertReference' failed" )"
                       R"("Tabforge" "Main2" "RibbonCallback" line 1104 depth 1 stack )"
                       R"("Main2.RibbonCallback" => 7)"
                       "\n= ok\n"),
            std::string::npos)
      << t.out;
}

// Dumps go to a folder that is made when missing; one that cannot be written is said on standard
// error with the reason, and the session goes on.
TEST(Session, DumpsMakeTheirFolderOrSayWhyNot) {
  const std::string root = ::testing::TempDir() + "tabforge-dumps-" + std::to_string(::getpid());
  SessionOptions options;
  options.errors = true;
  options.answers = {8, 7};
  options.dumpDirectory = root + "/new/folder";
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(Replay("Initialize Morvelin\nGetLabel MVN9x\n", options).status, 0);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  std::ifstream dump(options.dumpDirectory + "/dump-1.txt");
  std::stringstream text;
  text << dump.rdbuf();
  EXPECT_NE(text.str().find("LOCAL LEVEL VARIABLES"), std::string::npos);

  // A folder inside a file cannot be made.
  options.dumpDirectory = options.dumpDirectory + "/dump-1.txt/below";
  ::testing::internal::CaptureStderr();
  const auto t = Replay("Initialize Morvelin\nGetLabel MVN9x\n", options);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "tabforge session: dump 1 cannot be written to " + options.dumpDirectory +
                "/dump-1.txt: Not a directory\n");
  EXPECT_EQ(t.status, 0);
  EXPECT_NE(t.out.find("  error.vbwOpenDumpFile\n  error.vbwErrorHandler 75"), std::string::npos)
      << t.out;
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
