// Learning component of a feature.
#pragma once

#include <atomic>

class Algo {
 public:
  // One learning run; cooperative cancellation through `cancel`.
  virtual void runAlgo(const std::atomic<bool>& cancel) = 0;
  virtual ~Algo();
};
