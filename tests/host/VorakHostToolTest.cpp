// Runs the vorak-host program against the test plug-in.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "support/TempDir.h"

namespace {

struct ToolRun {
  int status;
  std::string out;
  std::string err;
};

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

ToolRun runTool(const kxtest::TempDir& dir, const std::string& args, const std::string& env = "") {
  std::string cmd = env + " " VORAK_HOST_TOOL_LAUNCHER " " VORAK_HOST_TOOL " " + args + " >" + dir.sub("out") +
                    " 2>" + dir.sub("err");
  int raw = std::system(cmd.c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(dir.sub("out")), slurp(dir.sub("err"))};
}

TEST(VorakHostTool, LoadsThePluginAndReportsEachRegisteredFeature) {
  kxtest::TempDir dir;
  ToolRun r = runTool(dir, KX_TEST_PLUGIN, "KX_PROPERTIES=");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "plug-in: " KX_TEST_PLUGIN "\nregistered: TestFeature\nTestFeature: enabled\n");
}

TEST(VorakHostTool, ReportsAFeatureThatDisabledItselfFromTheHostsProperties) {
  kxtest::TempDir dir;
  std::string props = dir.write("props", "kxtest.feature.disable=true\n");
  ToolRun r = runTool(dir, KX_TEST_PLUGIN, "KX_PROPERTIES=" + props);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("TestFeature: disabled\n"), std::string::npos) << r.out;
}

TEST(VorakHostTool, FailsWithOneLineErrors) {
  kxtest::TempDir dir;
  ToolRun missing = runTool(dir, dir.sub("nothing.so"));
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err.rfind("vorak-host: cannot load " + dir.sub("nothing.so"), 0), 0u) << missing.err;
  EXPECT_EQ(missing.err.find('\n'), missing.err.size() - 1);

  ToolRun option = runTool(dir, "--bogus");
  EXPECT_EQ(option.status, 2);
  EXPECT_EQ(option.err, "vorak-host: unknown option '--bogus' (see --help)\n");

  ToolRun help = runTool(dir, "--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: vorak-host", 0), 0u);
}

}  // namespace
