#include "StatsProvider.h"

#include <gtest/gtest.h>


namespace {

class FixedSource : public kxhost::StatsSource {
 public:
  SysStats sysStats() override {
    SysStats s{};
    s.totalKB = 22;
    return s;
  }
  // Knows every pid but 13.
  PIDStats pidStats(int pid) override {
    return pid == 13 ? PIDStats{-1, 0, 0, 0, "", 0} : PIDStats{pid, 5, 700, 6, "fixed", 7, 8000u + pid};
  }
  std::vector<PIDStats> pidStatsRange(int minAdj, int maxAdj) override {
    return {PIDStats{minAdj, 0, maxAdj, 0, "", 0}};
  }
};

TEST(StatsProvider, DelegatesToTheInstalledSourceUntilReset) {
  kxhost::setStatsSource(std::make_shared<FixedSource>());
  EXPECT_EQ(StatsProvider::getSysStats().totalKB, 22u);
  PIDStats one = StatsProvider::getPIDStats(42);
  EXPECT_EQ(one.pid, 42);
  EXPECT_STREQ(one.comm, "fixed");
  std::vector<PIDStats> range = StatsProvider::getPIDStatsRange(700, 1000);
  ASSERT_EQ(range.size(), 1u);
  EXPECT_EQ(range[0].pid, 700);
  EXPECT_EQ(range[0].oomScoreAdj, 1000);
  // A source without its own start-time reader answers from its records.
  EXPECT_EQ(StatsProvider::getPIDStartTime(42), std::optional<uint64_t>(8042));
  EXPECT_EQ(StatsProvider::getPIDStartTime(13), std::nullopt);
  EXPECT_EQ(StatsProvider::getPIDStartTime(-1), std::nullopt);  // not the "unknown" record's pid

  // Reset, it reads this machine's /proc again.
  kxhost::setStatsSource(nullptr);
  EXPECT_GT(StatsProvider::getSysStats().totalKB, 22u);
}

}  // namespace
