// vorak-sim run as a subprocess, with the plug-in, on short scenarios: the
// report must match the scenario's expected victims, the databases it leaves
// must decode with vorak-db, and nothing but the simulator's own children
// may ever be signalled.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <map>

#include <nlohmann/json.hpp>

#include "support/Sleepers.h"
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
  kxtest::Sleepers sleepers;
  const pid_t bystander = sleepers.start();

  const std::string runDir = mDir.sub("run"), scenario = std::string(VORAK_TEST_DATA) + "/evict-one.json";
  // The scenario's victims are those of safeload 0.22, whatever the shipped model says.
  const ToolRun r = sim({scenario, "--policy", "vorak:safeload=0.22", "--run-dir", runDir});

  EXPECT_EQ(waitpid(bystander, nullptr, WNOHANG), 0) << "a process outside the simulator died";

  ASSERT_EQ(r.code, 0) << r.err << r.out;
  EXPECT_THAT(r.out, HasSubstr("side by side: " + std::string(VORAK_SIM_TOOL) + " " + scenario + " --compare"));
  const json report = json::parse(slurp(runDir + "/report.json"));
  for (const auto& x : report["expectations"]) EXPECT_TRUE(x["ok"].get<bool>()) << x.dump();

  const auto& launches = report["launches"];
  ASSERT_EQ(launches.size(), 6u);
  // Nothing learnt before the learning run: the early launches free nothing.
  EXPECT_EQ(launches[0]["victims"].size(), 0u);
  // The last launch knows its need (mean of two exact samples) and the kill covers the amount.
  const auto& last = launches[5];
  EXPECT_EQ(last["app"], "com.test.target");
  EXPECT_EQ(last["learntKB"], 250000);
  EXPECT_GT(last["amountKB"].get<double>(), 20480.0);
  ASSERT_EQ(last["victims"].size(), 1u);
  EXPECT_EQ(last["victims"][0]["by"], "background");
  EXPECT_GE(last["victims"][0]["kb"].get<double>(), last["amountKB"].get<double>());
  EXPECT_EQ(report["summary"]["coveredLaunches"], report["summary"]["askingLaunches"]);

  // The run directory keeps everything.
  for (const char* f : {"report.txt", "report.json", "timeline.svg", "vorak.log", "scenario.json"})
    EXPECT_TRUE(std::ifstream(runDir + "/" + f).good()) << f;
  EXPECT_THAT(slurp(runDir + "/vorak.log"), HasSubstr("Killed PID = "));

  // The databases it leaves decode (the learnt rows are those the report read).
  const std::string kx = runDir + "/data/vendor/kx/";
  for (const char* f : {"Vorakaction.db", "Vorak.db", "VorakServiceIP.db", "VorakServiceOP.db", "VorakAppState.db"}) {
    const ToolRun db = run(VORAK_DB_TOOL, {kx + f});
    EXPECT_EQ(db.code, 0) << f << ": " << db.err;
  }
}

// The launch time each launch was given, from the parts the report lists and
// the device's prices in the run's scenario.
double priced(const json& launch, const json& device) {
  const double base = launch["cold"].get<bool>() ? device["coldLaunchMs"].get<double>() : device["warmLaunchMs"].get<double>();
  auto part = [&](const char* kb, const char* price) {
    return launch[kb].get<double>() / 1024.0 * device[price].get<double>();
  };
  return base + part("cacheDroppedKB", "cacheRefaultMsPerMB") + part("swappedOutKB", "zramCompressMsPerMB") +
         part("swappedInKB", "zramDecompressMsPerMB") + part("lmkWaitKB", "lmkWaitMsPerMB");
}

