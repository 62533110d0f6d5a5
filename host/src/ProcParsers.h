// Parsers for the kernel's memory reports. Each takes the text of one file and
// knows nothing of where it came from, so the same code serves /proc, fixture
// trees and tests.
//
// Every parser fills what it can and skips a malformed line rather than
// failing the whole file: one odd line from a newer kernel must not blank the
// statistics. It returns false when a line had to be skipped and sets `error`
// to the first such problem as "line N: ...", for the caller to prefix with
// the file name.
#pragma once

#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

namespace kxhost {

// /proc/meminfo reduced to the lines the statistics record is made of, each
// value as written (KB for "kB" lines, a count otherwise). Every line is
// checked; the others are dropped as they are read.
struct MemInfo {
  static constexpr std::string_view kKeys[] = {"MemTotal",   "MemFree",    "KernelStack", "KReclaimable", "SReclaimable",
                                               "Unevictable", "Buffers",   "SUnreclaim",  "CmaFree",      "Mapped",
                                               "SwapCached", "PageTables", "VmallocUsed", "Shmem"};
  uint64_t values[std::size(kKeys)] = {};

  // 0 for a key the kernel does not report (e.g. CmaFree without CMA) and
  // for one the record does not use.
  uint64_t get(std::string_view key) const;
  // Index of `key` in kKeys, -1 when it is not one of them.
  static int slot(std::string_view key);
};

// Page counts of one zone, summed over NUMA nodes.
struct ZonePages {
  uint64_t freePages = 0;
  uint64_t activeAnon = 0;
  uint64_t inactiveAnon = 0;
  uint64_t activeFile = 0;
  uint64_t inactiveFile = 0;
};

// /proc/zoneinfo reduced to the four zones of the statistics record. A zone
// the kernel does not have stays all zero.
struct ZoneInfo {
  ZonePages dma;  // DMA and DMA32
  ZonePages normal;
  ZonePages movable;
  ZonePages highMem;
};

// The figures of the zram device's mm_stat that the record needs.
struct ZramStat {
  uint64_t origDataKB = 0;    // uncompressed size of the stored data
  uint64_t memUsedTotalKB = 0;  // memory the device consumes, metadata included
};

// /proc/<pid>/status. The Rss* and VmSwap lines are absent for kernel
// threads; they then read as 0.
struct ProcStatus {
  std::string name;
  uint64_t rssFileKB = 0;
  uint64_t rssAnonKB = 0;
  uint64_t swapKB = 0;
};

bool parseMeminfo(const std::string& text, MemInfo* out, std::string* error);
bool parseZoneinfo(const std::string& text, ZoneInfo* out, std::string* error);
bool parseZramMmStat(const std::string& text, ZramStat* out, std::string* error);
bool parseProcStatus(const std::string& text, ProcStatus* out, std::string* error);
// /proc/<pid>/stat: the process's start time (field 22, clock ticks after
// boot). With the pid, it names one process for the life of the system,
// where the pid alone is reused once the process has gone.
bool parseProcStatStartTime(const std::string& text, uint64_t* out, std::string* error);

// A file holding one decimal number, such as oom_score_adj or zram's disksize.
bool parseSingleInt(const std::string& text, int64_t* out, std::string* error);

}  // namespace kxhost
