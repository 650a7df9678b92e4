// Start-up of the tracing module: the switches that follow the tracing request, from the command
// line and from the settings, and what is tracked before and after start-up.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "platform/portable/portable_platform.h"
#include "tracing/vbw_protector.h"

namespace tabforge {
namespace {

TEST(Switches, FollowTheTracingRequestOfTheCommandLineOrTheSetting) {
  struct Case {
    const char16_t* commandLine;
    std::optional<const char16_t*> setting;
    bool requested;
  };
  const Case cases[] = {
      {u"WINWORD.EXE", std::nullopt, false},
      {u"WINWORD.EXE /trace", std::nullopt, true},
      {u"WINWORD.EXE /tracer", std::nullopt, true},
      {u"WINWORD.EXE x/trace/y", std::nullopt, true},
      {u"WINWORD.EXE /TRACE", std::nullopt, false},
      {u"WINWORD.EXE /Trace", std::nullopt, false},
      {u"WINWORD.EXE", u"1", true},
      {u"WINWORD.EXE /trace", u"0", true},
      {u"WINWORD.EXE", u"01", false},
      {u"WINWORD.EXE", u" 1", false},
      {u"WINWORD.EXE", u"1 ", false},
      {u"WINWORD.EXE", u"one", false},
      {u"WINWORD.EXE", u"", false},
      {u"WINWORD.EXE", u"True", false},
  };
  for (const Case& c : cases) {
    PortablePlatform platform;
    platform.host.SetCommandLine(c.commandLine);
    if (c.setting)
      platform.host.SetSetting(u"Tabforge", u"Init", u"vbwTrace", *c.setting);
    VbwProtector protector(platform.View());
    protector.vbwInitializeProtector();
    const std::string where =
        ToUtf8(c.commandLine) + ", setting " + ToUtf8(c.setting.value_or(u"-"));
    const VariantBool request = ToVariantBool(c.requested);
    EXPECT_EQ(protector.vbwTraceParameters, request) << where;
    EXPECT_EQ(protector.mOldTraceProc, request) << where;
    EXPECT_EQ(protector.vbwTraceLine, request) << where;
    EXPECT_EQ(protector.vbwTraceProc, kTrue) << where;
    EXPECT_TRUE(protector.StackAllocated()) << where;
  }

  // The same request from a settings file.
  PortablePlatform platform;
  const std::string path = ::testing::TempDir() + "tabforge-settings.txt";
  std::FILE* f = std::fopen(path.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fputs("# per-user settings\nTabforge/Init/vbwTrace=1\n", f);
  std::fclose(f);
  ASSERT_TRUE(platform.host.LoadSettingsFile(path));
  EXPECT_FALSE(platform.host.LoadSettingsFile(path + ".missing"));
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  EXPECT_EQ(protector.vbwTraceParameters, kTrue);
}

TEST(Switches, EachApartmentTracksOnItsOwnAndNamesOnlyAfterStartUp) {
  PortablePlatform platform;
  VbwProtector first(platform.View());
  VbwProtector second(platform.View());
  first.vbwProcIn(u"Main2.Initialize", u"");  // before start-up: counted, not named
  EXPECT_EQ(first.Depth(), 1);
  EXPECT_FALSE(first.StackAllocated());
  EXPECT_EQ(first.StackSlot(1), u"");
  first.vbwInitializeProtector();
  first.vbwProcIn(u"Main2.Initialize", u"");
  second.vbwInitializeProtector();
  EXPECT_EQ(first.StackSlot(2), u"Main2.Initialize");
  EXPECT_EQ(second.Depth(), 0);
  EXPECT_EQ(second.StackSlot(1), u"");
  second.vbwExitThread();  // without a component: nothing
  EXPECT_FALSE(second.ErrorComponent());
}

}  // namespace
}  // namespace tabforge
