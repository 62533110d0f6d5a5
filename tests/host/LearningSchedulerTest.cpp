#include "kxhost/LearningScheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "support/DeviceRoot.h"
#include "Feature.h"

namespace {

// Learns every name in state 1 by "writing its row" into `rows`, unless the
// name is listed in `failing`; records what each run saw.
class FakeAlgo : public Algo {
 public:
  explicit FakeAlgo(FeatureState& state) : mState(state) {}
  void runAlgo(const std::atomic<bool>& cancel) override {
    entered = true;
    if (blockUntilCancelled) {
      while (!cancel) std::this_thread::yield();
      sawCancel = true;
    }
    for (const std::string& name : mState.names())
      if (mState.readState(name) == APP_STATE_LEARNING_DUE && failing.count(name) == 0) {
        std::lock_guard<std::mutex> lock(mMutex);
        rows.insert(name);
      }
    std::lock_guard<std::mutex> lock(mMutex);
    cancelSeenByRun.push_back(cancel.load());
    ++runs;
    mRan.notify_all();
  }
  bool hasRow(const std::string& name) {
    std::lock_guard<std::mutex> lock(mMutex);
    return rows.count(name) > 0;
  }
  bool waitForRuns(int n) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mRan.wait_for(lock, std::chrono::seconds(60), [&] { return runs >= n; });
  }

  std::set<std::string> failing;
  std::atomic<bool> blockUntilCancelled{false}, entered{false}, sawCancel{false};
  std::mutex mMutex;  // guards rows, runs and cancelSeenByRun
  std::condition_variable mRan;
  std::set<std::string> rows;
  int runs = 0;
  std::vector<bool> cancelSeenByRun;

 private:
  FeatureState& mState;
};

class LearningFeature : public Feature {
 public:
  explicit LearningFeature(const FeatureInfo& info) : Feature(info) {
    algo = new FakeAlgo(mFeatureState);
    mAlgo = algo;
  }
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
  kxhost::LearningScheduler::LearntRowExists rowExists() {
    return [this](const std::string& name) { return mFeature.algo->hasRow(name); };
  }

  kxtest::DeviceRoot mRoot;
  LearningFeature mFeature;
  FeatureState mState;
};

TEST_F(LearningSchedulerTest, RunsOnlyWhenANameIsDue) {
  kxhost::LearningScheduler scheduler(&mFeature, rowExists());
  EXPECT_FALSE(scheduler.runOnce());
  mState.writeState("collecting", APP_STATE_COLLECTING);
  mState.writeState("learnt", APP_STATE_LEARNT);
  mState.writeState("failed", APP_STATE_LEARN_FAILED);
  EXPECT_FALSE(scheduler.runOnce());
  EXPECT_EQ(mFeature.algo->runs, 0);

  // Samples complete again after learning: learnt afresh, then learnt.
  mState.writeState("learnt", APP_STATE_RELEARN_DUE);
  EXPECT_TRUE(scheduler.runOnce());
  EXPECT_EQ(mFeature.algo->runs, 1);
  EXPECT_TRUE(mFeature.algo->hasRow("learnt"));
  EXPECT_EQ(mState.readState("learnt"), APP_STATE_LEARNT);
  EXPECT_FALSE(scheduler.runOnce()) << "nothing is due once the name is learnt again";
}

TEST_F(LearningSchedulerTest, DueNameBecomesLearntOnceItsRowExists) {
  kxhost::LearningScheduler scheduler(&mFeature, rowExists());
  mState.writeState("com.app", APP_STATE_LEARNING_DUE);
  mState.writeState("vendor.svc", APP_STATE_LEARNING_DUE);
  mFeature.algo->failing = {"vendor.svc"};
  EXPECT_TRUE(scheduler.runOnce());
  EXPECT_EQ(mState.readState("com.app"), APP_STATE_LEARNT);
  EXPECT_EQ(mState.readState("vendor.svc"), APP_STATE_LEARNING_DUE);

  mFeature.algo->failing.clear();
  EXPECT_TRUE(scheduler.runOnce());
  EXPECT_EQ(mState.readState("vendor.svc"), APP_STATE_LEARNT);
  EXPECT_FALSE(scheduler.runOnce());
}

TEST_F(LearningSchedulerTest, DisabledFeatureIsNeverDriven) {
  kxhost::LearningScheduler scheduler(&mFeature, rowExists());
  mState.writeState("com.app", APP_STATE_LEARNING_DUE);
  mFeature.disable();
  EXPECT_FALSE(scheduler.runOnce());
  EXPECT_EQ(mFeature.algo->runs, 0);
}

TEST_F(LearningSchedulerTest, ThreadLearnsDueNames) {
  kxhost::LearningScheduler scheduler(&mFeature, rowExists(), std::chrono::milliseconds(1));
  scheduler.stop();  // not started: nothing to do
  mState.writeState("com.app", APP_STATE_LEARNING_DUE);
  scheduler.start();
  ASSERT_TRUE(mFeature.algo->waitForRuns(1));
  scheduler.stop();
  EXPECT_EQ(mState.readState("com.app"), APP_STATE_LEARNT);
}

TEST_F(LearningSchedulerTest, StopCancelsTheRunInProgressAndStartClearsTheFlag) {
  kxhost::LearningScheduler scheduler(&mFeature, rowExists(), std::chrono::milliseconds(1));
  mState.writeState("com.app", APP_STATE_LEARNING_DUE);
  mFeature.algo->blockUntilCancelled = true;
  scheduler.start();
  while (!mFeature.algo->entered) std::this_thread::yield();
  scheduler.stop();  // returns only once the run has seen the flag
  EXPECT_TRUE(mFeature.algo->sawCancel);

  mFeature.algo->blockUntilCancelled = false;
  mState.writeState("com.next", APP_STATE_LEARNING_DUE);
  scheduler.start();
  ASSERT_TRUE(mFeature.algo->waitForRuns(2));
  scheduler.stop();
  EXPECT_FALSE(mFeature.algo->cancelSeenByRun.at(1));
}

}  // namespace
