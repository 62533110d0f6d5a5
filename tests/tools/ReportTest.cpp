// The report's figures: what counts as a kill, an over-kill, a covered
// amount and a launch short of memory, and the expected-victims check.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  EXPECT_EQ(s.launches, 3u);
  EXPECT_EQ(s.kills, 5u);
  EXPECT_EQ(s.killsBackground, 1u);
  EXPECT_EQ(s.killsUser, 1u);
  EXPECT_EQ(s.killsFavourite, 1u);
  EXPECT_EQ(s.killsDevice, 2u);  // one during a launch, one outside
  EXPECT_DOUBLE_EQ(s.freedKB, 51200 + 102400 + 40960);  // the low-memory killer's are not the plug-in's
  EXPECT_DOUBLE_EQ(s.askedKB, 102400 + 81920);
  EXPECT_DOUBLE_EQ(s.overKillKB, 51200);
  EXPECT_EQ(s.askingLaunches, 2u);
  EXPECT_EQ(s.coveredLaunches, 1u);
  EXPECT_EQ(s.outsideWindow, 0u);
  EXPECT_EQ(s.lackingLaunches, 2u);
  EXPECT_EQ(s.lackingUnlearnt, 1u);
  EXPECT_EQ(s.lackedKB, 50000u);
  EXPECT_EQ(s.appsLearnt, 1u);
  EXPECT_NEAR(s.meanLearntErrorPct, 1.0, 1e-9);  // 202000 learnt for 200000
  EXPECT_EQ(s.coldByPolicyKills, 1u);
  EXPECT_EQ(s.coldByDeviceKills, 1u);
  EXPECT_EQ(s.killsByPolicy, 3u);
  EXPECT_DOUBLE_EQ(s.launchMsMean, 2000);
  EXPECT_DOUBLE_EQ(s.launchMsP95, 3000);  // nearest rank: the third of three
  EXPECT_DOUBLE_EQ(s.launchMsTotal, 6000);
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
  EXPECT_EQ(e->kind, PluginEvent::Kind::Kill);
  EXPECT_EQ(e->pid, 4321);
  EXPECT_EQ(e->kb, 409600);
  EXPECT_EQ(e->by, KillBy::Background);
  EXPECT_EQ(parsePluginLine("VorakAction: vorak() 250: Killed User PID = 8, to Free Memory = 10 KB")->by,
            KillBy::User);

  e = parsePluginLine(
      "VorakAction: applyAction() 90: (appName,hintID,memoryToGenerate,memoryGenerated, surplusMemory) = "
      "(com.example.maps ,4225, 86016.500000, 120000.000000, 33983.500000)");
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->kind, PluginEvent::Kind::AppPass);
  EXPECT_EQ(e->app, "com.example.maps");
  EXPECT_DOUBLE_EQ(e->amountKB, 86016.5);
  EXPECT_DOUBLE_EQ(e->freedKB, 120000.0);

  e = parsePluginLine(
      "VorakAction: applyAction() 99: (Service - appName,hintID,memoryToGenerate,memoryGenerated, "
      "surplusServiceMemory) = (com.a ,4225, 0.000000, 0.000000, -5.000000)");
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->kind, PluginEvent::Kind::ServicePass);
  EXPECT_EQ(e->app, "com.a");

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
