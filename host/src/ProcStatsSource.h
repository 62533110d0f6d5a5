// The reference host's statistics source: reads a Linux proc tree and the
// zram device's sysfs directory, the same files the framework reads on a
// device. The roots are options so that tests and the simulator can point it
// at a fixture tree.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ProcParsers.h"
#include "StatsProvider.h"

namespace kxhost {

class ProcStatsSource : public StatsSource {
 public:
  struct Options {
    std::string procRoot = "/proc";
    std::string sysRoot = "/sys";  // the zram device is <sysRoot>/block/zram0
    // KB per page for the zone figures, which zoneinfo gives in pages.
    // 0: the running kernel's, sysconf(_SC_PAGESIZE) / 1024.
    uint64_t pageKB = 0;
  };

  ProcStatsSource() : ProcStatsSource(Options()) {}
  explicit ProcStatsSource(Options options);

  SysStats sysStats() override;
  PIDStats pidStats(int pid) override;
  std::vector<PIDStats> pidStatsRange(int minAdj, int maxAdj) override;
  std::optional<uint64_t> startTime(int pid) override;

 private:
  MemInfo readMeminfo() const;
  ZoneInfo readZoneinfo() const;
  void readZram(SysStats* stats) const;
  void fillZones(SysStats* stats) const;

  // Null when the process is gone (or its entry unreadable).
  std::optional<int> readOomScoreAdj(int pid) const;
  // Fills the memory figures and name; false when the process is gone.
  bool readStatus(int pid, PIDStats* out) const;
  // Null when the process is gone (or its stat file unreadable).
  std::optional<uint64_t> readStartTime(int pid) const;
  // The whole record: null when any of its three files is gone.
  std::optional<PIDStats> readProcess(int pid, int adj) const;

  std::string procPath(const std::string& rel) const { return mOptions.procRoot + "/" + rel; }
  std::string zramPath(const std::string& name) const { return mOptions.sysRoot + "/block/zram0/" + name; }

  Options mOptions;
};

}  // namespace kxhost
