// The tabforge session command: transcripts of host sessions replayed against Main2.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tools/session.h"

namespace tabforge::cli {
namespace {

struct Transcript {
  int status;
  std::string out;
  std::string errors;
};

Transcript Replay(const std::string& script) {
  std::istringstream in(script);
  std::ostringstream out;
  std::ostringstream errors;
  SessionOptions options;
  options.iconDirectory = "/nonexistent";
  const int status = ReplaySession(in, out, errors, options);
  return {status, out.str(), errors.str()};
}

TEST(Session, PrintsCallsThenTheResultOfEachCommand) {
  const auto t = Replay(
      "# comment\n"
      "\n"
      "Initialize Morvelin\n"
      "ribbon\n"
      "GetLabel MVN4\n"
      "EnableGotoQuickBookmark true\n"
      "GetEnabled MVN16\n"
      "RibbonCallback MVN23 true\n"
      "GetPressed MVN23\n"
      "UpdateLexoscopeIcon true\n"
      "GetScreentip MVN23\n"
      "productNameChanged PN\n");
  EXPECT_EQ(t.status, 0);
  EXPECT_EQ(t.out,
            "= ok\n"
            "= ok\n"
            "= \"About Morvelin / Login to Morvelin\"\n"
            "  ribbon.InvalidateControl MVN16\n"
            "= ok\n"
            "= true\n"
            "  signaller.Run ToggleLexoscope\n"
            "= ok\n"
            "= false\n"
            "  ribbon.InvalidateControl MVN23\n"
            "= ok\n"
            "= \"Turn Lexoscope off\"\n"
            "  ribbon.InvalidateControl MVN0\n"
            "  ribbon.InvalidateControl MVN4\n"
            "  ribbon.InvalidateControl MVN1\n"
            "  ribbon.InvalidateControl MVN26\n"
            "= ok\n");
  EXPECT_EQ(t.errors, "");
}

TEST(Session, PicturesWithoutIconsAreNothing) {
  const auto t = Replay("Initialize Morvelin\nGetImage MVN0\nLoadImage 5\nLoadImage 2\n");
  EXPECT_EQ(t.out,
            "= ok\n"
            "  signaller.getToolbarIconBits 102\n"
            "= nothing\n"
            "  signaller.getToolbarIconBits 303\n"
            "= nothing\n"
            "= nothing\n");
}

TEST(Session, LastTextArgumentTakesTheRestOfTheLine) {
  const auto t =
      Replay("Initialize Morvelin Pro Edition\nGetLabel MVN0\nInitialize\nGetLabel MVN1\n");
  EXPECT_EQ(t.out, "= ok\n= \"Apply Morvelin Pro Edition\"\n= ok\n= \"Configure \"\n");
}

TEST(Session, ActivatesTheTabOfATreeFile) {
  const std::string path = ::testing::TempDir() + "tabforge-ribbon.tree";
  {
    std::ofstream tree(path);
    tree << "22 \"Ribbon\"\n  38 \"Ribbon\"\n    60 \"Ribbon Tabs\"\n      10 \"\"\n"
            "        37 \"Home\"\n        37 \"Quill\"\n";
  }
  const auto t = Replay("Initialize Quill\nactivateMorvelinTab " + path + "\n");
  EXPECT_EQ(t.out, "= ok\n  tree.accDoDefaultAction \"Quill\"\n= ok\n");
  const auto missing = Replay("activateMorvelinTab " + path + ".missing\n");
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.errors.find("line 1:"), std::string::npos);
}

TEST(Session, QuotesEscapeQuotesBackslashesAndControlCharacters) {
  EXPECT_EQ(Quote(u"a\"b\\c\x01\x7F\u00e9"), "\"a\\\"b\\\\c\\u0001\\u007F\xC3\xA9\"");
}

TEST(Session, BadLinesStopWithTheirNumber) {
  for (const char* line : {"Frobnicate", "EnableToolbar yes", "RibbonCallback MVN5 maybe",
                           "ribbon extra", "GetRibbonXML now"}) {
    const auto t = Replay(std::string("Initialize Morvelin\n\n") + line + "\nGetLabel MVN0\n");
    EXPECT_EQ(t.status, 2) << line;
    EXPECT_NE(t.errors.find("line 3:"), std::string::npos) << t.errors;
    EXPECT_EQ(t.out, "= ok\n") << line;  // nothing behind the bad line runs
  }
}

}  // namespace
}  // namespace tabforge::cli
