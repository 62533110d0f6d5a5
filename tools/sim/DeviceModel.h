// Memory of the simulated device: a small set of quantities (page cache,
// anonymous and graphics memory of each process, zram) from which a coherent
// system statistics record is derived, so that the kill decision's sums
// (free, cache, load, available) add up to the device's total memory.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "LaunchCost.h"
#include "StatsProvider.h"

namespace vsim {

struct DeviceProfile {
  uint64_t totalKB = 0;        // MemTotal; also picks the plug-in's model class
  uint64_t zramSizeKB = 0;     // zram disk size: most uncompressed data it holds
  double zramRatio = 3.0;      // uncompressed / compressed size of swapped pages
  uint64_t systemAnonKB = 0;   // anonymous memory of system processes (never killed)
  uint64_t systemGpuKB = 0;    // graphics memory of the system (compositor, launcher)
  uint64_t cacheKB = 0;        // page cache at boot
  uint64_t minCacheKB = 0;     // cache the kernel keeps however hard it reclaims
  uint64_t lowWatermarkKB = 0; // below this much free memory the kernel reclaims
  LaunchCosts costs;           // what a launch costs the user on this device

  // Typical devices of the 2, 4 and 6 GB classes; nullopt for other sizes.
  static std::optional<DeviceProfile> forClass(int gigabytes);
  // "2GB", "4GB" or "6GB" from totalKB, as the plug-in chooses its model; "" outside.
  std::string memClass() const;
};

// Memory of one process, KB.
struct ProcessMemory {
  uint64_t anonKB = 0;     // resident anonymous memory
  uint64_t swappedKB = 0;  // anonymous memory held compressed in zram (uncompressed size)
  uint64_t fileKB = 0;     // mapped file pages
  uint64_t gpuKB = 0;      // ION / KGSL graphics memory
  int oomAdj = 0;
  // What the statistics report as "rss_swap".
  uint64_t rssSwapKB() const { return anonKB + swappedKB; }
  // What killing the process frees, as the kill action counts it.
  uint64_t totalKB() const { return anonKB + swappedKB + fileKB + gpuKB; }
};

// What the kernel had to do to satisfy an allocation.
struct Reclaim {
  uint64_t cacheDroppedKB = 0;  // page cache dropped
  uint64_t swappedKB = 0;       // anonymous memory moved into zram
  uint64_t shortKB = 0;         // memory that could not be found at all
  bool direct() const { return cacheDroppedKB > 0 || swappedKB > 0 || shortKB > 0; }
  Reclaim& operator+=(const Reclaim& o) {
    cacheDroppedKB += o.cacheDroppedKB;
    swappedKB += o.swappedKB;
    shortKB += o.shortKB;
    return *this;
  }
};

class DeviceModel {
 public:
  explicit DeviceModel(const DeviceProfile& profile);

  // Adds a process and takes its memory; when free memory falls below the low
  // watermark the kernel drops cache, then the file pages of background
  // processes, then swaps background processes into zram (highest
  // oom_score_adj first). Memory that even that cannot provide is
  // reported in shortKB and not given to the process.
  Reclaim addProcess(int pid, uint64_t anonKB, uint64_t fileKB, uint64_t gpuKB, int oomAdj);
  // Grows a process's anonymous memory (reclaiming as addProcess does).
  Reclaim grow(int pid, uint64_t anonKB);
  // Brings the process's swapped-out memory back from zram (it is in use
  // again), reclaiming as addProcess does; what cannot be found stays
  // swapped. Returns the reclaim and, in *swappedInKB, what came back.
  Reclaim swapIn(int pid, uint64_t* swappedInKB);
  void setOomAdj(int pid, int oomAdj);
  // Frees the process's memory; its file pages stay in the page cache.
  bool removeProcess(int pid);

  bool hasProcess(int pid) const { return mProcs.count(pid) != 0; }
  std::optional<ProcessMemory> process(int pid) const;

  // How much a new allocation can get before the kernel runs out of cache to
  // drop and zram to swap into (free memory down to zero).
  uint64_t headroomKB() const;
  // Free memory plus the cache and background file pages that can be
  // dropped: what a new allocation gets without swapping anything out.
  uint64_t cleanKB() const;

  SysStats sysStats() const;
  uint64_t freeKB() const { return mFreeKB; }
  // Free memory plus what can be reclaimed without swapping: the kill
  // decision's "available".
  uint64_t availableKB() const;
  uint64_t zramOrigKB() const { return mZramOrigKB; }
  uint64_t zramUsedKB() const;
  const DeviceProfile& profile() const { return mProfile; }

 private:
  struct Fixed {
    uint64_t kernelStack, pageTables, sUnreclaim, sReclaimable, reclaimable, unevictable, vmalloc, misc, buffers,
        shmem, cma;
  };
  uint64_t take(uint64_t kb, Reclaim& r);
  void reclaimTo(uint64_t targetFreeKB, Reclaim& r);
  uint64_t swappableKB() const;
  uint64_t usedKB() const;
  void recomputeFree();

  DeviceProfile mProfile;
  Fixed mFixed;
  uint64_t mCacheKB;      // droppable page cache (not mapped by a live process)
  uint64_t mZramOrigKB = 0;
  uint64_t mFreeKB = 0;
  std::map<int, ProcessMemory> mProcs;
};

}  // namespace vsim
