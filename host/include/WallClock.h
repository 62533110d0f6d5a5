// The wall clock that time-of-day decisions read (the favourite time slots).
// time() on a device; tests and the simulator put their own clock in, so a
// simulated day can cross its slots in seconds.
#pragma once

#include <ctime>

namespace kxhost {

using ClockFn = time_t (*)(time_t*);

// Replaces the clock for the whole process; null restores time(). Thread-safe.
void setWallClock(ClockFn fn);

// Seconds since the epoch from the current clock.
time_t wallTime();

}  // namespace kxhost
