// The simulated device's memory: statistics that add up the way the kill
// decision adds them, and a kernel that reclaims in the right order.

#include <gtest/gtest.h>

#include "DeviceModel.h"

namespace {

using vsim::DeviceModel;
using vsim::DeviceProfile;

// The sums the kill decision forms from the record (all KB).
struct DecisionView {
  int64_t free, file, anon, pageCache, cached, accounted, other, available, load;
};

DecisionView view(const SysStats& s) {
  DecisionView v{};
  v.free = s.dmaFreeKB + s.normalFreeKB + s.movableFreeKB + s.highMemFreeKB;
  v.file = s.dmaActiveFileKB + s.dmaInactiveFileKB + s.normalActiveFileKB + s.normalInactiveFileKB +
           s.movableActiveFileKB + s.movableInactiveFileKB + s.highMemActiveFileKB + s.highMemInactiveFileKB;
  v.anon = s.dmaActiveAnonKB + s.dmaInactiveAnonKB + s.normalActiveAnonKB + s.normalInactiveAnonKB +
           s.movableActiveAnonKB + s.movableInactiveAnonKB + s.highMemActiveAnonKB + s.highMemInactiveAnonKB;
  v.pageCache = v.file - static_cast<int64_t>(s.swapCachedKB + s.buffersKB);
  v.cached = v.pageCache - static_cast<int64_t>(s.shmemKB);
  v.accounted = v.free + v.pageCache + v.anon +
                static_cast<int64_t>(s.swapCachedKB + s.buffersKB + s.pageTablesKB + s.kernelStackKB +
                                     s.sUnreclaimKB + s.sReclaimableKB + s.zramUsedKB + s.unreclaimableKB +
                                     s.reclaimableKB);
  v.other = static_cast<int64_t>(s.totalKB) - v.accounted;
  v.available = v.free + static_cast<int64_t>(s.sReclaimableKB + s.reclaimableKB + s.buffersKB) + v.cached;
  v.load = v.anon + v.other + static_cast<int64_t>(s.sReclaimableKB + s.sUnreclaimKB + s.zramUsedKB +
                                                   s.unreclaimableKB);
  return v;
}

DeviceProfile fourGB() { return *DeviceProfile::forClass(4); }

TEST(DeviceModelTest, StatisticsAddUpAsTheKillDecisionReadsThem) {
  DeviceModel m(fourGB());
  m.addProcess(100, 300000, 50000, 90000, 0);
  m.addProcess(101, 200000, 40000, 30000, 900);
  const SysStats s = m.sysStats();
  const DecisionView v = view(s);
  EXPECT_EQ(v.free, static_cast<int64_t>(m.freeKB()));
  EXPECT_EQ(v.available, static_cast<int64_t>(m.availableKB()));
  // What the counters do not cover is graphics and other kernel memory: positive, and at least the GPU memory.
  EXPECT_GE(v.other, static_cast<int64_t>(fourGB().systemGpuKB + 90000 + 30000));
  // Available plus load is "the whole of memory as the model sees it".
  EXPECT_NEAR(static_cast<double>(v.available + v.load), static_cast<double>(s.totalKB), s.totalKB * 0.05);
  EXPECT_GT(v.cached, 0);
  EXPECT_EQ(s.highMemFreeKB + s.highMemActiveAnonKB + s.highMemInactiveFileKB, 0u);  // a 64-bit device
}

TEST(DeviceModelTest, StartingAndKillingAProcessMovesFreeMemoryBothWays) {
  DeviceModel m(fourGB());
  const uint64_t free0 = m.freeKB(), avail0 = m.availableKB();
  EXPECT_FALSE(m.addProcess(7, 250000, 60000, 80000, 0).direct());
  EXPECT_EQ(m.freeKB(), free0 - 250000 - 60000 - 80000);
  ASSERT_TRUE(m.process(7).has_value());
  EXPECT_EQ(std::make_pair(m.process(7)->rssSwapKB(), m.process(7)->totalKB()), std::make_pair(250000ul, 390000ul));
  // Growth takes memory like a start does, for known processes only.
  m.grow(7, 20000);
  m.grow(9, 20000);
  EXPECT_EQ(m.freeKB(), free0 - 410000);

  EXPECT_TRUE(m.removeProcess(7));
  EXPECT_FALSE(m.removeProcess(7));
  // Its file pages stay cached: free memory misses them, available memory does not.
  EXPECT_EQ(m.freeKB(), free0 - 60000);
  EXPECT_EQ(m.availableKB(), avail0);
}

TEST(DeviceModelTest, UnderPressureTheKernelDropsCacheBeforeSwappingAndSwapsInOnReturn) {
  DeviceModel m(fourGB());
  m.addProcess(1, 600000, 0, 0, 950);
  m.addProcess(2, 600000, 50000, 0, 700);
  const uint64_t free = m.freeKB();
  // Slightly more than free memory: the cache alone covers it.
  EXPECT_GT(m.cleanKB(), free + fourGB().lowWatermarkKB);
  auto r = m.addProcess(3, free, 0, 0, 0);
  EXPECT_GT(r.cacheDroppedKB, 0u);
  EXPECT_EQ(r.swappedKB + r.shortKB, 0u);

  // Now far more than the cache left: the background's file pages go, then
  // background processes are swapped, least important first.
  r = m.addProcess(4, 500000, 0, 0, 0);
  EXPECT_EQ(m.process(2)->fileKB, 0u);
  EXPECT_GT(r.swappedKB, 0u);
  EXPECT_EQ(r.shortKB, 0u);
  const uint64_t swapped = m.process(1)->swappedKB;
  EXPECT_GT(swapped, 0u);
  EXPECT_EQ(m.process(3)->swappedKB, 0u);  // the foreground is never swapped
  EXPECT_EQ(m.process(1)->rssSwapKB(), 600000u);  // swapping keeps rss_swap
  EXPECT_EQ(m.zramOrigKB(), swapped + m.process(2)->swappedKB);
  EXPECT_EQ(m.sysStats().zramUsedKB, m.zramUsedKB());
  EXPECT_LT(m.zramUsedKB(), m.zramOrigKB());

  // Back in front, with room again, it takes its memory back from zram.
  const uint64_t zram = m.zramOrigKB();
  m.removeProcess(3);
  m.removeProcess(4);
  m.setOomAdj(1, 0);
  uint64_t back = 0;
  EXPECT_FALSE(m.swapIn(1, &back).direct());
  EXPECT_EQ(back, swapped);
  EXPECT_EQ(std::make_pair(m.process(1)->anonKB, m.process(1)->swappedKB), std::make_pair(600000ul, 0ul));
  EXPECT_EQ(m.zramOrigKB(), zram - swapped);
}

}  // namespace
