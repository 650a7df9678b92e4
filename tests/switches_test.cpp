// Start-up of the tracing module: the switch table for every tracing request.
#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>

#include "platform/portable/portable_platform.h"
#include "tracing/vbw_protector.h"

namespace tabforge {
namespace {

struct Case {
  const char16_t* commandLine;
  std::optional<const char16_t*> setting;
  bool requested;
};

// Failure messages show the case as text.
void PrintTo(const Case& c, std::ostream* os) {
  *os << '"' << ToUtf8(c.commandLine) << "\", setting "
      << (c.setting ? '"' + ToUtf8(*c.setting) + '"' : std::string("absent"));
}

// Test names: the case's place in the table and what it expects.
std::string CaseName(const ::testing::TestParamInfo<Case>& info) {
  return "Case" + std::to_string(info.index) + (info.param.requested ? "_Traced" : "_Untraced");
}

class Switches : public ::testing::TestWithParam<Case> {};

TEST_P(Switches, FollowTheTracingRequest) {
  const Case& c = GetParam();
  PortablePlatform platform;
  platform.host.SetCommandLine(c.commandLine);
  if (c.setting)
    platform.host.SetSetting(u"Tabforge", u"Init", u"vbwTrace", *c.setting);
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();

  const VariantBool request = ToVariantBool(c.requested);
  EXPECT_EQ(protector.vbwTraceProc, kTrue);
  EXPECT_EQ(protector.vbwTraceParameters, request);
  EXPECT_EQ(protector.mOldTraceProc, request);
  EXPECT_EQ(protector.vbwTraceLine, request);
  EXPECT_EQ(protector.vbwCatchException, kTrue);
  EXPECT_EQ(protector.vbwCallStack, kTrue);
  EXPECT_EQ(protector.vbwSystemInfo, kTrue);
  EXPECT_EQ(protector.vbwScreenshot, kTrue);
  EXPECT_FALSE(protector.vbwEmailRecipientAdress.empty());
  EXPECT_TRUE(protector.StackAllocated());
  EXPECT_EQ(protector.Depth(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLineAndSetting, Switches,
    ::testing::Values(Case{u"WINWORD.EXE", std::nullopt, false},
                      Case{u"WINWORD.EXE /trace", std::nullopt, true},
                      Case{u"WINWORD.EXE /tracer", std::nullopt, true},
                      Case{u"WINWORD.EXE x/trace/y", std::nullopt, true},
                      Case{u"WINWORD.EXE /TRACE", std::nullopt, false},
                      Case{u"WINWORD.EXE /Trace", std::nullopt, false},
                      Case{u"WINWORD.EXE", u"1", true}, Case{u"WINWORD.EXE /trace", u"0", true},
                      Case{u"WINWORD.EXE /trace", u"1", true}, Case{u"WINWORD.EXE", u"01", false},
                      Case{u"WINWORD.EXE", u" 1", false}, Case{u"WINWORD.EXE", u"1 ", false},
                      Case{u"WINWORD.EXE", u"one", false}, Case{u"WINWORD.EXE", u"", false},
                      Case{u"WINWORD.EXE", u"True", false}),
    CaseName);

TEST(SwitchesStartUp, SettingsFileFeedsTheRequest) {
  PortablePlatform platform;
  const std::string path = ::testing::TempDir() + "tabforge-settings.txt";
  {
    std::FILE* f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("# per-user settings\nTabforge/Init/vbwTrace=1\n", f);
    std::fclose(f);
  }
  ASSERT_TRUE(platform.host.LoadSettingsFile(path));
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  EXPECT_EQ(protector.vbwTraceParameters, kTrue);
  EXPECT_FALSE(platform.host.LoadSettingsFile(path + ".missing"));
}

TEST(SwitchesStartUp, SecondApartmentHasItsOwnStack) {
  PortablePlatform platform;
  VbwProtector first(platform.View());
  VbwProtector second(platform.View());
  first.vbwInitializeProtector();
  first.vbwProcIn(u"Main2.Initialize", u"");
  second.vbwInitializeProtector();
  EXPECT_EQ(first.Depth(), 1);
  EXPECT_EQ(second.Depth(), 0);
  EXPECT_EQ(second.StackSlot(1), u"");
}

TEST(SwitchesStartUp, ExitThreadWithoutComponentDoesNothing) {
  PortablePlatform platform;
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  protector.vbwExitThread();
  EXPECT_FALSE(protector.ErrorComponent());
}

TEST(SwitchesStartUp, WithoutStartUpTrackingCountsWithoutNames) {
  PortablePlatform platform;
  VbwProtector protector(platform.View());
  protector.vbwProcIn(u"Main2.Initialize", u"");
  EXPECT_EQ(protector.Depth(), 1);
  EXPECT_FALSE(protector.StackAllocated());
  EXPECT_EQ(protector.StackSlot(1), u"");
}

}  // namespace
}  // namespace tabforge
