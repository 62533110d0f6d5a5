// vorak-sim run as a subprocess, with the plug-in, on short scenarios: the
// report must match the scenario's expected victims, the databases it leaves
// must decode with vorak-db, and nothing but the simulator's own children
// may ever be signalled.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "support/TempDir.h"
#include "support/ToolRun.h"

namespace {

using nlohmann::json;
using kxtest::slurp;
using kxtest::ToolRun;
using testing::HasSubstr;

class VorakSim : public ::testing::Test {
 protected:
  ToolRun run(const std::string& tool, std::vector<std::string> args) {
    args.insert(args.begin(), tool);
    return kxtest::runTool(mDir, VORAK_TOOL_LAUNCHER, args);
  }
  ToolRun sim(std::vector<std::string> args) { return run(VORAK_SIM_TOOL, args); }

  kxtest::TempDir mDir;
};

TEST_F(VorakSim, KillsTheExpectedVictimsAndLeavesDatabasesVorakDbCanRead) {
  // A process of the test's own, outside the simulator: it must survive the run.
  const pid_t bystander = fork();
  ASSERT_GE(bystander, 0);
  if (bystander == 0) {
    for (;;) pause();
  }

  const std::string runDir = mDir.sub("run");
  const ToolRun r = sim({std::string(VORAK_TEST_DATA) + "/evict-one.json", "--run-dir", runDir, "--json"});

  int status = 0;
  EXPECT_EQ(waitpid(bystander, &status, WNOHANG), 0) << "a process outside the simulator died";
  kill(bystander, SIGKILL);
  waitpid(bystander, &status, 0);

  ASSERT_EQ(r.code, 0) << r.err << r.out;
  const json report = json::parse(r.out);
  for (const auto& x : report["expectations"]) EXPECT_TRUE(x["ok"].get<bool>()) << x.dump();

  const auto& launches = report["launches"];
  ASSERT_EQ(launches.size(), 6u);
  // Nothing learnt before the learning run: the early launches free nothing.
  EXPECT_TRUE(launches[0]["learntKB"].is_null());
  EXPECT_EQ(launches[0]["victims"].size(), 0u);
  EXPECT_FALSE(launches[2]["cold"].get<bool>());
  // The last launch knows its need (mean of two exact samples) and the kill covers the amount.
  const auto& last = launches[5];
  EXPECT_EQ(last["app"], "com.test.target");
  EXPECT_EQ(last["learntKB"], 250000);
  EXPECT_GT(last["amountKB"].get<double>(), 20480.0);
  ASSERT_EQ(last["victims"].size(), 1u);
  EXPECT_EQ(last["victims"][0]["by"], "background");
  EXPECT_GE(last["victims"][0]["kb"].get<double>(), last["amountKB"].get<double>());
  EXPECT_EQ(report["summary"]["coveredLaunches"], report["summary"]["askingLaunches"]);

  for (const auto& a : report["apps"]) {
    if (a["name"] != "com.test.target") continue;
    EXPECT_EQ(a["learntRssSwapKB"], 200000);
    EXPECT_EQ(a["learntIonKgslKB"], 50000);
  }

  // The run directory keeps everything.
  for (const char* f : {"report.txt", "report.json", "timeline.svg", "vorak.log", "scenario.json"})
    EXPECT_TRUE(std::ifstream(runDir + "/" + f).good()) << f;
  EXPECT_THAT(slurp(runDir + "/vorak.log"), HasSubstr("Killed PID = "));

  const std::string kx = runDir + "/data/vendor/kx/";
  ToolRun db = run(VORAK_DB_TOOL, {kx + "Vorakaction.db", "--json"});
  ASSERT_EQ(db.code, 0) << db.err;
  bool found = false;
  const json needs = json::parse(db.out);
  for (const auto& row : needs["rows"]) {
    if (row["appName"] != "com.test.target") continue;
    found = true;
    EXPECT_EQ(row["rssSwap"], 200000);
    EXPECT_EQ(row["ionKgsl"], 50000);
  }
  EXPECT_TRUE(found);
  for (const char* f : {"Vorak.db", "VorakServiceIP.db", "VorakServiceOP.db"}) {
    db = run(VORAK_DB_TOOL, {kx + f});
    EXPECT_EQ(db.code, 0) << f << ": " << db.err;
  }
}

TEST_F(VorakSim, TheBuiltInDayLearnsTheTrueNeedsAndCoversWhatItAsks) {
  const std::string runDir = mDir.sub("day");
  const ToolRun r = sim({"--run-dir", runDir, "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  const json summary = json::parse(r.out)["summary"];
  EXPECT_GE(summary["appsLearnt"].get<int>(), 10);
  EXPECT_LT(summary["meanLearntErrorPct"].get<double>(), 10.0);
  EXPECT_GT(summary["askingLaunches"].get<int>(), 0);
  EXPECT_EQ(summary["coveredLaunches"], summary["askingLaunches"]);
  EXPECT_GT(summary["killsFavourite"].get<int>(), 0) << "favourites of the slot are found among running apps";

  // Every file the plug-in and the host left decodes.
  const std::string kx = runDir + "/data/vendor/kx/";
  for (const char* f : {"Vorak.db", "Vorakaction.db", "VorakServiceIP.db", "VorakServiceOP.db", "VorakAppState.db"}) {
    const ToolRun db = run(VORAK_DB_TOOL, {kx + f});
    EXPECT_EQ(db.code, 0) << f << ": " << db.err;
    EXPECT_FALSE(db.out.empty()) << f;
  }
}

TEST_F(VorakSim, RejectsBrokenScenariosWithOneLine) {
  const std::string full = slurp(std::string(VORAK_TEST_DATA) + "/evict-one.json");
  const std::string cut = mDir.write("cut.json", full.substr(0, full.size() / 2));
  std::string noise;
  for (int i = 0; i < 4096; ++i) noise += static_cast<char>((i * 7919) % 251);
  const std::string random = mDir.write("random.json", noise);
  for (const auto& path : {cut, random, mDir.sub("absent.json")}) {
    const ToolRun r = sim({path, "--run-dir", mDir.sub("never")});
    EXPECT_EQ(r.code, 2) << path;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.err.rfind("vorak-sim: " + path, 0), 0u) << r.err;
  }
  EXPECT_EQ(sim({"--bogus"}).code, 2);
  const ToolRun help = sim({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_THAT(help.out, HasSubstr("--run-dir"));
}

TEST_F(VorakSim, AMissingPluginOrModelIsAClearError) {
  ToolRun r = sim({std::string(VORAK_TEST_DATA) + "/evict-one.json", "--run-dir", mDir.sub("a"), "--plugin",
                   mDir.sub("none.so")});
  EXPECT_EQ(r.code, 2);
  EXPECT_THAT(r.err, HasSubstr("cannot load the plug-in"));
  r = sim({std::string(VORAK_TEST_DATA) + "/evict-one.json", "--run-dir", mDir.sub("b"), "--models", mDir.path()});
  EXPECT_EQ(r.code, 2);
  EXPECT_THAT(r.err, HasSubstr("no vorak_*.data model files"));
}

TEST_F(VorakSim, UnmetExpectationsFailTheRun) {
  std::string scenario = slurp(std::string(VORAK_TEST_DATA) + "/evict-one.json");
  const std::string want = "\"victims\": [\"com.test.unfinished\"]";
  const auto at = scenario.find(want);
  ASSERT_NE(at, std::string::npos);
  scenario.replace(at, want.size(), "\"victims\": [\"com.test.filler.one\"]");
  const ToolRun r = sim({mDir.write("wrong.json", scenario), "--run-dir", mDir.sub("run"), "-q"});
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("expected victims not met"));
  EXPECT_THAT(slurp(mDir.sub("run/report.txt")), HasSubstr("launch 6: MISMATCH"));
}

}  // namespace
