// A named blocking queue between the host's trigger thread and one consumer.
// A producer that outruns the consumer does not grow it without bound: a push
// that finds the queue at its threshold treats that as a flood and empties it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <utility>

#include "kxdb/KxLog.h"

template <typename T>
class WaitingQueue {
 public:
  // `flushThreshold` 0 means no limit.
  WaitingQueue(std::string name, int32_t flushThreshold) : mName(std::move(name)), mFlushThreshold(flushThreshold) {}

  WaitingQueue(const WaitingQueue&) = delete;
  WaitingQueue& operator=(const WaitingQueue&) = delete;

  // Appends a copy of `item`; returns false when the flood rule dropped it
  // together with everything queued before.
  bool push(const T& item) {
    bool queued = true;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      const int32_t size = static_cast<int32_t>(mItems.size());
      if (mFlushThreshold != 0 && mFlushThreshold <= size) {
        KXLOGW("WQ", "%s push() size=%d mFlushThreshold=%d, Reached threshold => flooding detected, clearing Queue",
               mName.c_str(), size, mFlushThreshold);
        mItems.clear();
        queued = false;
        if (!mBusy) mIdle.notify_all();
      } else {
        mItems.push_back(item);
      }
    }
    mAvailable.notify_one();
    return queued;
  }

  // Consumer side: blocks until an item is queued and takes it. The consumer
  // counts as busy until it calls taskDone().
  T pop() {
    std::unique_lock<std::mutex> lock(mMutex);
    mAvailable.wait(lock, [this] { return !mItems.empty(); });
    T item = std::move(mItems.front());
    mItems.pop_front();
    mBusy = true;
    return item;
  }

  // Consumer side: the item taken by the last pop() has been dealt with.
  void taskDone() {
    std::lock_guard<std::mutex> lock(mMutex);
    mBusy = false;
    if (mItems.empty()) mIdle.notify_all();
  }

  // Waits until the queue is empty and the consumer is not working on an
  // item: everything queued so far has been taken and dealt with (or
  // flushed). Only meaningful while a consumer runs.
  void waitIdle() {
    std::unique_lock<std::mutex> lock(mMutex);
    mIdle.wait(lock, [this] { return mItems.empty() && !mBusy; });
  }

  size_t size() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mItems.size();
  }

  const std::string& name() const { return mName; }
  int32_t flushThreshold() const { return mFlushThreshold; }

 private:
  std::deque<T> mItems;  // guarded by mMutex
  const std::string mName;
  // Guards mItems and mBusy.
  mutable std::mutex mMutex;
  std::condition_variable mAvailable;  // signalled once per push
  std::condition_variable mIdle;       // signalled when the queue drains with the consumer idle
  const int32_t mFlushThreshold;
  bool mBusy = false;  // guarded by mMutex: the consumer holds a popped item
};
