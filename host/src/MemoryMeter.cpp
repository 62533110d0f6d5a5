#include "MemoryMeter.h"

#include "StatsProvider.h"

namespace kxhost {

MemoryMeter::MemoryMeter() : Meter(kName) {
  addField(new Field(kIonKgsl));
  addField(new Field(kRssSwap));
}

void MemoryMeter::sample(const AsyncTriggerPayload& trigger) {
  Meter::sample(trigger);
  const PIDStats stats = StatsProvider::getPIDStats(trigger.pid);
  if (stats.pid == -1) return;
  mFields[0]->addValue(static_cast<int64_t>(stats.gpuKB));
  mFields[1]->addValue(static_cast<int64_t>(stats.rssAnonSwapKB));
}

}  // namespace kxhost
