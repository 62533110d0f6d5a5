// Threads on a latency-critical path (the launch hint) must never wait for a
// database lock that another connection or process holds: inside a
// FailFastScope a busy store gives up at once and the call fails, while other
// threads may still wait a bounded time. Per thread, since one store serves
// the hint thread and the background writers alike.
#pragma once

namespace kxdb {

namespace detail {
inline thread_local bool tFailFast = false;
}

inline bool failFast() { return detail::tFailFast; }

class FailFastScope {
 public:
  FailFastScope() : mWas(detail::tFailFast) { detail::tFailFast = true; }
  ~FailFastScope() { detail::tFailFast = mWas; }
  FailFastScope(const FailFastScope&) = delete;
  FailFastScope& operator=(const FailFastScope&) = delete;

 private:
  bool mWas;  // restored on exit, so scopes nest
};

}  // namespace kxdb
