#include "StatsProvider.h"

#include <mutex>

#include "ProcStatsSource.h"

namespace kxhost {
namespace {

// Guards gSource. Callers take a copy of the pointer and read through it
// outside the lock, so a slow proc scan never blocks a swap and a source
// replaced mid-call stays alive until that call returns.
std::mutex gSourceMutex;
std::shared_ptr<StatsSource> gSource;

std::shared_ptr<StatsSource> currentSource() {
  std::lock_guard<std::mutex> lock(gSourceMutex);
  if (!gSource) gSource = std::make_shared<ProcStatsSource>();
  return gSource;
}

}  // namespace

void setStatsSource(std::shared_ptr<StatsSource> source) {
  std::lock_guard<std::mutex> lock(gSourceMutex);
  gSource = std::move(source);  // null: the next call creates the /proc reader again
}

}  // namespace kxhost

SysStats StatsProvider::getSysStats() { return kxhost::currentSource()->sysStats(); }

PIDStats StatsProvider::getPIDStats(int pid) { return kxhost::currentSource()->pidStats(pid); }

std::vector<PIDStats> StatsProvider::getPIDStatsRange(int minOomScoreAdj, int maxOomScoreAdj) {
  return kxhost::currentSource()->pidStatsRange(minOomScoreAdj, maxOomScoreAdj);
}

std::optional<uint64_t> StatsProvider::getPIDStartTime(int pid) { return kxhost::currentSource()->startTime(pid); }
