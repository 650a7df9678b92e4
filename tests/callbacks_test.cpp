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
using ::testing::IsEmpty;

class Callbacks : public ::testing::Test {
 protected:
  Callbacks() {
    main2.Initialize(signaller, u"Morvelin");
    main2.ribbon(ribbon);
  }
  std::vector<std::string> Take() { return std::exchange(log, {}); }
  std::size_t HandlerCalls() const { return apartment.script->CallsTo("vbwErrorHandler").size(); }

  Apartment apartment;
  std::vector<std::string> log;
  Ref<RecordingRibbon> ribbon = MakeRef<RecordingRibbon>(&log);
  Ref<RecordingSignaller> signaller = MakeRef<RecordingSignaller>(&log);
  Main2 main2{apartment.protector};
};

TEST_F(Callbacks, LabelsFillEveryTokenWithTheProductName) {
  EXPECT_EQ(main2.GetLabel(u"MVN4"), u"About Morvelin / Login to Morvelin");
  EXPECT_EQ(main2.GetLabel(u"MVN26"), u"Use Morvelin");
  main2.productNameChanged(u"PN Writer");
  EXPECT_EQ(main2.GetLabel(u"MVN0"), u"Apply PN Writer");  // the name is not searched again
  main2.productNameChanged(u"");
  EXPECT_EQ(main2.GetLabel(u"MVN0"), u"Apply ");
  EXPECT_EQ(main2.GetLabel(u"MVN4"), u"About  / Login to ");
  EXPECT_EQ(HandlerCalls(), 0u);
}

TEST_F(Callbacks, LabelWithoutTemplateIsEmptyAndJoinsTheRenamedControls) {
  EXPECT_EQ(main2.GetLabel(u"MVN5"), u"");
  Take();
  main2.productNameChanged(u"Morvelin");
  EXPECT_THAT(Take(), ElementsAre("ribbon.InvalidateControl MVN0", "ribbon.InvalidateControl MVN4",
                                  "ribbon.InvalidateControl MVN1", "ribbon.InvalidateControl MVN26",
                                  "ribbon.InvalidateControl MVN5"));
}

TEST_F(Callbacks, ScreentipNamesWhatAPressWouldDo) {
  EXPECT_EQ(main2.GetScreentip(u"MVN23"), u"Turn Lexoscope on");
  main2.UpdateLexoscopeIcon(kTrue);
  EXPECT_EQ(main2.GetScreentip(u"MVN23"), u"Turn Lexoscope off");
  EXPECT_EQ(main2.GetScreentip(u"MVN5"), u"");
  EXPECT_EQ(main2.GetPressed(u"MVN23"), kTrue);
  EXPECT_EQ(main2.GetPressed(u"MVN5"), kFalse);

  // A press leaves the pressed state to the template.
  Take();
  main2.RibbonCallback(u"MVN23", kTrue);
  main2.RibbonCallback(u"MVN23", kFalse);
  EXPECT_THAT(Take(),
              ElementsAre("signaller.Run ToggleLexoscope", "signaller.Run ToggleLexoscope"));
  EXPECT_EQ(main2.lexoscopeOn(), kTrue);
}

TEST_F(Callbacks, EnabledStatesFollowTheirRules) {
  EXPECT_EQ(main2.GetEnabled(u"MVN16"), kFalse);
  EXPECT_EQ(main2.GetEnabled(u"MVN5"), kTrue);
  main2.EnableGotoQuickBookmark(kTrue);
  EXPECT_THAT(Take(), ElementsAre("ribbon.InvalidateControl MVN16"));
  EXPECT_EQ(main2.GetEnabled(u"MVN16"), kTrue);
  main2.EnableToolbar(kFalse);
  EXPECT_EQ(main2.GetEnabled(u"MVN16"), kFalse);
  EXPECT_EQ(main2.GetEnabled(u"MVN5"), kFalse);
  EXPECT_EQ(main2.GetEnabled(u"MVN19"), kTrue);
  main2.EnableToolbar(kTrue);
  EXPECT_EQ(main2.GetEnabled(u"MVN16"), kTrue);
}

TEST_F(Callbacks, ChangesInvalidateOnlyWhenTheyChangeSomething) {
  main2.EnableToolbar(kFalse);
  main2.EnableToolbar(kFalse);
  main2.EnableGotoQuickBookmark(kTrue);
  main2.EnableGotoQuickBookmark(kTrue);
  main2.UpdateLexoscopeIcon(kTrue);
  main2.UpdateLexoscopeIcon(kTrue);
  EXPECT_THAT(Take(),
              ElementsAre("ribbon.Invalidate", "ribbon.InvalidateControl MVN16",
                          "ribbon.InvalidateControl MVN23", "ribbon.InvalidateControl MVN23"));
}

TEST_F(Callbacks, RibbonRefusalIsPassedOverAndTheStateStays) {
  ribbon->fail = true;
  main2.UpdateLexoscopeIcon(kTrue);
  main2.EnableToolbar(kFalse);
  EXPECT_EQ(main2.lexoscopeOn(), kTrue);
  EXPECT_EQ(main2.enabled(), kFalse);
  EXPECT_EQ(HandlerCalls(), 0u);
}

TEST_F(Callbacks, UnreadableIdCountsAsControlZero) {
  main2.RibbonCallback(u"MVNx", kFalse);
  EXPECT_THAT(Take(), ElementsAre("signaller.Run ApplyMorvelin"));
  EXPECT_EQ(main2.GetEnabled(u"MVN99999"), kTrue);  // overflow: as control 0
  EXPECT_EQ(HandlerCalls(), 2u);
  EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler")[0],
              ::testing::HasSubstr(R"(BSTR "Main2", BSTR "convertToId", I4 2002)"));
}

TEST_F(Callbacks, IdPastTheTableRunsNothing) {
  main2.RibbonCallback(u"MVN27", kFalse);
  main2.RibbonCallback(u"MVN3", kFalse);  // no control: an empty macro name reaches Run
  EXPECT_THAT(Take(), ElementsAre("signaller.Run "));
  ASSERT_EQ(HandlerCalls(), 1u);
  EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler")[0],
              ::testing::HasSubstr(R"(I4 9, BSTR "Subscript out of range")"));
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
  EXPECT_THAT(Take(),
              ElementsAre("signaller.Run ApplyMorvelin", "ribbon.Invalidate",
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

// Before Initialize every question fails quietly; before the ribbon is given, changes are stored
// and reach no ribbon, not even the one given later.
TEST_F(Callbacks, WithoutInitializeOrRibbonChangesAreOnlyStored) {
  Main2 fresh(apartment.protector);
  EXPECT_EQ(fresh.GetLabel(u"MVN0"), u"");
  fresh.productNameChanged(u"Quill");
  EXPECT_EQ(fresh.productName(), u"Quill");
  fresh.RibbonCallback(u"MVN5", kFalse);
  EXPECT_EQ(HandlerCalls(), 3u);

  fresh.Initialize(signaller, u"Morvelin");
  fresh.productNameChanged(u"Quill");
  EXPECT_EQ(fresh.GetLabel(u"MVN1"), u"Configure Quill");
  fresh.EnableToolbar(kFalse);
  fresh.UpdateLexoscopeIcon(kTrue);
  fresh.ribbon(ribbon);
  EXPECT_THAT(Take(), IsEmpty());
  EXPECT_EQ(fresh.enabled(), kFalse);
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
