// The raw twin of the reference host's statistics source: the same files
// (meminfo, zoneinfo, the zram device's mm_stat and disksize, a process's
// stat) read with one read() each into a stack buffer and scanned once,
// straight into the record.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "StatsProvider.h"

namespace kxbench {

class RawProcStats {
 public:
  RawProcStats(std::string procRoot, std::string sysRoot, uint64_t pageKB)
      : mProcRoot(std::move(procRoot)), mSysRoot(std::move(sysRoot)), mPageKB(pageKB) {}

  SysStats sysStats() const {
    SysStats s{};
    char buf[kBufSize];
    if (read(mProcRoot + "/meminfo", buf)) meminfo(buf, s);
    if (read(mSysRoot + "/block/zram0/mm_stat", buf)) {
      char* p = buf;
      const uint64_t orig = std::strtoull(p, &p, 10);
      std::strtoull(p, &p, 10);
      s.zramUsedKB = std::strtoull(p, &p, 10) / 1024;
      s.zramOrigKB = orig / 1024;
    }
    if (read(mSysRoot + "/block/zram0/disksize", buf)) s.zramSizeKB = std::strtoull(buf, nullptr, 10) / 1024;
    if (read(mProcRoot + "/zoneinfo", buf)) zoneinfo(buf, s);
    return s;
  }

  // Field 22 of "<procRoot>/<pid>/stat", counted from the last ')'.
  static bool startTime(const char* procRoot, int pid, uint64_t* out) {
    char path[64];
    std::snprintf(path, sizeof path, "%s/%d/stat", procRoot, pid);
    char buf[1024];
    if (!readInto(path, buf, sizeof buf)) return false;
    const char* p = std::strrchr(buf, ')');
    if (p == nullptr) return false;
    for (int field = 2; field < 22 && p != nullptr; ++field) p = std::strchr(p + 1, ' ');
    if (p == nullptr) return false;
    *out = std::strtoull(p + 1, nullptr, 10);
    return true;
  }

 private:
  static constexpr size_t kBufSize = 64 * 1024;

  static bool readInto(const char* path, char* buf, size_t size) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    size_t used = 0;
    for (ssize_t n; used + 1 < size && (n = ::read(fd, buf + used, size - 1 - used)) > 0;) used += static_cast<size_t>(n);
    close(fd);
    buf[used] = '\0';
    return true;
  }
  static bool read(const std::string& path, char (&buf)[kBufSize]) { return readInto(path.c_str(), buf, kBufSize); }

  static void meminfo(char* p, SysStats& s) {
    uint64_t kReclaimable = 0;
    while (*p != '\0') {
      char* colon = std::strchr(p, ':');
      if (colon == nullptr) break;
      *colon = '\0';
      char* end = nullptr;
      const uint64_t v = std::strtoull(colon + 1, &end, 10);
      if (std::strcmp(p, "MemFree") == 0) s.freeKB = v;
      else if (std::strcmp(p, "MemTotal") == 0) s.totalKB = v;
      else if (std::strcmp(p, "KernelStack") == 0) s.kernelStackKB = v;
      else if (std::strcmp(p, "KReclaimable") == 0) kReclaimable = v;
      else if (std::strcmp(p, "SReclaimable") == 0) s.sReclaimableKB = v;
      else if (std::strcmp(p, "Unevictable") == 0) s.unreclaimableKB = v;
      else if (std::strcmp(p, "Buffers") == 0) s.buffersKB = v;
      else if (std::strcmp(p, "SUnreclaim") == 0) s.sUnreclaimKB = v;
      else if (std::strcmp(p, "CmaFree") == 0) s.freeCmaKB = v;
      else if (std::strcmp(p, "Mapped") == 0) s.mappedKB = v;
      else if (std::strcmp(p, "SwapCached") == 0) s.swapCachedKB = v;
      else if (std::strcmp(p, "PageTables") == 0) s.pageTablesKB = v;
      else if (std::strcmp(p, "VmallocUsed") == 0) s.vmallocUsedKB = v;
      else if (std::strcmp(p, "Shmem") == 0) s.shmemKB = v;
      char* nl = std::strchr(end, '\n');
      if (nl == nullptr) break;
      p = nl + 1;
    }
    s.reclaimableKB = kReclaimable > s.sReclaimableKB ? kReclaimable - s.sReclaimableKB : 0;
  }

