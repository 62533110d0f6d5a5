// The launch cost model on hand-computed launches.

#include <gtest/gtest.h>

#include "LaunchCost.h"

namespace {

TEST(LaunchCostTest, BaseTimePlusEachKindOfMemoryFoundAtItsPricePerMB) {
  // Every price distinct, so that a part priced at another's rate shows.
  const vsim::LaunchCosts costs{1000, 200, 2, 3, 5, 7};
  const struct {
    const char* what;
    vsim::LaunchWork work;
    double ms;
  } cases[] = {
      {"cold, memory free", {true, std::nullopt, 0, 0, 0, 0}, 1000},
      {"warm, memory free", {false, std::nullopt, 0, 0, 0, 0}, 200},
      {"cold, 100 MB of cache dropped", {true, std::nullopt, 100 * 1024, 0, 0, 0}, 1000 + 100 * 2},
      {"cold, 50 MB of others compressed into zram", {true, std::nullopt, 0, 50 * 1024, 0, 0}, 1000 + 50 * 3},
      {"warm, 40 MB of its own brought back from zram", {false, std::nullopt, 0, 0, 40 * 1024, 0}, 200 + 40 * 5},
      {"cold, 10 MB waited for from the low-memory killer", {true, std::nullopt, 0, 0, 0, 10 * 1024}, 1000 + 10 * 7},
      {"the app's own base time", {false, 333.0, 1024, 0, 0, 0}, 333 + 2},
  };
  for (const auto& c : cases) EXPECT_DOUBLE_EQ(vsim::estimateLaunchMs(costs, c.work), c.ms) << c.what;
}

}  // namespace
