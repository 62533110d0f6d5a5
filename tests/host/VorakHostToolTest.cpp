// Runs the vorak-host program against the test plug-in.
#include <gtest/gtest.h>

#include <string>

#include "support/TempDir.h"
#include "support/ToolRun.h"

namespace {

using kxtest::ToolRun;

// `args` are shell words already; `env` holds variable assignments.
ToolRun runTool(const kxtest::TempDir& dir, const std::string& args, const std::string& env = "") {
  return kxtest::runTool(dir, env + " " VORAK_HOST_TOOL_LAUNCHER " " VORAK_HOST_TOOL " " + args, {});
}

TEST(VorakHostTool, LoadsThePluginAndReportsEachRegisteredFeature) {
  kxtest::TempDir dir;
  ToolRun r = runTool(dir, KX_TEST_PLUGIN, "KX_PROPERTIES=");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "plug-in: " KX_TEST_PLUGIN "\nregistered: TestFeature\nTestFeature: enabled\n");
  // One that disabled itself from the host's properties is reported so.
  r = runTool(dir, KX_TEST_PLUGIN, "KX_PROPERTIES=" + dir.write("props", "kxtest.feature.disable=true\n"));
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("TestFeature: disabled\n"), std::string::npos) << r.out;
}

TEST(VorakHostTool, FailsWithOneLineErrors) {
  kxtest::TempDir dir;
  ToolRun missing = runTool(dir, dir.sub("nothing.so"));
  EXPECT_EQ(missing.code, 1);
  EXPECT_EQ(missing.err.rfind("vorak-host: cannot load " + dir.sub("nothing.so"), 0), 0u) << missing.err;
  EXPECT_EQ(missing.err.find('\n'), missing.err.size() - 1);

  ToolRun option = runTool(dir, "--bogus");
  EXPECT_EQ(option.code, 2);
  EXPECT_EQ(option.err, "vorak-host: unknown option '--bogus' (see --help)\n");

  ToolRun help = runTool(dir, "--help");
  EXPECT_EQ(help.code, 0);
  EXPECT_EQ(help.out.rfind("usage: vorak-host", 0), 0u);
}

}  // namespace
