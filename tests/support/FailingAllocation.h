// Makes `new (std::nothrow)` fail on the calling thread, for the paths that
// must survive running out of memory. The program that includes this links
// tests/support/FailingAllocation.cpp, which replaces the nothrow operator.
#pragma once

#include <climits>

namespace kxtest {

// While it lives, the `nth` nothrow allocation of this thread (1 = the next
// one) and the `count` - 1 after it return null.
class NothrowFailure {
 public:
  explicit NothrowFailure(int nth = 1, int count = INT_MAX);
  ~NothrowFailure();
  NothrowFailure(const NothrowFailure&) = delete;
  NothrowFailure& operator=(const NothrowFailure&) = delete;

  // Nothrow allocations this thread made or refused since the scope began.
  static int seen();
};

}  // namespace kxtest
