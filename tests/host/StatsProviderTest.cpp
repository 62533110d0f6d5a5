#include "StatsProvider.h"

#include <gtest/gtest.h>

#include "support/FakeStats.h"

namespace {

TEST(StatsProvider, DelegatesToTheInstalledSourceUntilReset) {
  auto fake = std::make_shared<kxtest::FakeStats>();
  SysStats sys{};
  sys.totalKB = 22;
  fake->setSys(sys);
  fake->addProcess(42, 3000, "fixed", 700);  // started at 5042
  kxhost::setStatsSource(fake);
  EXPECT_EQ(StatsProvider::getSysStats().totalKB, 22u);
  EXPECT_STREQ(StatsProvider::getPIDStats(42).comm, "fixed");
  EXPECT_EQ(StatsProvider::getPIDStatsRange(700, 1000).at(0).pid, 42);
  // A source without its own start-time reader answers from its records.
  EXPECT_EQ(StatsProvider::getPIDStartTime(42), std::optional<uint64_t>(5042));
  EXPECT_EQ(StatsProvider::getPIDStartTime(13), std::nullopt);
  EXPECT_EQ(StatsProvider::getPIDStartTime(-1), std::nullopt);  // not the "unknown" record's pid

  // Reset, it reads this machine's /proc again.
  kxhost::setStatsSource(nullptr);
  EXPECT_GT(StatsProvider::getSysStats().totalKB, 22u);
}

}  // namespace
