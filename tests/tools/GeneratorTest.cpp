// Generated scenarios: repeatable for a seed, habits that differ on
// weekends, apps that come and go, and options out of range refused.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "Generator.h"
#include "support/ErrorOf.h"

namespace {

using vsim::EventType;
using vsim::GeneratorOptions;
using vsim::Scenario;

constexpr double kDay = 86400;

TEST(GeneratorTest, TheSameSeedGivesTheSameScenarioAndAnotherSeedAnother) {
  const GeneratorOptions o{3, 12, 2, 42};
  const Scenario a = vsim::generateScenario(o);
  EXPECT_EQ(a.toJson(), vsim::generateScenario(o).toJson());
  EXPECT_NE(a.toJson()["events"], vsim::generateScenario({3, 12, 2, 43}).toJson()["events"]);
  EXPECT_EQ(a.apps.size(), 12u);
  EXPECT_EQ(a.device.memClass(), "2GB");
  // The generated file is a scenario the simulator reads back unchanged.
  EXPECT_EQ(vsim::parseScenario(a.toJson().dump()).toJson(), a.toJson());
}

TEST(GeneratorTest, SomeAppsAreInstalledOrRemovedPartWay) {
  const Scenario sc = vsim::generateScenario({21, 60, 6, 3});
  std::map<std::string, double> first, last, removed;
  for (const auto& e : sc.events) {
    if (e.type == EventType::Launch) {
      if (first.count(e.target) == 0) first[e.target] = e.at;
      last[e.target] = e.at;
    }
    // A removal at noon is an uninstall; others clear an app from recents.
    if (e.type == EventType::Remove && std::fmod(e.at, kDay) == 12 * 3600) removed[e.target] = e.at;
  }
  size_t late = 0;
  for (const auto& [app, at] : first) late += at >= 2 * kDay;
  EXPECT_GT(late, 0u) << "an app installed part-way";
  ASSERT_FALSE(removed.empty());
  for (const auto& [app, at] : removed) EXPECT_LT(last[app], at) << app << " launched after its removal";
}

TEST(GeneratorTest, RefusesOptionsOutOfRange) {
  const std::pair<GeneratorOptions, const char*> cases[] = {
      {{0, 10, 4, 1}, "days"}, {{29, 10, 4, 1}, "days"}, {{7, 0, 4, 1}, "apps"},
      {{7, 501, 4, 1}, "apps"}, {{7, 10, 3, 1}, "device"},
  };
  for (const auto& [o, what] : cases)
    EXPECT_THAT(kxtest::errorOf<vsim::ScenarioError>([&] { vsim::generateScenario(o); }), testing::StartsWith(what));
  EXPECT_EQ(vsim::generateScenario({vsim::kMaxDays, static_cast<int>(vsim::kMaxApps), 4, 1}).apps.size(), vsim::kMaxApps);
}

}  // namespace
