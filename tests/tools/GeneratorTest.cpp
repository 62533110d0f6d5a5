// Generated scenarios: repeatable for a seed, read back unchanged, and
// options out of range refused.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Generator.h"
#include "support/ErrorOf.h"

namespace {

using vsim::GeneratorOptions;
using vsim::Scenario;

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
