// The ribbon's questions and the template's reports: answers, invalidation order, and presses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "apartment.h"
#include "doubles/recording_ribbon.h"
#include "doubles/recording_signaller.h"
#include "golden.h"
#include "ribbon/main2.h"
#include "tools/session.h"

namespace tabforge::testing {
namespace {

using ::testing::ElementsAre;

class Callbacks : public ::testing::Test {
 protected:
  Callbacks() {
    main2.Initialize(signaller, u"Morvelin");
    main2.ribbon(ribbon);
  }

  Apartment apartment;
  std::vector<std::string> log;
  Ref<RecordingRibbon> ribbon = MakeRef<RecordingRibbon>(&log);
  Ref<RecordingSignaller> signaller = MakeRef<RecordingSignaller>(&log);
  Main2 main2{apartment.protector};
};

TEST_F(Callbacks, RibbonRefusalIsPassedOverAndTheStateStays) {
  ribbon->fail = true;
  main2.UpdateLexoscopeIcon(kTrue);
  main2.EnableToolbar(kFalse);
  EXPECT_EQ(main2.lexoscopeOn(), kTrue);
  EXPECT_EQ(main2.enabled(), kFalse);
  apartment.ExpectQuiet();
}

// A question left at its first failing statement answers what an unset result holds: the states
// would otherwise show a control enabled or pressed that nothing asked to be.
TEST_F(Callbacks, QuestionsLeftAtTheirFirstStatementAnswerFalse) {
  main2.UpdateLexoscopeIcon(kTrue);
  for (const char16_t* procedure : {u"Main2.GetEnabled[Get]", u"Main2.GetPressed[Get]"})
    apartment.faults.FailAt(procedure, 1);
  EXPECT_EQ(main2.GetEnabled(u"MVN5"), kFalse);
  EXPECT_EQ(main2.GetPressed(u"MVN23"), kFalse);
  EXPECT_EQ(main2.GetEnabled(u"MVN5"), kTrue);  // the next question is answered again
}

TEST_F(Callbacks, MacroThatCallsBackFindsTheLibraryWorking) {
  signaller->onRun = [&](const Utf16String& macro) {
    if (macro != u"ApplyMorvelin")
      return;
    main2.EnableToolbar(kFalse);
    main2.UpdateLexoscopeIcon(kTrue);
    main2.RibbonCallback(u"MVN5", kFalse);
  };
  main2.RibbonCallback(u"MVN0", kFalse);
  signaller->onRun = nullptr;
  EXPECT_THAT(log, ElementsAre("signaller.Run ApplyMorvelin", "ribbon.Invalidate",
                               "ribbon.InvalidateControl MVN23", "signaller.Run InsertReference"));
  EXPECT_EQ(apartment.protector.Depth(), 0);
}

TEST_F(Callbacks, MacroThatPressesItsOwnButtonForEverEnds) {
  int presses = 0;
  signaller->onRun = [&](const Utf16String&) {
    ++presses;
    main2.RibbonCallback(u"MVN5", kFalse);
  };
  main2.RibbonCallback(u"MVN5", kFalse);
  signaller->onRun = nullptr;
  EXPECT_GT(presses, 10);
  EXPECT_LE(presses, apartment.protector.limits.maxNestedProcedures);
  EXPECT_EQ(apartment.protector.Depth(), 0);
  EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler").back(),
              ::testing::HasSubstr(R"(I4 28, BSTR "Out of stack space")"));
}

// Every question about every control, every press, and the document, replayed as the ribbon asks
// them: the transcript is checked against every_control.golden, so that a change to any control's
// label, tip, key, picture number, macro or state is a change to the golden file too. Write it
// anew with TABFORGE_UPDATE_GOLDEN=1.
TEST(EveryControl, AnswersAsTheGoldenTranscriptSays) {
  std::string script = "Initialize Morvelin\nribbon\nGetRibbonXML\n";
  for (int n = 0; n <= 27; ++n) {
    const std::string id = " MVN" + std::to_string(n) + "\n";
    for (const char* question :
         {"GetLabel", "GetEnabled", "GetPressed", "GetScreentip", "GetImage"})
      script += question + id;
    script +=
        "LoadImage " + std::to_string(n) + "\nRibbonCallback MVN" + std::to_string(n) + " false\n";
  }
  std::istringstream in(script);
  std::ostringstream out;
  std::ostringstream errors;
  cli::SessionOptions options;
  options.iconDirectory = "/nonexistent";
  ASSERT_EQ(cli::ReplaySession(in, out, errors, options), 0) << errors.str();
  ExpectGolden("tests/every_control.golden", out.str());
}

}  // namespace
}  // namespace tabforge::testing
