// Memory statistics service of the framework.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

// System-wide memory statistics, all figures in KB. The order of the fields
// is part of the framework contract: the kill decision reads them by position.
struct SysStats {
  uint64_t freeKB;            //  1 MemFree
  uint64_t totalKB;           //  2 MemTotal
  uint64_t kernelStackKB;     //  3 KernelStack
  uint64_t reclaimableKB;     //  4 KReclaimable - SReclaimable (non-slab kernel caches, e.g. ION pools)
  uint64_t zramUsedKB;        //  5 zram mm_stat mem_used_total
  uint64_t zramOrigKB;        //  6 zram mm_stat orig_data_size
  uint64_t zramSizeKB;        //  7 zram disksize
  uint64_t unreclaimableKB;   //  8 Unevictable
  uint64_t buffersKB;         //  9 Buffers
  uint64_t sReclaimableKB;    // 10 SReclaimable
  uint64_t sUnreclaimKB;      // 11 SUnreclaim
  uint64_t freeCmaKB;         // 12 CmaFree
  uint64_t mappedKB;          // 13 Mapped
  uint64_t swapCachedKB;      // 14 SwapCached
  uint64_t pageTablesKB;      // 15 PageTables
  uint64_t vmallocUsedKB;     // 16 VmallocUsed
  uint64_t shmemKB;           // 17 Shmem
  // Per zone: free, active anon, inactive anon, active file, inactive file.
  uint64_t dmaFreeKB, dmaActiveAnonKB, dmaInactiveAnonKB, dmaActiveFileKB, dmaInactiveFileKB;                  // 18-22
  uint64_t normalFreeKB, normalActiveAnonKB, normalInactiveAnonKB, normalActiveFileKB, normalInactiveFileKB;  // 23-27
  uint64_t movableFreeKB, movableActiveAnonKB, movableInactiveAnonKB, movableActiveFileKB, movableInactiveFileKB;  // 28-32
  uint64_t highMemFreeKB, highMemActiveAnonKB, highMemInactiveAnonKB, highMemActiveFileKB, highMemInactiveFileKB;  // 33-37
};
static_assert(sizeof(SysStats) == 37 * sizeof(uint64_t), "SysStats has 37 figures");

// Per-process statistics. The three memory figures (KB) are, in record order:
//   1. rssFileKB      file-backed resident memory
//   2. rssAnonSwapKB  anonymous resident plus swapped memory ("rss_swap")
//   3. gpuKB          graphics memory, ION/KGSL ("ion_kgsl")
// Killing the process frees about their sum. The host's "Memory" meter takes
// its "ion_kgsl" and "rss_swap" fields from 3 and 2 (see Meter.h).
struct PIDStats {
  int32_t pid;
  uint64_t rssFileKB;
  int32_t oomScoreAdj;
  uint64_t rssAnonSwapKB;
  char comm[16];  // process name as the kernel keeps it (NUL-terminated)
  uint64_t gpuKB;
  // Clock ticks after boot at which the process started. A pid is reused
  // once its process has gone; pid and start time together name one process.
  // Sources that cannot tell leave it 0.
  uint64_t startTime = 0;
};

namespace kxhost {

// Where statistics come from. The reference host reads a Linux proc tree;
// tests and the simulator install their own source.
class StatsSource {
 public:
  virtual ~StatsSource() = default;
  virtual SysStats sysStats() = 0;
  // A record with pid -1 when the process is unknown.
  virtual PIDStats pidStats(int pid) = 0;
  // Every process whose oom_score_adj lies in [minAdj, maxAdj].
  virtual std::vector<PIDStats> pidStatsRange(int minAdj, int maxAdj) = 0;
  // The start time of `pid` alone, nullopt when the process is unknown: the
  // check, just before a signal, that a pid still names the process listed
  // earlier. By default taken from pidStats(); sources that can read it on
  // its own (one file instead of three) override it. Inline, so that a
  // source built without the host library (the simulator's) links.
  virtual std::optional<uint64_t> startTime(int pid) {
    if (pid <= 0) return std::nullopt;  // -1 is the "unknown" record's pid
    const PIDStats stats = pidStats(pid);
    if (stats.pid != pid) return std::nullopt;
    return stats.startTime;
  }
};

// Installs the process-wide source; null restores the /proc reader.
void setStatsSource(std::shared_ptr<StatsSource> source);

}  // namespace kxhost

class StatsProvider {
 public:
  static SysStats getSysStats();
  static PIDStats getPIDStats(int pid);
  static std::vector<PIDStats> getPIDStatsRange(int minOomScoreAdj, int maxOomScoreAdj);
  static std::optional<uint64_t> getPIDStartTime(int pid);
};
