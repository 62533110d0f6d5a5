// The simulated device as the framework's statistics service sees it: the
// memory model plus the simulator's own processes. It is the only source of
// process ids for the plug-in, so it offers nothing but live children of the
// simulator's pool.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "DeviceModel.h"
#include "ProcessPool.h"
#include "StatsProvider.h"

namespace vsim {

class SimDevice : public kxhost::StatsSource {
 public:
  SimDevice(const DeviceProfile& profile, const ProcessPool& pool);

  SysStats sysStats() override;
  PIDStats pidStats(int pid) override;
  std::vector<PIDStats> pidStatsRange(int minAdj, int maxAdj) override;

  // Puts a child of the pool on the device; refuses (nullopt) any other pid.
  std::optional<Reclaim> addProcess(int pid, const std::string& name, uint64_t anonKB, uint64_t fileKB,
                                    uint64_t gpuKB, int oomAdj);
  Reclaim grow(int pid, uint64_t anonKB);
  Reclaim swapIn(int pid, uint64_t* swappedInKB);
  void setOomAdj(int pid, int oomAdj);
  bool removeProcess(int pid);
  std::optional<ProcessMemory> process(int pid) const;
  // A consistent copy for reading several figures at once.
  DeviceModel snapshot() const;

 private:
  PIDStats record(int pid, const ProcessMemory& m) const;

  const ProcessPool& mPool;
  // Guards mModel and mNames: the plug-in's hint and metering threads read
  // statistics while the simulator's thread changes the device.
  mutable std::mutex mMutex;
  DeviceModel mModel;
  std::unordered_map<int, std::string> mNames;
};

}  // namespace vsim
