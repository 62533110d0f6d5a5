// The simulator's processes and the statistics it serves: only its own live
// children are ever offered to the plug-in or signalled, and every child is
// reaped.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "ProcessPool.h"
#include "SimDevice.h"

namespace {

using vsim::ProcessPool;

// True once `pid` is no child of ours any more (reaped).
bool reaped(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD; }

MATCHER_P(HasPid, pid, "") { return arg.pid == pid; }

TEST(ProcessPoolTest, KillsOnlyItsOwnChildrenAndReapsThem) {
  ProcessPool pool;
  const pid_t a = pool.spawn("com.example.a"), b = pool.spawn("com.example.bb");
  EXPECT_TRUE(pool.owns(a));
  EXPECT_EQ(pool.nameOf(b), "com.example.bb");
  EXPECT_EQ(pool.liveCount(), 2u);

  for (pid_t other : {getpid(), getppid(), 1, 0, -1}) EXPECT_FALSE(pool.kill(other)) << other;

  ASSERT_TRUE(pool.kill(a));
  // The death is seen without reaping: the pid stays ours until reap().
  std::vector<vsim::Death> deaths;
  while (deaths.empty()) deaths = pool.collectDeaths();
  ASSERT_EQ(deaths.size(), 1u);
  EXPECT_EQ(std::make_pair(deaths[0].pid, deaths[0].signal), std::make_pair(a, SIGKILL));
  EXPECT_FALSE(pool.owns(a));
  EXPECT_FALSE(pool.kill(a));  // a known-dead child is not signalled again
  EXPECT_FALSE(reaped(a));
  EXPECT_EQ(pool.reap(), 1u);
  EXPECT_TRUE(reaped(a));

  pool.stopAll();
  EXPECT_TRUE(reaped(b));
  EXPECT_EQ(pool.liveCount(), 0u);

  std::vector<pid_t> children;
  {
    ProcessPool destroyed;
    for (int i = 0; i < 3; ++i) children.push_back(destroyed.spawn("svc." + std::to_string(i)));
  }
  for (pid_t p : children) EXPECT_TRUE(reaped(p)) << "destroying the pool reaps every child";
}

TEST(SimDeviceTest, OffersThePluginNothingButLiveChildrenOfThePool) {
  ProcessPool pool;
  vsim::SimDevice dev(*vsim::DeviceProfile::forClass(4), pool);
  const pid_t app = pool.spawn("com.example.app"), svc = pool.spawn("svc.audio");
  ASSERT_TRUE(dev.addProcess(app, "com.example.app", 300000, 40000, 90000, 900).has_value());
  ASSERT_TRUE(dev.addProcess(svc, "svc.audio", 30000, 5000, 0, 800).has_value());

  // Processes that are not children of the pool cannot be put on the device...
  // ... and are unknown to the statistics.
  for (pid_t other : {getpid(), getppid(), 1}) {
    EXPECT_FALSE(dev.addProcess(other, "other", 1000, 0, 0, 900).has_value()) << other;
    EXPECT_EQ(dev.pidStats(other).pid, -1) << other;
  }

  EXPECT_THAT(dev.pidStatsRange(-1000, 1000),  // in the order of their pids
              testing::ElementsAre(HasPid(std::min(app, svc)), HasPid(std::max(app, svc))));
  EXPECT_THAT(dev.pidStatsRange(700, 850), testing::ElementsAre(HasPid(svc)));

  const PIDStats s = dev.pidStats(app);
  EXPECT_EQ(std::make_tuple(s.pid, s.rssAnonSwapKB, s.rssFileKB, s.gpuKB, s.oomScoreAdj),
            std::make_tuple(app, uint64_t{300000}, uint64_t{40000}, uint64_t{90000}, 900));
  EXPECT_STREQ(s.comm, "com.example.app");

  // A child that died is withdrawn at once, even before the simulator frees its memory.
  ASSERT_TRUE(pool.kill(app));
  while (pool.collectDeaths().empty()) {
  }
  EXPECT_EQ(dev.pidStats(app).pid, -1);
  EXPECT_THAT(dev.pidStatsRange(-1000, 1000), testing::ElementsAre(HasPid(svc)));
  EXPECT_TRUE(dev.removeProcess(app));
  pool.reap();
}

}  // namespace
