#include "WallClock.h"

#include <atomic>

namespace kxhost {
namespace {

std::atomic<ClockFn> gClock{nullptr};

}  // namespace

void setWallClock(ClockFn fn) { gClock.store(fn); }

time_t wallTime() {
  ClockFn clock = gClock.load();
  return clock != nullptr ? clock(nullptr) : time(nullptr);
}

}  // namespace kxhost
