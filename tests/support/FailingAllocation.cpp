#include "support/FailingAllocation.h"

#include <new>

namespace {

// This thread's plan: allocations to let through first, then to refuse.
thread_local int tPass = -1;  // -1: no scope
thread_local int tRefuse = 0;
thread_local int tSeen = 0;

bool refuseNext() {
  if (tPass < 0) return false;
  ++tSeen;
  if (tPass > 0) {
    --tPass;
    return false;
  }
  if (tRefuse == 0) return false;
  --tRefuse;
  return true;
}

}  // namespace

namespace kxtest {

NothrowFailure::NothrowFailure(int nth, int count) {
  tPass = nth - 1;
  tRefuse = count;
  tSeen = 0;
}

NothrowFailure::~NothrowFailure() { tPass = -1; }

int NothrowFailure::seen() { return tSeen; }

}  // namespace kxtest

// The replacement keeps the standard behaviour otherwise: the throwing
// operator's memory, which the ordinary delete frees (also under sanitizers,
// which pair allocation and deallocation functions).
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (refuseNext()) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
