// A launch observed through the host, end to end: launch and completion
// triggers for an application (a sleeper forked here) are sampled on the
// host's metering thread until the threshold, and one learning run through
// the host's scheduler leaves the mean of those samples as its learnt row.

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "DependentServices.h"
#include "FeatureInfo.h"
#include "FeatureState.h"
#include "FsRoot.h"
#include "Properties.h"
#include "StatsProvider.h"
#include "Vorak.pb.h"
#include "VorakAction.h"
#include "VorakDevice.h"
#include "VorakFeature.h"
#include "kxhost/LearningScheduler.h"
#include "kxhost/LogCapture.h"
#include "kxhost/MeteringThread.h"
#include "support/Sleepers.h"
#include "support/TempDir.h"

namespace {

// Serves a 4 GB device and, for one pid, a new reading on every query.
class LaunchStats : public kxhost::StatsSource {
 public:
  explicit LaunchStats(int pid) : mPid(pid) {}
  SysStats sysStats() override { return vorakdev::sysStats4GB(200000); }
  PIDStats pidStats(int pid) override {
    std::lock_guard<std::mutex> lock(mMutex);
    if (pid != mPid) return PIDStats{-1, 0, 0, 0, {}, 0};
    const uint64_t k = mServed.size();
    PIDStats s{pid, 9000, 0, 40000 + 1001 * k + k * k, "app", 3000 + 7 * k + k % 2};
    mServed.push_back(s);
    return s;
  }
  std::vector<PIDStats> pidStatsRange(int, int) override { return {}; }
  std::vector<PIDStats> served() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mServed;
  }

 private:
  const int mPid;
  std::mutex mMutex;
  std::vector<PIDStats> mServed;
};

AsyncTriggerPayload launch(const std::string& app, int type, int pid) {
  AsyncTriggerPayload p;
  p.hintID = 4225;
  p.hintType = type;
  p.appName = app;
  p.pid = pid;
  return p;
}

TEST(VorakLearningEndToEnd, SampledLaunchesBecomeOneLearntRowHoldingTheirMean) {
  kxtest::TempDir dir;
  kxtest::Sleepers sleepers;
  const std::string app = "com.example.mail";
  const int pid = sleepers.start();

  kxhost::setFsRoot(dir.path());
  std::filesystem::create_directories(dir.sub("data/vendor/kx"));
  VorakModel model;
  model.set_bias(0);
  model.set_safeload(0.25f);
  std::string bytes;
  ASSERT_TRUE(model.SerializeToString(&bytes));
  dir.write("vendor/etc/kx/vorak/vorak_4GB.data", bytes);
  kxhost::clearProperties();
  kxhost::setProperty("ro.vendor.perf.enable.vorak", "true");
  kxhost::setProperty("vendor.debug.trace.VORAK", "1");
  kxhost::clearFeatureStates();
  kxhost::ServiceRegistry::instance().clear();
  auto stats = std::make_shared<LaunchStats>(pid);
  kxhost::setStatsSource(stats);
  kxhost::LogCapture log;

  FeatureInfo info;
  info.name = "Vorak";
  info.samplesThreshold = 3;
  info.meterInfo.push_back(MeterInfo{"Memory", {}, {"ion_kgsl", "rss_swap"}, {}, 1});
  auto feature = std::make_unique<VorakFeature>(info);
  ASSERT_FALSE(feature->isDisabled());
  auto* action = dynamic_cast<VorakAction*>(feature->getAction());
  ASSERT_NE(action, nullptr);
  KxDatabase<_vorak_Feature_Action_Data>* learnt = action->getActionOutputDb();

  FeatureState state("Vorak");
  for (int round = 0; round < 10 && state.readState(app) == APP_STATE_COLLECTING; ++round) {
    feature->runAsync(launch(app, 2, pid));
    feature->runAsync(launch(app, 101, pid));
    kxhost::MeteringThread::instance().drain();
  }
  ASSERT_EQ(state.readState(app), APP_STATE_LEARNING_DUE);
  const std::vector<PIDStats> served = stats->served();
  ASSERT_EQ(served.size(), 3u);

  kxhost::LearningScheduler scheduler(feature.get(), [learnt](const std::string& name) {
    KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
    return learnt->getCountDR(key) > 0;
  });
  EXPECT_TRUE(scheduler.runOnce());

  int64_t gpuSum = 0, rssSum = 0;
  for (const PIDStats& s : served) gpuSum += s.gpuKB, rssSum += s.rssAnonSwapKB;
  KxDBDataRowKey key(app, KXDB_INTCOL_UNSET);
  auto rows = learnt->readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]->blob.ionKgsl, gpuSum / 3);
  EXPECT_EQ(rows[0]->blob.rssSwap, rssSum / 3);
  learnt->deallocateDR(rows);
  EXPECT_EQ(state.readState(app), APP_STATE_LEARNT);
  EXPECT_TRUE(log.contains("VorakAlgo: runAlgo() "));
  EXPECT_TRUE(log.contains("VorakAlgo::runAlgo finished"));

  feature.reset();
  kxhost::clearFeatureStates();
  kxhost::setStatsSource(nullptr);
  kxhost::clearProperties();
  kxhost::setFsRoot("");
}

}  // namespace
