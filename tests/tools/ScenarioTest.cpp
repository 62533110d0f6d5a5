// Scenario files: what they expand to, what they reject (with the offending
// member named), and the built-in day.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "Scenario.h"
#include "support/TempDir.h"

namespace {

using testing::HasSubstr;
using vsim::EventType;
using vsim::parseScenario;
using vsim::ScenarioError;

const char* const kMinimal = R"({
  "name": "two apps",
  "device": {"class": "2GB", "coldLaunchMs": 2500},
  "samplesThreshold": 2,
  "services": [{"name": "svc.push", "rssSwapKB": 20000, "oomAdj": 500}],
  "apps": [
    {"name": "com.a", "rssSwapKB": 150000, "ionKgslKB": 30000, "services": ["svc.push"], "warmLaunchMs": 120},
    {"name": "com.b", "rssSwapKB": 90000}
  ],
  "events": [
    {"at": "08:00", "type": "open", "app": "com.b"},
    {"at": 100, "type": "service", "service": "svc.push"},
    {"at": "08:00:30", "type": "complete", "app": "com.a", "hintType": 102},
    {"at": "09:00", "type": "learn"}
  ],
  "expect": [{"launch": 1, "victims": []}]
})";

std::string errorOf(const std::string& text) {
  try {
    parseScenario(text);
  } catch (const ScenarioError& e) {
    return e.what();
  }
  return "";
}

std::string withEvents(const std::string& events) {
  return R"({"apps": [{"name": "com.a", "rssSwapKB": 1000}], "events": )" + events + "}";
}

TEST(ScenarioTest, ParsesDeviceAppsAndExpandsOpenIntoItsThreeSteps) {
  const auto sc = parseScenario(kMinimal);
  // Launch costs: the class's figures unless the scenario gives its own.
  EXPECT_EQ(sc.device.costs.coldLaunchMs, 2500);
  EXPECT_EQ(sc.device.costs.lmkWaitMsPerMB, vsim::LaunchCosts::forClass(2)->lmkWaitMsPerMB);
  EXPECT_EQ(sc.app("com.a")->warmLaunchMs, 120);
  EXPECT_FALSE(sc.app("com.b")->warmLaunchMs.has_value());
  EXPECT_EQ(sc.samplesThreshold, 2u);
  ASSERT_EQ(sc.apps.size(), 2u);
  EXPECT_EQ(sc.app("com.a")->needKB(), 180000u);
  EXPECT_EQ(sc.service("svc.push")->oomAdj, 500);

  // Sorted by time: service at 100 s, then the open at 08:00 (prepare, launch, complete 2 s later), ...
  ASSERT_EQ(sc.events.size(), 6u);
  EXPECT_EQ(sc.events[0].type, EventType::Service);
  EXPECT_EQ(sc.events[1].type, EventType::Prepare);
  EXPECT_EQ(sc.events[2].type, EventType::Launch);
  EXPECT_EQ(sc.events[2].at, 8 * 3600.0);
  EXPECT_EQ(sc.events[3].type, EventType::Complete);
  EXPECT_EQ(sc.events[3].at, 8 * 3600.0 + 2);
  EXPECT_EQ(sc.events[4].hintType, 102);
  EXPECT_EQ(sc.events[5].type, EventType::Learn);
  EXPECT_EQ(sc.launchCount(), 1u);
  ASSERT_EQ(sc.expectations.size(), 1u);
  EXPECT_TRUE(sc.expectations[0].victims.empty());
}

