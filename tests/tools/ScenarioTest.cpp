// Scenario files: what they expand to, what they reject (with the offending
// member named), and the built-in day.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Scenario.h"
#include "support/ErrorOf.h"

namespace {

using testing::HasSubstr;

const char* const kMinimal = R"({
  "name": "two apps", "device": {"class": "2GB", "coldLaunchMs": 2500}, "samplesThreshold": 2,
  "services": [{"name": "svc.push", "rssSwapKB": 20000, "oomAdj": 500}],
  "apps": [{"name": "com.a", "rssSwapKB": 150000, "ionKgslKB": 30000, "services": ["svc.push"], "warmLaunchMs": 120},
           {"name": "com.b", "rssSwapKB": 90000}],
  "events": [{"at": "08:00", "type": "open", "app": "com.b"}, {"at": 100, "type": "service", "service": "svc.push"},
             {"at": "08:00:30", "type": "complete", "app": "com.a", "hintType": 102}, {"at": "09:00", "type": "learn"}],
  "expect": [{"launch": 1, "victims": []}]})";

std::string errorOf(const std::string& text) {
  return kxtest::errorOf<vsim::ScenarioError>([&] { vsim::parseScenario(text); });
}

std::string withEvents(const std::string& events) {
  return R"({"apps": [{"name": "com.a", "rssSwapKB": 1000}], "events": )" + events + "}";
}

TEST(ScenarioTest, ParsesDeviceAppsAndExpandsOpenIntoItsThreeSteps) {
  const auto sc = vsim::parseScenario(kMinimal);
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
  using E = vsim::EventType;
  std::vector<E> types;
  for (const auto& e : sc.events) types.push_back(e.type);
  EXPECT_EQ(types, (std::vector<E>{E::Service, E::Prepare, E::Launch, E::Complete, E::Complete, E::Learn}));
  EXPECT_EQ(sc.events[2].at, 8 * 3600.0);
  EXPECT_EQ(sc.events[3].at, 8 * 3600.0 + 2);
  EXPECT_EQ(sc.events[4].hintType, 102);
  EXPECT_EQ(sc.launchCount(), 1u);
  ASSERT_EQ(sc.expectations.size(), 1u);
  EXPECT_TRUE(sc.expectations[0].victims.empty());
}

TEST(ScenarioTest, RejectsMistakesNamingWhereTheyAre) {
  std::string many = R"({"events": [], "apps": [)";
  for (size_t i = 0; i <= vsim::kMaxApps; ++i)
    many += (i ? "," : "") + std::string(R"({"name": "a)") + std::to_string(i) + R"(", "rssSwapKB": 5})";
  const std::pair<std::string, const char*> cases[] = {
      {"{", "not valid JSON"},
      {R"({"apps": [], "events": []})", "apps: expected a non-empty array"},
      {R"({"apps": [{"name": "x", "rssSwapKB": 1}], "events": [], "colour": 1})", "unknown member 'colour'"},
      {R"({"apps": [{"name": "x", "rssSwapKB": 0}], "events": []})", "apps[0].rssSwapKB: must be above 0"},
      {R"({"apps": [{"name": "a/b", "rssSwapKB": 5}], "events": []})",
       "apps[0].name: 'a/b' is not a valid name: contains '/'"},
      {R"({"device": {"coldLaunchMs": -1}, "apps": [], "events": []})", "device.coldLaunchMs: must lie in"},
      {many + "]}", "apps: more than 500 (the simulator's bound)"},
      {R"({"apps": [{"name": "x", "rssSwapKB": 5}, {"name": "x", "rssSwapKB": 5}], "events": []})",
       "apps[1].name: 'x' is defined twice"},
      {R"({"apps": [{"name": "x", "rssSwapKB": 5, "services": ["s"]}], "events": []})",
       "apps[0].services: unknown service 's'"},
      {R"({"device": {"totalKB": 900000}, "apps": [{"name": "x", "rssSwapKB": 5}], "events": []})",
       "outside the plug-in's range"},
      {withEvents(R"([{"at": "25:61", "type": "learn"}])"), "events[0].at"},
      {withEvents(R"([{"at": 1, "type": "dance"}])"), "unknown event type 'dance'"},
      {withEvents(R"([{"at": 1, "type": "launch", "app": "com.z"}])"), "events[0].app: unknown app 'com.z'"},
      {withEvents(R"([{"at": 1, "type": "complete", "app": "com.a", "hintType": 7}])"), "hintType"},
      {R"({"apps": [{"name": "x", "rssSwapKB": 5}], "events": [], "expect": [{"launch": 1, "victims": []}]})",
       "only 0 launches"},
      {withEvents(R"([{"at": 9999998, "type": "open", "app": "com.a"}])"),
       "events[0].at: an open completes 2 seconds later"},
      {withEvents(R"([{"at": "2777:46:40", "type": "learn"}])"), "before 2777:46:40"},
  };
  for (const auto& [text, message] : cases) EXPECT_THAT(errorOf(text), HasSubstr(message)) << text;
}

}  // namespace
