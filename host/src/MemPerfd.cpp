// The reference hint hub. Hints are queued by the host and delivered on the
// hub's own thread, one payload at a time, to the actions registered for the
// payload's hint id in registration order.
#include "MemPerfd.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

Action::~Action() = default;

struct MemPerfd::Impl {
  struct Registration {
    Action* action;
    bool exclusive;  // recorded, not enforced
  };

  // Guards every member below except mThread and mOwnerPid.
  std::mutex mMutex;
  std::condition_variable mWork;      // queue non-empty or stopping
  std::condition_variable mProgress;  // an applyAction or a payload finished
  std::map<unsigned, std::vector<Registration>> mRegistrations;
  std::deque<AsyncTriggerPayload> mQueue;
  uint64_t mQueued = 0;     // payloads queued so far
  uint64_t mDelivered = 0;  // payloads fully delivered so far
  Action* mRunning = nullptr;  // the action whose applyAction runs now
  unsigned mRunningHint = 0;
  bool mStopping = false;

  // The delivery thread: started by the hub's constructor (first getInstance),
  // stopped and joined by stopAtExit when the process exits.
  std::thread mThread;
  pid_t mOwnerPid = getpid();

  bool registered(Action* action, unsigned hint) const {
    auto it = mRegistrations.find(hint);
    if (it == mRegistrations.end()) return false;
    return std::any_of(it->second.begin(), it->second.end(),
                       [action](const Registration& r) { return r.action == action; });
  }

  bool onHubThread() const { return std::this_thread::get_id() == mThread.get_id(); }

  void deliver(std::unique_lock<std::mutex>& lock, const AsyncTriggerPayload& payload) {
    const unsigned hint = static_cast<unsigned>(payload.hintID);
    auto it = mRegistrations.find(hint);
    if (it == mRegistrations.end()) return;
    std::vector<Registration> targets = it->second;
    for (const Registration& target : targets) {
      // Deregistered by an earlier action of this payload: skip it.
      if (!registered(target.action, hint)) continue;
      mRunning = target.action;
      mRunningHint = hint;
      lock.unlock();
      target.action->applyAction(payload);
      lock.lock();
      mRunning = nullptr;
      mProgress.notify_all();
    }
  }

  void run() {
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
      mWork.wait(lock, [this] { return mStopping || !mQueue.empty(); });
      if (mStopping) break;
      AsyncTriggerPayload payload = mQueue.front();
      mQueue.pop_front();
      deliver(lock, payload);
      ++mDelivered;
      mProgress.notify_all();
    }
    mProgress.notify_all();
  }

  void stop() {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mStopping = true;
    }
    mWork.notify_all();
    // A forked child inherits the object but not the thread.
    if (getpid() == mOwnerPid && mThread.joinable()) mThread.join();
  }
};

MemPerfd* MemPerfd::getInstance() {
  // Never destroyed: plug-ins may deregister from their own static
  // destructors after the thread has been stopped at exit.
  static MemPerfd* hub = [] {
    auto* created = new MemPerfd();
    std::atexit(&MemPerfd::stopAtExit);
    return created;
  }();
  return hub;
}

void MemPerfd::stopAtExit() { getInstance()->mImpl->stop(); }

MemPerfd::MemPerfd() : mImpl(new Impl()) { mImpl->mThread = std::thread([this] { mImpl->run(); }); }

MemPerfd::~MemPerfd() {
  mImpl->stop();
  delete mImpl;
}

int MemPerfd::registerToPerfHint(Action* action, unsigned hint, bool exclusive) {
  std::lock_guard<std::mutex> lock(mImpl->mMutex);
  if (!mImpl->registered(action, hint)) mImpl->mRegistrations[hint].push_back({action, exclusive});
  return 0;
}

int MemPerfd::deregisterPerfHint(Action* action, unsigned hint) {
  std::unique_lock<std::mutex> lock(mImpl->mMutex);
  auto it = mImpl->mRegistrations.find(hint);
  if (it == mImpl->mRegistrations.end() || !mImpl->registered(action, hint)) return -1;
  auto& list = it->second;
  list.erase(std::remove_if(list.begin(), list.end(), [action](const Impl::Registration& r) { return r.action == action; }),
             list.end());
  // The hub's own thread is the one running the action: waiting would hang.
  if (!mImpl->onHubThread())
    mImpl->mProgress.wait(lock, [&] { return mImpl->mRunning != action || mImpl->mRunningHint != hint; });
  return 0;
}

void MemPerfd::sendHint(const AsyncTriggerPayload& payload) {
  {
    std::lock_guard<std::mutex> lock(mImpl->mMutex);
    if (mImpl->mStopping) return;
    mImpl->mQueue.push_back(payload);
    ++mImpl->mQueued;
  }
  mImpl->mWork.notify_one();
}

void MemPerfd::drain() {
  std::unique_lock<std::mutex> lock(mImpl->mMutex);
  if (mImpl->onHubThread()) return;
  const uint64_t target = mImpl->mQueued;
  mImpl->mProgress.wait(lock, [&] { return mImpl->mDelivered >= target || mImpl->mStopping; });
}
