// The report's figures: what counts as a kill, an over-kill, a covered
// amount and a launch short of memory, and the expected-victims check.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "Picture.h"
#include "PluginLog.h"
#include "Report.h"

namespace {

using testing::HasSubstr;
using vsim::KillBy;
using vsim::LaunchRecord;
using vsim::Report;
using vsim::Victim;

LaunchRecord launch(int index, const std::string& app, double amount, std::vector<Victim> victims,
                    std::optional<uint64_t> learnt = 200000, uint64_t lacked = 0) {
  LaunchRecord r;
  r.index = index;
  r.at = 8 * 3600.0 + index * 300;
  r.app = app;
  r.trueKB = 210000;
  r.learntKB = learnt;
  r.amountKB = amount;
  r.answered = true;
  for (const auto& v : victims) r.freedKB += static_cast<double>(v.kb);
  r.victims = std::move(victims);
  r.lackedKB = lacked;
  // Launch n cold because the policy (n = 2) or the killer (n = 3) took its app, in n seconds.
  r.coldCause = index == 2 ? vsim::ColdCause::KilledByPolicy : index == 3 ? vsim::ColdCause::KilledByDevice
                                                                          : vsim::ColdCause::First;
  r.launchMs = index * 1000.0;
  return r;
}

Report sample() {
  Report rep;
  rep.scenarioName = "day & night";
  rep.deviceClass = "4GB";
  rep.totalKB = 3870000;
  // 1: nothing learnt yet, short of memory; 2: asked 100 MB, freed 150 MB
  // (two kills); 3: asked 80 MB, got 40 MB and the low-memory killer took one.
  rep.addLaunch(launch(1, "com.a", 0, {}, std::nullopt, 30000));
  rep.addLaunch(launch(2, "com.b", 102400,
                       {{"com.c", 11, 51200, KillBy::Background, false}, {"com.d", 12, 102400, KillBy::User, false}}));
  rep.addLaunch(launch(3, "com.c", 81920,
                       {{"com.e", 13, 40960, KillBy::Favourite, false}, {"com.f", 14, 9000, KillBy::Device, false}},
                       200000, 20000));
  rep.addDeviceKill(9 * 3600.0, {"com.g", 15, 7000, KillBy::Background, false});
  rep.addApp({"com.a", 50000, 150000, 48000, 154000, 3, 0, "learnt"});
  rep.addApp({"com.b", 10000, 90000, std::nullopt, std::nullopt, 1, 0, "collecting"});
  rep.addPoint({8 * 3600.0, 900000, 1500000});
  rep.addPoint({9 * 3600.0, 500000, 1100000});
  return rep;
}

TEST(ReportTest, SummaryCountsKillsOverKillCoverageAndShortLaunches) {
  const auto s = sample().summary();
  // Kills by whom: one by the low-memory killer during a launch, one outside.
  EXPECT_EQ(std::vector<size_t>({s.launches, s.kills, s.killsBackground, s.killsUser, s.killsFavourite,
                                 s.killsDevice, s.killsByPolicy, s.coldByPolicyKills, s.coldByDeviceKills}),
            std::vector<size_t>({3, 5, 1, 1, 1, 2, 3, 1, 1}));
  // The low-memory killer's kills are not the plug-in's.
  EXPECT_EQ(std::vector<double>({s.freedKB, s.askedKB, s.overKillKB}),
            std::vector<double>({51200 + 102400 + 40960, 102400 + 81920, 51200}));
  EXPECT_EQ(std::vector<size_t>({s.askingLaunches, s.coveredLaunches, s.outsideWindow, s.lackingLaunches,
                                 s.lackingUnlearnt, s.lackedKB, s.appsLearnt}),
            std::vector<size_t>({2, 1, 0, 2, 1, 50000, 1}));
  EXPECT_NEAR(s.meanLearntErrorPct, 1.0, 1e-9);  // 202000 learnt for 200000
  // Nearest rank: the p95 of three is the third.
  EXPECT_EQ(std::vector<double>({s.launchMsMean, s.launchMsP95, s.launchMsTotal}),
            std::vector<double>({2000, 3000, 6000}));
}

TEST(ReportTest, ExpectedVictimsAreComparedAsSetsOfThePluginsKills) {
  const Report rep = sample();
  const auto results = rep.check({{2, {"com.d", "com.c"}}, {3, {"com.e", "com.f"}}, {1, {}}});
  ASSERT_EQ(results.size(), 3u);
  EXPECT_TRUE(results[0].ok);
  EXPECT_FALSE(results[1].ok);  // com.f went to the low-memory killer, not the plug-in
  EXPECT_EQ(results[1].actual, std::vector<std::string>{"com.e"});
  EXPECT_TRUE(results[2].ok);

  const std::string text = rep.toText({{3, {"com.e", "com.f"}}});
  EXPECT_THAT(text, HasSubstr("launch 3: MISMATCH (expected com.e, com.f; got com.e)"));
  EXPECT_THAT(text, HasSubstr("com.c (bg 50 MB), com.d (user 100 MB)"));
  EXPECT_THAT(text, HasSubstr("[short of 29 MB]"));
  EXPECT_THAT(text, HasSubstr("+1.0 %"));

  const auto j = rep.toJson({{3, {"com.e"}}});
  EXPECT_TRUE(j["launches"][0]["learntKB"].is_null());
  EXPECT_EQ(j["launches"][1]["victims"][1]["by"], "user-launched");
  EXPECT_EQ(j["summary"]["kills"], 5);
  EXPECT_TRUE(j["expectations"][0]["ok"].get<bool>());
}

}  // namespace

