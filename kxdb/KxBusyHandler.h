// What a store's connection does when another connection or process holds
// the lock it needs.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <iterator>

#include "kxdb/KxFailFast.h"

namespace kxdb {

// Installed on every connection in place of a fixed busy timeout. Inside a
// FailFastScope it gives up at once, so the launch path never waits for a
// lock; elsewhere it waits with growing pauses up to a bound and then lets
// the statement fail with SQLITE_BUSY, which the store reports.
class KxBusyHandler {
 public:
  // The bound for background work. The other writers of these files hold
  // the lock for one write-back, a few milliseconds; a holder that keeps it
  // for a second is a long-lived one (a shell, another process in exclusive
  // mode) that waiting longer will not outlast, while the metering and
  // learning threads would stall behind it. Failed rows stay cached for the
  // next write-back.
  static constexpr int kWaitMs = 1000;
  // The bound while a store opens. The host opens the tables one after the
  // other at start-up, and a table that cannot be opened is reported rather
  // than waited for.
  static constexpr int kOpenWaitMs = 250;

  void install(sqlite3* db) { sqlite3_busy_handler(db, &onBusy, this); }
  void setLimitMs(int ms) { mLimitMs.store(ms, std::memory_order_relaxed); }

  // The open's bound for as long as it lives, the background one after it,
  // whichever way the open ends.
  class OpenWait {
   public:
    explicit OpenWait(KxBusyHandler& busy) : mBusy(busy) { mBusy.setLimitMs(kOpenWaitMs); }
    ~OpenWait() { mBusy.setLimitMs(kWaitMs); }
    OpenWait(const OpenWait&) = delete;
    OpenWait& operator=(const OpenWait&) = delete;

   private:
    KxBusyHandler& mBusy;
  };

  // Sleeps the pause that follows `attempt` earlier ones; false, without
  // sleeping, once the pauses have used up the bound.
  bool pause(int attempt);
  // Pauses slept since the connection opened.
  unsigned long waits() const { return mWaits.load(std::memory_order_relaxed); }

 private:
  static int onBusy(void* self, int attempt);

  std::atomic<int> mLimitMs{kWaitMs};
  std::atomic<unsigned long> mWaits{0};
};

namespace detail {

// Short pauses first, so that a lock held for one write-back costs about
// as long as that write-back; then a tenth of a second at a time.
inline constexpr int kPausesMs[] = {1, 2, 5, 10, 15, 20, 25, 25, 25, 50, 50, 100};
inline constexpr int kSteps = static_cast<int>(std::size(kPausesMs));
inline constexpr int kLongPauseMs = 100;

// Milliseconds slept by the pauses before `attempt`.
inline long sleptBefore(int attempt) {
  long total = 0;
  for (int i = 0; i < std::min(attempt, kSteps); ++i) total += kPausesMs[i];
  if (attempt > kSteps) total += static_cast<long>(attempt - kSteps) * kLongPauseMs;
  return total;
}

}  // namespace detail

inline bool KxBusyHandler::pause(int attempt) {
  const long limit = mLimitMs.load(std::memory_order_relaxed);
  const long before = detail::sleptBefore(attempt);
  if (before >= limit) return false;
  const long next = attempt < detail::kSteps ? detail::kPausesMs[attempt] : detail::kLongPauseMs;
  mWaits.fetch_add(1, std::memory_order_relaxed);
  sqlite3_sleep(static_cast<int>(std::min(next, limit - before)));
  return true;
}

inline int KxBusyHandler::onBusy(void* self, int attempt) {
  if (failFast()) return 0;
  return static_cast<KxBusyHandler*>(self)->pause(attempt) ? 1 : 0;
}

}  // namespace kxdb
