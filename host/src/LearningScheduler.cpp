#include "kxhost/LearningScheduler.h"

#include "Feature.h"

namespace kxhost {

LearningScheduler::LearningScheduler(Feature* feature, LearntRowExists learntRowExists,
                                     std::chrono::milliseconds period)
    : mFeature(feature),
      mLearntRowExists(std::move(learntRowExists)),
      mPeriod(period),
      mState(feature->getFeatureName()) {}

LearningScheduler::~LearningScheduler() { stop(); }

void LearningScheduler::start() {
  if (mThread.joinable()) return;
  mCancel.store(false);
  {
    std::lock_guard<std::mutex> lock(mWakeMutex);
    mStopRequested = false;
  }
  mThread = std::thread([this] { loop(); });
}

void LearningScheduler::stop() {
  if (!mThread.joinable()) return;
  mCancel.store(true);
  {
    std::lock_guard<std::mutex> lock(mWakeMutex);
    mStopRequested = true;
  }
  mWake.notify_all();
  mThread.join();
}

bool LearningScheduler::runOnce() {
  std::lock_guard<std::mutex> lock(mRunMutex);
  if (mFeature->isDisabled()) return false;
  queueRelearning();
  if (!due()) return false;
  mFeature->runAsyncIdle(mCancel);
  markLearnt();
  return true;
}

// A learnt name whose samples filled up again is learnt afresh from them:
// the feature learns only names in state 1, and a name left in 3 would keep
// the thread running full passes that learn nothing while its samples grow.
void LearningScheduler::queueRelearning() {
  for (const std::string& name : mState.names())
    if (mState.readState(name) == APP_STATE_RELEARN_DUE) mState.writeState(name, APP_STATE_LEARNING_DUE);
}

bool LearningScheduler::due() {
  for (const std::string& name : mState.names())
    if (mState.readState(name) == APP_STATE_LEARNING_DUE) return true;
  return false;
}

// A name left in state 1 without a learnt row stays due and is tried again
// on the next pass.
void LearningScheduler::markLearnt() {
  for (const std::string& name : mState.names())
    if (mState.readState(name) == APP_STATE_LEARNING_DUE && mLearntRowExists(name))
      mState.writeState(name, APP_STATE_LEARNT);
}

void LearningScheduler::loop() {
  std::unique_lock<std::mutex> lock(mWakeMutex);
  while (!mStopRequested) {
    lock.unlock();
    runOnce();
    lock.lock();
    mWake.wait_for(lock, mPeriod, [this] { return mStopRequested; });
  }
}

}  // namespace kxhost
