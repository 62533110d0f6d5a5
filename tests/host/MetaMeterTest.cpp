#include "MetaMeter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "StatsProvider.h"
#include "kxhost/MeteringThread.h"

namespace {

class FakeStats : public kxhost::StatsSource {
 public:
  SysStats sysStats() override { return SysStats{}; }
  PIDStats pidStats(int pid) override {
    PIDStats s{};
    s.pid = pid == 4321 ? pid : -1;
    s.rssFileKB = 111;
    s.rssAnonSwapKB = 222;
    s.gpuKB = 333;
    return s;
  }
  std::vector<PIDStats> pidStatsRange(int, int) override { return {}; }
};

// What the aggregator saw of one meter.
struct Seen {
  std::string meter;
  std::vector<std::string> fields;
  std::vector<std::vector<int64_t>> values;
  std::vector<int32_t> counts;
  std::vector<AsyncTriggerPayload> triggers;
  bool onCallerThread;
};

class RecordingMetaMeter : public MetaMeter {
 public:
  RecordingMetaMeter(const FeatureInfo& info, FeatureState& state) : MetaMeter(info, state) {}
  ~RecordingMetaMeter() override { stopMetering(); }

  bool writeToDataBase(std::vector<Meter*> meters) override {
    Seen seen;
    seen.meter = meters.at(0)->getName();
    for (Field* f : meters[0]->getFields()) {
      seen.fields.push_back(f->getName());
      seen.values.push_back(f->getValues());
      seen.counts.push_back(f->getValueCount());
    }
    meters[0]->getTriggerPayloads(seen.triggers);
    seen.onCallerThread = std::this_thread::get_id() == mCaller;
    std::lock_guard<std::mutex> lock(mMutex);
    mSeen.push_back(seen);
    return true;
  }

  std::vector<Seen> seen() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mSeen;
  }
  void stop() { stopMetering(); }

 private:
  std::thread::id mCaller = std::this_thread::get_id();
  std::mutex mMutex;  // guards mSeen
  std::vector<Seen> mSeen;
};

class MetaMeterTest : public ::testing::Test {
 protected:
  MetaMeterTest() : mState("MetaMeterTest") {
    MeterInfo memory;
    memory.name = "Memory";
    memory.fields = {"ion_kgsl", "rss_swap"};
    mInfo.name = "MetaMeterTest";
    mInfo.meterInfo = {memory};
  }
  void SetUp() override { kxhost::setStatsSource(std::make_shared<FakeStats>()); }
  void TearDown() override { kxhost::setStatsSource(nullptr); }

  static AsyncTriggerPayload launchDone(int pid) {
    AsyncTriggerPayload p;
    p.hintID = 4225;
    p.hintType = 101;
    p.appName = "com.app";
    p.pid = pid;
    p.data[5] = 77;
    return p;
  }

  FeatureInfo mInfo;
  FeatureState mState;
};

TEST_F(MetaMeterTest, MemoryMeterOfTheTriggeringProcessReachesWriteToDataBaseOnTheMeteringThread) {
  RecordingMetaMeter meter(mInfo, mState);
  meter.handleAsync(launchDone(4321));
  kxhost::MeteringThread::instance().drain();

  auto seen = meter.seen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].meter, "Memory");
  EXPECT_EQ(seen[0].fields, (std::vector<std::string>{"ion_kgsl", "rss_swap"}));
  EXPECT_EQ(seen[0].values, (std::vector<std::vector<int64_t>>{{333}, {222}}));
  EXPECT_EQ(seen[0].counts, (std::vector<int32_t>{1, 1}));
  ASSERT_EQ(seen[0].triggers.size(), 1u);
  EXPECT_EQ(seen[0].triggers[0].hintID, 4225);
  EXPECT_EQ(seen[0].triggers[0].hintType, 101);
  EXPECT_EQ(seen[0].triggers[0].appName, "com.app");
  EXPECT_EQ(seen[0].triggers[0].pid, 4321);
  EXPECT_EQ(seen[0].triggers[0].data[5], 77);
  EXPECT_FALSE(seen[0].onCallerThread);
}

TEST_F(MetaMeterTest, EveryMemoryMeterInfoIsSampledAndAnUnknownProcessGivesNoValues) {
  MeterInfo other;
  other.name = "memory";
  mInfo.meterInfo.push_back(other);
  mInfo.meterInfo.push_back(mInfo.meterInfo[0]);
  RecordingMetaMeter meter(mInfo, mState);
  meter.handleAsync(launchDone(99999));
  kxhost::MeteringThread::instance().drain();
  auto seen = meter.seen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].counts, (std::vector<int32_t>{0, 0}));

  FeatureInfo none;
  RecordingMetaMeter idle(none, mState);
  idle.handleAsync(launchDone(4321));
  kxhost::MeteringThread::instance().drain();
  EXPECT_TRUE(idle.seen().empty());
}

// Holds the metering thread until released, so work queues up behind it.
class BlockingMetaMeter : public MetaMeter {
 public:
  BlockingMetaMeter(const FeatureInfo& info, FeatureState& state) : MetaMeter(info, state) {}
  ~BlockingMetaMeter() override { stopMetering(); }
  bool writeToDataBase(std::vector<Meter*>) override {
    entered = true;
    while (!release) std::this_thread::yield();
    for (int i = 0; i < 20000; ++i) std::this_thread::yield();
    finished = true;
    return true;
  }
  void stop() { stopMetering(); }
  std::atomic<bool> entered{false}, release{false}, finished{false};
};

TEST_F(MetaMeterTest, StopMeteringDropsQueuedSamples) {
  BlockingMetaMeter blocker(mInfo, mState);
  RecordingMetaMeter meter(mInfo, mState);
  blocker.handleAsync(launchDone(4321));
  while (!blocker.entered) std::this_thread::yield();
  meter.handleAsync(launchDone(4321));
  meter.stop();  // its sample is queued, not running: dropped at once
  blocker.release = true;
  kxhost::MeteringThread::instance().drain();
  EXPECT_TRUE(meter.seen().empty());
}

TEST_F(MetaMeterTest, StopMeteringWaitsForTheSampleInProgress) {
  BlockingMetaMeter meter(mInfo, mState);
  meter.handleAsync(launchDone(4321));
  while (!meter.entered) std::this_thread::yield();
  meter.release = true;
  meter.stop();
  EXPECT_TRUE(meter.finished);
}

}  // namespace
