// Statistics entry points for a host library built without its /proc reader.
// Every definition here is weak: when the reader is linked in, its own
// definitions take over and this file is inert. Until then only a source
// installed with setStatsSource answers; without one, every figure is 0 and
// every process unknown.
#include <mutex>

#include "StatsProvider.h"

namespace kxhost {
namespace {

// Guards gSource.
std::mutex gFallbackMutex;
std::shared_ptr<StatsSource> gSource;

std::shared_ptr<StatsSource> installedSource() {
  std::lock_guard<std::mutex> lock(gFallbackMutex);
  return gSource;
}

PIDStats unknownProcess() {
  PIDStats s{};
  s.pid = -1;
  return s;
}

}  // namespace

__attribute__((weak)) void setStatsSource(std::shared_ptr<StatsSource> source) {
  std::lock_guard<std::mutex> lock(gFallbackMutex);
  gSource = std::move(source);
}

}  // namespace kxhost

__attribute__((weak)) SysStats StatsProvider::getSysStats() {
  auto source = kxhost::installedSource();
  return source ? source->sysStats() : SysStats{};
}

__attribute__((weak)) PIDStats StatsProvider::getPIDStats(int pid) {
  auto source = kxhost::installedSource();
  return source ? source->pidStats(pid) : kxhost::unknownProcess();
}

__attribute__((weak)) std::vector<PIDStats> StatsProvider::getPIDStatsRange(int minOomScoreAdj, int maxOomScoreAdj) {
  auto source = kxhost::installedSource();
  return source ? source->pidStatsRange(minOomScoreAdj, maxOomScoreAdj) : std::vector<PIDStats>{};
}
