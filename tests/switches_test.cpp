// Start-up of the tracing module: the switches that follow the tracing request, from the command
// line and from the settings, and what is tracked before and after start-up.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "golden.h"
#include "platform/portable/portable_platform.h"
#include "tracing/vbw_protector.h"

namespace tabforge {
namespace {

TEST(Switches, FollowTheTracingRequestOfTheCommandLineOrTheSetting) {
  for (const auto& c : testing::ReadCases("tests/switches.txt")) {
    const std::vector<std::string> fields = testing::Fields(c.header);
    ASSERT_EQ(fields.size(), 3u) << c.header;
    PortablePlatform platform;
    platform.host.SetCommandLine(FromUtf8(fields[0]));
    if (fields[1] != "-")
      platform.host.SetSetting(u"Tabforge", u"Init", u"vbwTrace",
                               FromUtf8(fields[1].substr(1, fields[1].size() - 2)));
    VbwProtector protector(platform.View());
    protector.vbwInitializeProtector();
    const VariantBool request = ToVariantBool(fields[2] == "yes");
    EXPECT_EQ(protector.vbwTraceParameters, request) << c.header;
    EXPECT_EQ(protector.mOldTraceProc, request) << c.header;
    EXPECT_EQ(protector.vbwTraceLine, request) << c.header;
    EXPECT_EQ(protector.vbwTraceProc, kTrue) << c.header;
    EXPECT_TRUE(protector.StackAllocated()) << c.header;
  }

  // The same request from a settings file.
  PortablePlatform platform;
  const std::string path = ::testing::TempDir() + "tabforge-settings.txt";
  std::ofstream(path) << "# per-user settings\nTabforge/Init/vbwTrace=1\n";
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
