#include "MetaMeter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "kxhost/MeteringThread.h"
#include "support/FakeStats.h"

namespace {

// Records what reaches writeToDataBase, one line per meter; when `block` is
// set, holds the metering thread there until `release`, so work queues up
// behind it.
class RecordingMetaMeter : public MetaMeter {
 public:
  RecordingMetaMeter(const FeatureInfo& info, FeatureState& state, bool block = false)
      : MetaMeter(info, state), mBlock(block) {}
  ~RecordingMetaMeter() override { stopMetering(); }

  bool writeToDataBase(std::vector<Meter*> meters) override {
    entered = true;
    while (mBlock && !release) std::this_thread::yield();
    for (int i = 0; mBlock && i < 20000; ++i) std::this_thread::yield();
    std::string seen = meters.at(0)->getName();
    for (Field* f : meters[0]->getFields()) {
      seen += " " + f->getName() + "=";
      for (int64_t v : f->getValues()) seen += std::to_string(v) + ",";
      seen += "#" + std::to_string(f->getValueCount());
    }
    std::vector<AsyncTriggerPayload> triggers;
    meters[0]->getTriggerPayloads(triggers);
    for (const auto& p : triggers)
      seen += " " + std::to_string(p.hintID) + "/" + std::to_string(p.hintType) + "/" + p.appName + "/" +
              std::to_string(p.pid) + "/" + std::to_string(p.data[5]);
    if (std::this_thread::get_id() == mCaller) seen += " on the caller's thread";
    std::lock_guard<std::mutex> lock(mMutex);
    mSeen.push_back(seen);
    return true;
  }

  std::vector<std::string> seen() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mSeen;
  }
  void stop() { stopMetering(); }
  std::atomic<bool> entered{false}, release{false};

 private:
  const bool mBlock;
  std::thread::id mCaller = std::this_thread::get_id();
  std::mutex mMutex;  // guards mSeen
  std::vector<std::string> mSeen;
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
  void SetUp() override {
    auto stats = std::make_shared<kxtest::FakeStats>();
    stats->set(PIDStats{4321, 111, 0, 222, "com.app", 333});
    kxhost::setStatsSource(stats);
  }
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

TEST_F(MetaMeterTest, EachMemoryMeterOfTheTriggeringProcessReachesWriteToDataBaseOnTheMeteringThread) {
  MeterInfo other;
  other.name = "memory";  // not a meter this host knows
  mInfo.meterInfo.push_back(other);
  mInfo.meterInfo.push_back(mInfo.meterInfo[0]);
  RecordingMetaMeter meter(mInfo, mState);
  meter.handleAsync(launchDone(4321));
  meter.handleAsync(launchDone(99999));
  kxhost::MeteringThread::instance().drain();

  const std::string sampled = "Memory ion_kgsl=333,#1 rss_swap=222,#1 4225/101/com.app/4321/77";
  const std::string unknown = "Memory ion_kgsl=#0 rss_swap=#0 4225/101/com.app/99999/77";
  EXPECT_EQ(meter.seen(), (std::vector<std::string>{sampled, sampled, unknown, unknown}));
}

// Stopping drops the samples still queued but waits for the one in progress.
TEST_F(MetaMeterTest, StopMeteringDropsQueuedSamplesAndWaitsForTheOneInProgress) {
  RecordingMetaMeter blocker(mInfo, mState, true);
  RecordingMetaMeter queued(mInfo, mState);
  blocker.handleAsync(launchDone(4321));
  while (!blocker.entered) std::this_thread::yield();
  queued.handleAsync(launchDone(4321));
  queued.stop();
  blocker.release = true;
  blocker.stop();
  EXPECT_EQ(blocker.seen().size(), 1u);
  kxhost::MeteringThread::instance().drain();
  EXPECT_TRUE(queued.seen().empty());
}

}  // namespace
