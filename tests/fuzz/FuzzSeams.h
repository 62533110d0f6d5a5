// The host seams that the harnesses of the feature set: a statistics source
// that lists no process as a candidate, kill and pause seams that make any
// attempt to signal a process a finding instead of a signal (the harnesses
// run as root: nothing they make up may ever reach kill()), and a log that
// formats every line, traces included, and keeps none.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "Properties.h"
#include "StatsProvider.h"
#include "kxhost/LogCapture.h"
#include "VorakAction.h"

namespace kxfuzz {

// System figures as given; a pid's figures derive from the pid, so that
// meter samples carry values; no process is ever in the candidate range.
class NoVictimStats : public kxhost::StatsSource {
 public:
  explicit NoVictimStats(const SysStats& sys) : mSys(sys) {}
  SysStats sysStats() override { return mSys; }
  PIDStats pidStats(int pid) override {
    if (pid <= 0) return PIDStats{-1, 0, 0, 0, {}, 0};
    const auto p = static_cast<uint64_t>(pid);
    return PIDStats{pid, p & 0xfff, 0, p & 0xfffff, "fuzz", p >> 20};
  }
  std::vector<PIDStats> pidStatsRange(int, int) override { return {}; }

 private:
  const SysStats mSys;
};

inline int refusePidfd(pid_t pid, unsigned int) {
  std::fprintf(stderr, "fuzz: the action went to signal pid %d, which no one offered\n", pid);
  std::abort();
}

inline int noPause(useconds_t) { return 0; }

class DiscardLog : public kxhost::LogSink {
 public:
  void write(const kxhost::LogLine&) override {}
};

// Installs the source and the seams for the rest of the process; after
// the properties of the device, which the trace switch joins.
inline void offerNoVictims(const SysStats& sys) {
  kxhost::setStatsSource(std::make_shared<NoVictimStats>(sys));
  VorakAction::setPidfdOpen(refusePidfd);
  VorakAction::setPause(noPause);
  kxhost::setProperty("vendor.debug.trace.VORAK", "1");
  kxhost::setLogSink(std::make_shared<DiscardLog>(), true);
}

}  // namespace kxfuzz
