#include "LaunchCost.h"

#include <algorithm>
#include <iterator>

namespace vsim {

std::optional<LaunchCosts> LaunchCosts::forClass(int gigabytes) {
  struct ClassCosts {
    int gigabytes;
    LaunchCosts costs;
  };
  // Entry (eMMC, Cortex-A53), mid-range (UFS 2.x, A55/A7x) and upper
  // mid-range (UFS 3.x, A76-class) phones; see the README for the sources.
  static const ClassCosts kClasses[] = {
      {2, {1500, 300, 5.0, 4.0, 1.5, 4.0}},
      {4, {1000, 200, 2.5, 2.5, 1.0, 3.0}},
      {6, {700, 150, 1.25, 1.5, 0.6, 2.0}},
  };
  const auto* c = std::find_if(std::begin(kClasses), std::end(kClasses),
                               [gigabytes](const ClassCosts& k) { return k.gigabytes == gigabytes; });
  if (c == std::end(kClasses)) return std::nullopt;
  return c->costs;
}

double estimateLaunchMs(const LaunchCosts& costs, const LaunchWork& work) {
  const auto mb = [](uint64_t kb) { return static_cast<double>(kb) / 1024.0; };
  const double base = work.baseMs ? *work.baseMs : work.cold ? costs.coldLaunchMs : costs.warmLaunchMs;
  return base + mb(work.cacheDroppedKB) * costs.cacheRefaultMsPerMB +
         mb(work.swappedOutKB) * costs.zramCompressMsPerMB + mb(work.swappedInKB) * costs.zramDecompressMsPerMB +
         mb(work.lmkWaitKB) * costs.lmkWaitMsPerMB;
}

}  // namespace vsim
