// The host's "Memory" meter (field meanings in Meter.h).
#pragma once

#include "Meter.h"

namespace kxhost {

class MemoryMeter : public Meter {
 public:
  static constexpr const char* kName = "Memory";
  static constexpr const char* kIonKgsl = "ion_kgsl";
  static constexpr const char* kRssSwap = "rss_swap";

  MemoryMeter();
  // Reads the trigger's process through StatsProvider.
  void sample(const AsyncTriggerPayload& trigger) override;
};

}  // namespace kxhost
