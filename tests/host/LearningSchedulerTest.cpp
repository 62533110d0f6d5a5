#include "kxhost/LearningScheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "Feature.h"
#include "support/DeviceRoot.h"

namespace {

// Records whether each run saw the cancel flag; when `blockUntilCancelled`
// is set, a run lasts until it does.
class FakeAlgo : public Algo {
 public:
  void runAlgo(const std::atomic<bool>& cancel) override {
    entered = true;
    while (blockUntilCancelled && !cancel) std::this_thread::yield();
    std::lock_guard<std::mutex> lock(mMutex);
    cancelSeenByRun.push_back(cancel.load());
    mRan.notify_all();
  }
  bool waitForRuns(size_t n) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mRan.wait_for(lock, std::chrono::seconds(60), [&] { return cancelSeenByRun.size() >= n; });
  }

  std::atomic<bool> blockUntilCancelled{false}, entered{false};
  std::mutex mMutex;  // guards cancelSeenByRun
  std::condition_variable mRan;
  std::vector<bool> cancelSeenByRun;  // one per run
};

class LearningFeature : public Feature {
 public:
  explicit LearningFeature(const FeatureInfo& info) : Feature(info) { mAlgo = algo = new FakeAlgo(); }
  ~LearningFeature() override { delete mAlgo; }
  void disable() { mDisabled = true; }
  FakeAlgo* algo;
};

class LearningSchedulerTest : public ::testing::Test {
 protected:
  LearningSchedulerTest() : mFeature(info()), mState("LearningTest") {}
  static FeatureInfo info() {
    FeatureInfo i;
    i.name = "LearningTest";
    return i;
  }
  // Learning writes a row for every name but those in mFailing.
  kxhost::LearningScheduler::LearntRowExists rowExists() {
    return [this](const std::string& name) { return mFailing.count(name) == 0; };
  }

  kxtest::DeviceRoot mRoot;
  LearningFeature mFeature;
  FeatureState mState;
  std::set<std::string> mFailing;
};

TEST_F(LearningSchedulerTest, RunsWhenANameIsDueAndMarksItLearntOnceItsRowExists) {
  kxhost::LearningScheduler scheduler(&mFeature, rowExists());
  EXPECT_FALSE(scheduler.runOnce());
  mState.writeState("collecting", APP_STATE_COLLECTING);
  mState.writeState("learnt", APP_STATE_LEARNT);
  mState.writeState("failed", APP_STATE_LEARN_FAILED);
  EXPECT_FALSE(scheduler.runOnce());
  EXPECT_TRUE(mFeature.algo->cancelSeenByRun.empty());

  // Samples complete again after learning: learnt afresh, then learnt; a
  // name whose row is not written stays due for the next pass.
  mState.writeState("learnt", APP_STATE_RELEARN_DUE);
  mState.writeState("vendor.svc", APP_STATE_LEARNING_DUE);
  mFailing = {"vendor.svc"};
  EXPECT_TRUE(scheduler.runOnce());
  EXPECT_EQ(mState.readState("learnt"), APP_STATE_LEARNT);
  EXPECT_EQ(mState.readState("vendor.svc"), APP_STATE_LEARNING_DUE);
  mFailing.clear();
  EXPECT_TRUE(scheduler.runOnce());
  EXPECT_EQ(mState.readState("vendor.svc"), APP_STATE_LEARNT);
  EXPECT_FALSE(scheduler.runOnce()) << "nothing is due once every name is learnt";
  EXPECT_EQ(mFeature.algo->cancelSeenByRun.size(), 2u);

  mState.writeState("com.app", APP_STATE_LEARNING_DUE);
  mFeature.disable();
  EXPECT_FALSE(scheduler.runOnce()) << "a disabled feature is never driven";
}

TEST_F(LearningSchedulerTest, ThreadLearnsDueNamesAndStopCancelsTheRunInProgress) {
  kxhost::LearningScheduler scheduler(&mFeature, rowExists(), std::chrono::milliseconds(1));
  scheduler.stop();  // not started: nothing to do
  mState.writeState("com.app", APP_STATE_LEARNING_DUE);
  mFeature.algo->blockUntilCancelled = true;
  scheduler.start();
  while (!mFeature.algo->entered) std::this_thread::yield();
  scheduler.stop();  // returns only once the run has seen the flag
  EXPECT_TRUE(mFeature.algo->cancelSeenByRun.at(0));

  // Started again, the flag is clear and due names get learnt.
  mFeature.algo->blockUntilCancelled = false;
  mState.writeState("com.next", APP_STATE_LEARNING_DUE);
  scheduler.start();
  ASSERT_TRUE(mFeature.algo->waitForRuns(2));
  scheduler.stop();
  EXPECT_FALSE(mFeature.algo->cancelSeenByRun.at(1));
  EXPECT_EQ(mState.readState("com.next"), APP_STATE_LEARNT);
}

}  // namespace
