// The host's learning thread for one feature: runs the feature's idle
// learning when some name is due, and marks names learnt afterwards.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "FeatureState.h"

class Feature;

namespace kxhost {

class LearningScheduler {
 public:
  // Whether the feature holds a learnt row for the name (the host's proof
  // that learning the name succeeded).
  using LearntRowExists = std::function<bool(const std::string&)>;

  // `feature` is borrowed and must outlive the scheduler; `period` is how
  // often the thread looks for due names.
  LearningScheduler(Feature* feature, LearntRowExists learntRowExists,
                    std::chrono::milliseconds period = std::chrono::seconds(60));
  ~LearningScheduler();  // stop()
  LearningScheduler(const LearningScheduler&) = delete;
  LearningScheduler& operator=(const LearningScheduler&) = delete;

  // Starts the learning thread (a no-op while it runs).
  void start();
  // Sets the cancellation flag that the run in progress sees, wakes the
  // thread and joins it. A no-op when not started.
  void stop();
  // One pass on the caller's thread, when the feature is enabled: moves
  // every name in state 3 back to 1 (relearning from the samples gathered
  // since it was learnt); when some name is then in state 1, runs
  // feature->runAsyncIdle(cancel) and moves every name in state 1 whose
  // learnt row exists to 2. Returns whether a run happened.
  bool runOnce();

 private:
  void queueRelearning();
  bool due();
  void markLearnt();
  void loop();

  Feature* mFeature;
  LearntRowExists mLearntRowExists;
  std::chrono::milliseconds mPeriod;
  FeatureState mState;
  std::atomic<bool> mCancel{false};

  // Serialises runs: the thread's and direct runOnce() calls.
  std::mutex mRunMutex;
  // Guards mStopRequested; mWake wakes the thread early when stopping.
  std::mutex mWakeMutex;
  std::condition_variable mWake;
  bool mStopRequested = false;
  // The learning thread: started by start(), stopped and joined by stop()
  // (also from the destructor).
  std::thread mThread;
};

}  // namespace kxhost
