// The estimated launch time: what the user waits for. A base time (cold when
// the app's process has to be started, warm when it is still alive), plus
// the memory the kernel had to find at that launch, each kind priced per MB
// by figures of the device's class. The defaults and where they come from
// are listed in the README; a scenario can override every one.
#pragma once

#include <cstdint>
#include <optional>

namespace vsim {

struct LaunchCosts {
  double coldLaunchMs = 0;           // base time of a launch that starts the app's process
  double warmLaunchMs = 0;           // base time of a launch of an app still running
  double cacheRefaultMsPerMB = 0;    // page cache dropped for the launch, read back from storage later
  double zramCompressMsPerMB = 0;    // anonymous memory of other apps compressed into zram
  double zramDecompressMsPerMB = 0;  // the app's own swapped-out memory brought back
  double lmkWaitMsPerMB = 0;         // memory found only by waiting for the low-memory killer

  // Typical figures of the 2, 4 and 6 GB classes; nullopt for other sizes.
  static std::optional<LaunchCosts> forClass(int gigabytes);
};

// What the kernel did for one launch, KB.
struct LaunchWork {
  bool cold = true;
  std::optional<double> baseMs;  // the app's own base time, when the scenario gives one
  uint64_t cacheDroppedKB = 0;
  uint64_t swappedOutKB = 0;
  uint64_t swappedInKB = 0;
  uint64_t lmkWaitKB = 0;
};

double estimateLaunchMs(const LaunchCosts& costs, const LaunchWork& work);

}  // namespace vsim