  // A zone's five figures in the record: free, active anon, inactive anon,
  // active file, inactive file.
  using Zone = uint64_t* [5];

  static bool zoneOf(SysStats& s, const char* name, Zone& z) {
    auto set = [&z](uint64_t& a, uint64_t& b, uint64_t& c, uint64_t& d, uint64_t& e) {
      z[0] = &a, z[1] = &b, z[2] = &c, z[3] = &d, z[4] = &e;
      return true;
    };
    if (std::strncmp(name, "DMA", 3) == 0)
      return set(s.dmaFreeKB, s.dmaActiveAnonKB, s.dmaInactiveAnonKB, s.dmaActiveFileKB, s.dmaInactiveFileKB);
    if (std::strcmp(name, "Normal") == 0)
      return set(s.normalFreeKB, s.normalActiveAnonKB, s.normalInactiveAnonKB, s.normalActiveFileKB,
                 s.normalInactiveFileKB);
    if (std::strcmp(name, "Movable") == 0)
      return set(s.movableFreeKB, s.movableActiveAnonKB, s.movableInactiveAnonKB, s.movableActiveFileKB,
                 s.movableInactiveFileKB);
    if (std::strcmp(name, "HighMem") == 0)
      return set(s.highMemFreeKB, s.highMemActiveAnonKB, s.highMemInactiveAnonKB, s.highMemActiveFileKB,
                 s.highMemInactiveFileKB);
    return false;
  }

  // Zone counters are pages; per-node stats (kernels from 4.8) are skipped.
  void zoneinfo(char* p, SysStats& s) const {
    Zone zone{};
    bool inZone = false;
    bool nodeStats = false;
    while (*p != '\0') {
      char* nl = std::strchr(p, '\n');
      if (nl != nullptr) *nl = '\0';
      while (*p == ' ' || *p == '\t') ++p;
      if (std::strncmp(p, "Node ", 5) == 0) {
        nodeStats = false;
        const char* name = std::strstr(p, "zone");
        name = name != nullptr ? name + 4 : "";
        while (*name == ' ') ++name;
        inZone = zoneOf(s, name, zone);
      } else if (std::strncmp(p, "per-node", 8) == 0) {
        nodeStats = true;
      } else if (std::strncmp(p, "pages free", 10) == 0) {
        nodeStats = false;
        if (inZone) *zone[0] += std::strtoull(p + 10, nullptr, 10) * mPageKB;
      } else if (!nodeStats && inZone && std::strncmp(p, "nr_", 3) == 0) {
        const char* name = p + 3;
        if (std::strncmp(name, "zone_", 5) == 0) name += 5;
        const char* value = std::strchr(name, ' ');
        const size_t len = value != nullptr ? static_cast<size_t>(value - name) : 0;
        const int slot = len == 11 && std::strncmp(name, "active_anon", 11) == 0     ? 1
                         : len == 13 && std::strncmp(name, "inactive_anon", 13) == 0 ? 2
                         : len == 11 && std::strncmp(name, "active_file", 11) == 0   ? 3
                         : len == 13 && std::strncmp(name, "inactive_file", 13) == 0 ? 4
                                                                                     : 0;
        if (slot != 0) *zone[slot] += std::strtoull(value, nullptr, 10) * mPageKB;
      }
      if (nl == nullptr) break;
      p = nl + 1;
    }
  }

  std::string mProcRoot;
  std::string mSysRoot;
  uint64_t mPageKB;
};

}  // namespace kxbench
