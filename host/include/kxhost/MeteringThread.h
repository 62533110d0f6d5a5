// The host's metering thread: meter aggregators' samples are recorded here,
// one at a time, away from the thread that triggered them.
#pragma once

#include <functional>

namespace kxhost {

class MeteringThread {
 public:
  // The process-wide thread; it starts on first use and is stopped at
  // process exit (work still queued then is dropped).
  static MeteringThread& instance();

  // Queues `work` on behalf of `owner` (an aggregator).
  void post(const void* owner, std::function<void()> work);
  // Drops `owner`'s queued work and waits for its work in progress, unless
  // called from the metering thread itself. Afterwards nothing runs for it.
  void cancel(const void* owner);
  // Waits until everything queued so far has run (or was cancelled).
  // Returns at once on the metering thread itself.
  void drain();

  MeteringThread(const MeteringThread&) = delete;
  MeteringThread& operator=(const MeteringThread&) = delete;

 private:
  MeteringThread();
  ~MeteringThread();
  static void stopAtExit();
  struct Impl;
  Impl* mImpl;
};

}  // namespace kxhost
