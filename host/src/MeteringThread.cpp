#include "kxhost/MeteringThread.h"

#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>

namespace kxhost {

struct MeteringThread::Impl {
  struct Work {
    uint64_t seq;  // 1, 2, ... in posting order
    const void* owner;
    std::function<void()> run;
  };

  // Guards every member below except mThread and mOwnerPid.
  std::mutex mMutex;
  std::condition_variable mWork;      // queue non-empty or stopping
  std::condition_variable mProgress;  // a piece of work finished or was dropped
  std::deque<Work> mQueue;             // in seq order
  uint64_t mPosted = 0;                // seq of the last piece posted
  const void* mRunning = nullptr;      // owner of the work that runs now
  uint64_t mRunningSeq = 0;            // its seq; 0 when idle
  bool mStopping = false;

  // Started by the constructor (first instance()), stopped and joined by
  // stopAtExit when the process exits.
  std::thread mThread;
  pid_t mOwnerPid = getpid();

  bool onThread() const { return std::this_thread::get_id() == mThread.get_id(); }

  // Whether no piece up to `seq` is queued or running.
  bool doneUpTo(uint64_t seq) const {
    bool queued = !mQueue.empty() && mQueue.front().seq <= seq;
    bool running = mRunningSeq != 0 && mRunningSeq <= seq;
    return !queued && !running;
  }

  void run() {
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
      mWork.wait(lock, [this] { return mStopping || !mQueue.empty(); });
      if (mStopping) break;
      Work work = std::move(mQueue.front());
      mQueue.pop_front();
      mRunning = work.owner;
      mRunningSeq = work.seq;
      lock.unlock();
      work.run();
      // Captured objects die here, outside the lock and before the owner's
      // cancel() may return.
      work.run = nullptr;
      lock.lock();
      mRunning = nullptr;
      mRunningSeq = 0;
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

MeteringThread& MeteringThread::instance() {
  // Never destroyed: aggregators may cancel from static destructors after
  // the thread was stopped at exit.
  static MeteringThread* thread = [] {
    auto* created = new MeteringThread();
    std::atexit(&MeteringThread::stopAtExit);
    return created;
  }();
  return *thread;
}

void MeteringThread::stopAtExit() { instance().mImpl->stop(); }

MeteringThread::MeteringThread() : mImpl(new Impl()) { mImpl->mThread = std::thread([this] { mImpl->run(); }); }

MeteringThread::~MeteringThread() {
  mImpl->stop();
  delete mImpl;
}

void MeteringThread::post(const void* owner, std::function<void()> work) {
  {
    std::lock_guard<std::mutex> lock(mImpl->mMutex);
    if (mImpl->mStopping) return;
    mImpl->mQueue.push_back({++mImpl->mPosted, owner, std::move(work)});
  }
  mImpl->mWork.notify_one();
}

void MeteringThread::cancel(const void* owner) {
  std::deque<Impl::Work> dropped;  // destroyed after the lock is released
  std::unique_lock<std::mutex> lock(mImpl->mMutex);
  auto& queue = mImpl->mQueue;
  for (auto it = queue.begin(); it != queue.end();) {
    if (it->owner == owner) {
      dropped.push_back(std::move(*it));
      it = queue.erase(it);
    } else {
      ++it;
    }
  }
  mImpl->mProgress.notify_all();
  if (!mImpl->onThread()) mImpl->mProgress.wait(lock, [&] { return mImpl->mRunning != owner; });
  lock.unlock();
}

void MeteringThread::drain() {
  std::unique_lock<std::mutex> lock(mImpl->mMutex);
  if (mImpl->onThread()) return;
  const uint64_t target = mImpl->mPosted;
  mImpl->mProgress.wait(lock, [&] { return mImpl->doneUpTo(target) || mImpl->mStopping; });
}

}  // namespace kxhost