TEST(ScenarioTest, RejectsMistakesNamingWhereTheyAre) {
  EXPECT_THAT(errorOf("{"), HasSubstr("not valid JSON"));
  EXPECT_THAT(errorOf(R"({"apps": [], "events": []})"), HasSubstr("apps: expected a non-empty array"));
  EXPECT_THAT(errorOf(R"({"apps": [{"name": "x", "rssSwapKB": 1}], "events": [], "colour": 1})"),
              HasSubstr("unknown member 'colour'"));
  EXPECT_THAT(errorOf(R"({"apps": [{"name": "x", "rssSwapKB": 0}], "events": []})"),
              HasSubstr("apps[0].rssSwapKB: must be above 0"));
  EXPECT_THAT(errorOf(R"({"apps": [{"name": "a/b", "rssSwapKB": 5}], "events": []})"),
              HasSubstr("apps[0].name: 'a/b' is not a valid name: contains '/'"));
  EXPECT_THAT(errorOf(R"({"device": {"coldLaunchMs": -1}, "apps": [], "events": []})"),
              HasSubstr("device.coldLaunchMs: must lie in"));
  std::string many = R"({"events": [], "apps": [)";
  for (size_t i = 0; i <= vsim::kMaxApps; ++i)
    many += (i ? "," : "") + std::string(R"({"name": "a)") + std::to_string(i) + R"(", "rssSwapKB": 5})";
  EXPECT_THAT(errorOf(many + "]}"), HasSubstr("apps: more than 500 (the simulator's bound)"));
  EXPECT_THAT(errorOf(R"({"apps": [{"name": "x", "rssSwapKB": 5}, {"name": "x", "rssSwapKB": 5}], "events": []})"),
              HasSubstr("apps[1].name: 'x' is defined twice"));
  EXPECT_THAT(errorOf(R"({"apps": [{"name": "x", "rssSwapKB": 5, "services": ["s"]}], "events": []})"),
              HasSubstr("apps[0].services: unknown service 's'"));
  EXPECT_THAT(errorOf(R"({"device": {"totalKB": 900000}, "apps": [{"name": "x", "rssSwapKB": 5}], "events": []})"),
              HasSubstr("outside the plug-in's range"));
  EXPECT_THAT(errorOf(withEvents(R"([{"at": "25:61", "type": "learn"}])")), HasSubstr("events[0].at"));
  EXPECT_THAT(errorOf(withEvents(R"([{"at": 1, "type": "dance"}])")), HasSubstr("unknown event type 'dance'"));
  EXPECT_THAT(errorOf(withEvents(R"([{"at": 1, "type": "launch", "app": "com.z"}])")),
              HasSubstr("events[0].app: unknown app 'com.z'"));
  EXPECT_THAT(errorOf(withEvents(R"([{"at": 1, "type": "complete", "app": "com.a", "hintType": 7}])")),
              HasSubstr("hintType"));
  EXPECT_THAT(errorOf(R"({"apps": [{"name": "x", "rssSwapKB": 5}], "events": [], "expect": [{"launch": 1, "victims": []}]})"),
              HasSubstr("only 0 launches"));
}

// Up to the last time a scenario may hold, a scenario written out (whole
// seconds as "HH:MM:SS") loads back to the same; an open needs 2 s more.
TEST(ScenarioTest, LateTimesLoadBackAsWritten) {
  for (const char* events : {R"([{"at": 3600000, "type": "learn"}])", R"([{"at": "2777:46:39", "type": "learn"}])",
                             R"([{"at": 9999997.5, "type": "open", "app": "com.a"}])"}) {
    const auto sc = parseScenario(withEvents(events));
    EXPECT_EQ(parseScenario(sc.toJson().dump()).toJson(), sc.toJson()) << events;
  }
  EXPECT_THAT(errorOf(withEvents(R"([{"at": 9999998, "type": "open", "app": "com.a"}])")),
              HasSubstr("events[0].at: an open completes 2 seconds later"));
  EXPECT_THAT(errorOf(withEvents(R"([{"at": "2777:46:40", "type": "learn"}])")), HasSubstr("before 2777:46:40"));
}

TEST(ScenarioTest, LoadingNamesTheFile) {
  kxtest::TempDir dir;
  const std::string bad = dir.write("bad.json", "{\"apps\": 3}");
  try {
    vsim::loadScenario(bad);
    FAIL() << "accepted a bad file";
  } catch (const ScenarioError& e) {
    EXPECT_THAT(e.what(), HasSubstr(bad + ": apps"));
  }
  const std::pair<std::string, const char*> unusable[] = {
      {dir.path(), "is a directory"},
      {"/dev/zero", "larger than 64 MiB"},  // an endless input stops at the bound
  };
  for (const auto& [path, message] : unusable) {
    try {
      vsim::loadScenario(path);
      ADD_FAILURE() << path;
    } catch (const ScenarioError& e) {
      EXPECT_THAT(e.what(), HasSubstr(path + ": " + message));
    }
  }
  EXPECT_EQ(vsim::loadScenario(dir.write("ok.json", kMinimal)).apps.size(), 2u);
}

TEST(ScenarioTest, TheBuiltInDayIsAFourGigabyteDayOfTwentyApps) {
  const auto sc = vsim::defaultScenario();
  EXPECT_EQ(sc.device.memClass(), "4GB");
  EXPECT_EQ(sc.apps.size(), 20u);

  std::set<std::string> launched;
  size_t learns = 0;
  for (const auto& e : sc.events) {
    if (e.type == EventType::Launch) launched.insert(e.target);
    learns += e.type == EventType::Learn;
  }
  EXPECT_GE(launched.size(), 15u);  // most apps get used
  EXPECT_GE(learns, 5u);

  // The built-in day survives being written out as a scenario file and read
  // back, every event naming a known app or service.
  EXPECT_EQ(parseScenario(sc.toJson().dump()).toJson(), sc.toJson());
}

TEST(ScenarioTest, ClockTime) {
  EXPECT_EQ(vsim::clockTime(8 * 3600 + 5 * 60 + 7.9), "08:05:07");
  EXPECT_EQ(vsim::dayTime(8 * 3600 + 5 * 60 + 7.9), "Mon 08:05:07");
  EXPECT_EQ(vsim::dayTime(13 * 86400 + 23 * 3600), "Sun 23:00:00");
}

}  // namespace