TEST_F(VorakSim, ComparesPoliciesOnTheBuiltInDayWhereOnlyThePolicyUnderTestKills) {
  const std::string dir = mDir.sub("cmp");
  const ToolRun r = sim({"--compare", "--run-dir", dir});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("launch time, mean"));
  std::map<std::string, json> s;
  const json compared = json::parse(slurp(dir + "/report.json"));
  for (const auto& p : compared["policies"]) s[p["policy"].get<std::string>()] = p["summary"];
  ASSERT_EQ(s.size(), 3u);
  EXPECT_EQ(s["vorak"]["launches"], s["none"]["launches"]);

  // The plug-in learns the true needs and mostly covers what it asks (not
  // always: it may run out of processes it is allowed to kill).
  EXPECT_GE(s["vorak"]["appsLearnt"].get<int>(), 10);
  EXPECT_LT(s["vorak"]["meanLearntErrorPct"].get<double>(), 10.0);
  EXPECT_GE(s["vorak"]["coveredLaunches"].get<double>(), 0.9 * s["vorak"]["askingLaunches"].get<double>());
  // Switched off, it never acts: only the low-memory killer kills.
  EXPECT_EQ(s["none"]["killsByPolicy"], 0);
  EXPECT_GT(s["none"]["killsDevice"].get<int>(), 0);
  EXPECT_THAT(slurp(dir + "/none/vorak.log"), testing::Not(testing::ContainsRegex("Killed|applyAction")));
  // Knowing every need, the oracle leaves no launch short and the killer idle.
  EXPECT_EQ(s["oracle"]["lackingLaunches"], 0);
  EXPECT_EQ(s["oracle"]["killsDevice"], 0);

  // Each launch is priced by its parts; under pressure every part occurs.
  const json none = json::parse(slurp(dir + "/none/report.json"));
  const json device = json::parse(slurp(dir + "/none/scenario.json"))["device"];
  std::map<std::string, int> seen;
  for (const auto& l : none["launches"]) {
    EXPECT_NEAR(l["launchMs"].get<double>(), priced(l, device), 1e-6) << l.dump();
    for (const char* k : {"cacheDroppedKB", "swappedOutKB", "swappedInKB", "lmkWaitKB"}) seen[k] += l[k] > 0;
    seen[l["coldCause"].get<std::string>()] += 1;
  }
  for (const char* k : {"cacheDroppedKB", "swappedOutKB", "swappedInKB", "lmkWaitKB", "warm"})
    EXPECT_GT(seen[k], 0) << k;
  EXPECT_EQ(seen["killed by the low-memory killer"], s["none"]["coldCausedByLowMemoryKiller"]);
  EXPECT_EQ(std::system(("xmllint --noout " + dir + "/compare.svg").c_str()), 0);
}

TEST_F(VorakSim, ImportsAnEventLogIntoAScenarioItPlays) {
  const std::string data = VORAK_TEST_DATA;
  const std::string scenario = mDir.sub("imported.json");
  const ToolRun r = sim({"import", data + "/sample-events.log", "--figures", data + "/sample-figures.csv", "--year",
                         "2025", "-o", scenario});
  ASSERT_EQ(r.code, 0) << r.err;
  // Two warnings (bad lines, apps without figures) and the summary, one line each.
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 3) << r.err;
  EXPECT_THAT(r.err, HasSubstr("lines skipped: 21, 29"));
  EXPECT_THAT(r.err, HasSubstr("imported 30 launches of 8 apps and 2 removals"));
  const ToolRun played = sim({scenario, "--compare", "--policies", "vorak,none", "--run-dir", mDir.sub("run"), "-q"});
  ASSERT_EQ(played.code, 0) << played.err;
  const json report = json::parse(slurp(mDir.sub("run/report.json")));
  for (const auto& p : report["policies"]) EXPECT_EQ(p["summary"]["launches"], 30) << p["policy"];
}

// Broken scenarios, unusable logs, plug-ins and models, and bad usage: status
// 2 and one line, naming the file where there is one.
TEST_F(VorakSim, RefusesWhatItCannotPlayWithOneLine) {
  const std::string data = VORAK_TEST_DATA, evict = data + "/evict-one.json", log = data + "/sample-events.log";
  std::string noise;  // with line breaks and bytes that are no text
  for (int i = 0; i < 4096; ++i) noise += static_cast<char>((i * 7919) % 251);
  const std::string never = mDir.sub("never");
  // A scenario file that cannot be played, and what the line says after the tool's name.
  auto scenario = [&](const std::string& path, const std::string& says) {
    return std::make_pair(std::vector<std::string>{path, "--run-dir", never}, "vorak-sim: " + path + says);
  };
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      scenario(mDir.write("cut.json", slurp(evict).substr(0, 1000)), ""),
      scenario(mDir.write("random.json", noise), ""),
      scenario(mDir.write("huge.json", R"({"seed": 1e400})"), ""),
      scenario(mDir.write("bad.json", R"({"apps": 3})"), ": apps"),
      scenario(mDir.sub("absent.json"), ""),
      scenario(mDir.path(), ": is a directory"),
      scenario("/dev/zero", ": larger than 64 MiB"),  // endless: stops at the bound
      {{evict, "--run-dir", never, "--plugin", mDir.sub("none.so")}, "cannot load the plug-in"},
      {{evict, "--run-dir", never, "--models", mDir.path()}, "no vorak_*.data model files"},
      {{"import", log}, ""},  // its dates have no year
      {{"import", mDir.path(), "--year", "2025"}, ""},
      {{"import", log, "--year", "2025", "--figures", mDir.write("f.csv", "a.b,1,2,3\nc.d,1,2\n")}, ""},
      {{"import", log, "--year", "2025", "--device", "3"}, ""},
      {{"import"}, ""}, {{"--bogus"}, ""}, {{"--policy", "lru"}, ""}, {{"--generate", "--days", "0"}, ""},
      {{"--days", "3"}, ""}, {{"x.json", "--builtin", "week"}, ""}, {{"--device", "2"}, ""},
      {{"--builtin", "week", "--device", "3"}, ""},
  };
  for (const auto& [args, says] : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    const ToolRun r = sim(args);
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_THAT(r.err, HasSubstr(says));
  }
  const ToolRun help = sim({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_THAT(help.out, HasSubstr("--run-dir"));
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