namespace {

using vsim::parsePluginLine;
using vsim::PluginEvent;

// The kill action's lines as its log shows them, prefix included.
TEST(PluginLogTest, ReadsTheKillActionsDecisionsAndKills) {
  auto e = parsePluginLine("VorakAction: vorak() 210: Killed PID = 4321, to Free Memory = 409600 KB");
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(std::make_tuple(e->kind, e->pid, e->kb, e->by),
            std::make_tuple(PluginEvent::Kind::Kill, 4321, 409600L, KillBy::Background));
  EXPECT_EQ(parsePluginLine("VorakAction: vorak() 250: Killed User PID = 8, to Free Memory = 10 KB")->by,
            KillBy::User);

  e = parsePluginLine(
      "VorakAction: applyAction() 90: (appName,hintID,memoryToGenerate,memoryGenerated, surplusMemory) = "
      "(com.example.maps ,4225, 86016.500000, 120000.000000, 33983.500000)");
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(std::make_tuple(e->kind, e->app, e->amountKB, e->freedKB),
            std::make_tuple(PluginEvent::Kind::AppPass, std::string("com.example.maps"), 86016.5, 120000.0));

  e = parsePluginLine(
      "VorakAction: applyAction() 99: (Service - appName,hintID,memoryToGenerate,memoryGenerated, "
      "surplusServiceMemory) = (com.a ,4225, 0.000000, 0.000000, -5.000000)");
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(std::make_tuple(e->kind, e->app), std::make_tuple(PluginEvent::Kind::ServicePass, std::string("com.a")));

  e = parsePluginLine(
      "VorakFeature: VorakFeature() 83: Fatal! : Failed to open file /vendor/etc/kx/vorak/vorak_4GB.data. "
      "Disabling the Vorak Feature. Err = No such file or directory\n");
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->kind, PluginEvent::Kind::Disabled);
  EXPECT_EQ(e->text.rfind("Fatal! : Failed to open file", 0), 0u);

  EXPECT_FALSE(parsePluginLine("VorakAction: vorak() 210: Killed PID = x").has_value());
  EXPECT_FALSE(parsePluginLine("VorakAlgo: runAlgo() 20: runAlgo called ").has_value());
}

}  // namespace
