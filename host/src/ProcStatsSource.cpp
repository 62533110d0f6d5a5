#include "ProcStatsSource.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <iterator>

#include "AndroidLog.h"

namespace kxhost {
namespace {

constexpr const char* kTag = "kxhost";

// Kernel files report a size of 0, so they are read to the end rather than
// by size, in large reads: the kernel formats a proc file anew for every
// read call. Null when the file cannot be opened (absent, or process gone);
// a read that fails part way keeps what came before.
std::optional<std::string> readFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char chunk[16384];
  std::string text;
  for (;;) {
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(fd);
  return text;
}

void logError(const std::string& path, const std::string& what) {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "StatsProvider: %s: %s", path.c_str(), what.c_str());
}

// Reads and parses one file. An absent file gives `T{}`, logged only when
// the file is `required`; a malformed line is logged and the rest still used.
template <typename T>
T load(const std::string& path, bool (*parse)(const std::string&, T*, std::string*), bool required) {
  T value{};
  std::optional<std::string> text = readFile(path);
  if (!text) {
    if (required) logError(path, "cannot be read");
    return value;
  }
  std::string error;
  if (!parse(*text, &value, &error)) logError(path, error);
  return value;
}

// A process's file: null when it is gone or malformed (then logged), since a
// half-read process is not worth reporting.
template <typename T>
std::optional<T> loadProcessFile(const std::string& path, bool (*parse)(const std::string&, T*, std::string*)) {
  std::optional<std::string> text = readFile(path);
  if (!text) return std::nullopt;
  T value{};
  std::string error;
  if (!parse(*text, &value, &error)) {
    logError(path, error);
    return std::nullopt;
  }
  return value;
}

bool pidFromName(const std::string& name, int* pid) {
  auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), *pid);
  return ec == std::errc() && end == name.data() + name.size() && *pid > 0;
}

uint64_t kernelPageKB() {
  long bytes = sysconf(_SC_PAGESIZE);
  return bytes > 0 ? static_cast<uint64_t>(bytes) / 1024 : 4;
}

// Zone counters are pages; the record wants KB.
void setZone(const ZonePages& zone, uint64_t pageKB, uint64_t& freeKB, uint64_t& activeAnonKB,
             uint64_t& inactiveAnonKB, uint64_t& activeFileKB, uint64_t& inactiveFileKB) {
  freeKB = zone.freePages * pageKB;
  activeAnonKB = zone.activeAnon * pageKB;
  inactiveAnonKB = zone.inactiveAnon * pageKB;
  activeFileKB = zone.activeFile * pageKB;
  inactiveFileKB = zone.inactiveFile * pageKB;
}

}  // namespace

ProcStatsSource::ProcStatsSource(Options options) : mOptions(std::move(options)) {
  if (mOptions.pageKB == 0) mOptions.pageKB = kernelPageKB();
}

SysStats ProcStatsSource::sysStats() {
  SysStats s{};
  MemInfo mem = readMeminfo();
  s.freeKB = mem.get("MemFree");
  s.totalKB = mem.get("MemTotal");
  s.kernelStackKB = mem.get("KernelStack");
  // KReclaimable is the slab's reclaimable part plus other kernel caches
  // that give memory back under pressure (ION pools on a device); only the
  // latter is wanted here, the slab part has its own field.
  uint64_t kReclaimable = mem.get("KReclaimable");
  uint64_t sReclaimable = mem.get("SReclaimable");
  s.reclaimableKB = kReclaimable > sReclaimable ? kReclaimable - sReclaimable : 0;
  readZram(&s);
  s.unreclaimableKB = mem.get("Unevictable");
  s.buffersKB = mem.get("Buffers");
  s.sReclaimableKB = sReclaimable;
  s.sUnreclaimKB = mem.get("SUnreclaim");
  s.freeCmaKB = mem.get("CmaFree");
  s.mappedKB = mem.get("Mapped");
  s.swapCachedKB = mem.get("SwapCached");
  s.pageTablesKB = mem.get("PageTables");
  s.vmallocUsedKB = mem.get("VmallocUsed");
  s.shmemKB = mem.get("Shmem");
  fillZones(&s);
  return s;
}

PIDStats ProcStatsSource::pidStats(int pid) {
  std::optional<int> adj = readOomScoreAdj(pid);
  std::optional<PIDStats> stats = adj ? readProcess(pid, *adj) : std::nullopt;
  if (stats) return *stats;
  PIDStats unknown{};
  unknown.pid = -1;
  return unknown;
}

// Processes come and go while the directory is walked; one that has gone
// between listing and reading is simply not reported.
std::vector<PIDStats> ProcStatsSource::pidStatsRange(int minAdj, int maxAdj) {
  std::vector<PIDStats> result;
  std::error_code ec;
  std::filesystem::directory_iterator it(mOptions.procRoot, ec);
  if (ec) logError(mOptions.procRoot, ec.message());
  for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    int pid = 0;
    if (!pidFromName(it->path().filename().string(), &pid)) continue;
    std::optional<int> adj = readOomScoreAdj(pid);
    if (!adj || *adj < minAdj || *adj > maxAdj) continue;
    if (std::optional<PIDStats> stats = readProcess(pid, *adj)) result.push_back(*stats);
  }
  std::sort(result.begin(), result.end(), [](const PIDStats& a, const PIDStats& b) { return a.pid < b.pid; });
  return result;
}

std::optional<uint64_t> ProcStatsSource::startTime(int pid) { return readStartTime(pid); }

MemInfo ProcStatsSource::readMeminfo() const { return load<MemInfo>(procPath("meminfo"), parseMeminfo, true); }

// Optional: containers and some kernels do not expose zoneinfo.
ZoneInfo ProcStatsSource::readZoneinfo() const { return load<ZoneInfo>(procPath("zoneinfo"), parseZoneinfo, false); }

// Optional: a device without zram reports 0 for all three figures.
void ProcStatsSource::readZram(SysStats* stats) const {
  ZramStat zram = load<ZramStat>(zramPath("mm_stat"), parseZramMmStat, false);
  stats->zramUsedKB = zram.memUsedTotalKB;
  stats->zramOrigKB = zram.origDataKB;
  int64_t diskBytes = load<int64_t>(zramPath("disksize"), parseSingleInt, false);
  stats->zramSizeKB = diskBytes > 0 ? static_cast<uint64_t>(diskBytes) / 1024 : 0;
}

void ProcStatsSource::fillZones(SysStats* s) const {
  ZoneInfo zones = readZoneinfo();
  uint64_t kb = mOptions.pageKB;
  setZone(zones.dma, kb, s->dmaFreeKB, s->dmaActiveAnonKB, s->dmaInactiveAnonKB, s->dmaActiveFileKB,
          s->dmaInactiveFileKB);
  setZone(zones.normal, kb, s->normalFreeKB, s->normalActiveAnonKB, s->normalInactiveAnonKB,
          s->normalActiveFileKB, s->normalInactiveFileKB);
  setZone(zones.movable, kb, s->movableFreeKB, s->movableActiveAnonKB, s->movableInactiveAnonKB,
          s->movableActiveFileKB, s->movableInactiveFileKB);
  setZone(zones.highMem, kb, s->highMemFreeKB, s->highMemActiveAnonKB, s->highMemInactiveAnonKB,
          s->highMemActiveFileKB, s->highMemInactiveFileKB);
}

std::optional<int> ProcStatsSource::readOomScoreAdj(int pid) const {
  const std::string path = procPath(std::to_string(pid) + "/oom_score_adj");
  std::optional<int64_t> adj = loadProcessFile<int64_t>(path, parseSingleInt);
  if (!adj) return std::nullopt;
  // The kernel keeps it within [-1000, 1000]; clamping keeps a corrupt file
  // from wrapping around in the narrowing to int.
  return static_cast<int>(std::clamp<int64_t>(*adj, -1000, 1000));
}

// The start time is read right after oom_score_adj: a pid reused after it
// was read is caught by the identity check before any signal, so only the
// short gap between the two reads is left open.
std::optional<PIDStats> ProcStatsSource::readProcess(int pid, int adj) const {
  std::optional<uint64_t> started = readStartTime(pid);
  PIDStats stats{};
  if (!started || !readStatus(pid, &stats)) return std::nullopt;
  stats.pid = pid;
  stats.oomScoreAdj = adj;
  stats.startTime = *started;
  return stats;
}

std::optional<uint64_t> ProcStatsSource::readStartTime(int pid) const {
  return loadProcessFile<uint64_t>(procPath(std::to_string(pid) + "/stat"), parseProcStatStartTime);
}

// gpuKB stays 0: a Linux host has no ION or KGSL accounting to read it from.
bool ProcStatsSource::readStatus(int pid, PIDStats* out) const {
  std::string path = procPath(std::to_string(pid) + "/status");
  std::optional<std::string> text = readFile(path);
  if (!text) return false;
  ProcStatus status;
  std::string error;
  if (!parseProcStatus(*text, &status, &error)) logError(path, error);
  out->rssFileKB = status.rssFileKB;
  out->rssAnonSwapKB = status.rssAnonKB + status.swapKB;
  // The kernel keeps at most 15 characters; longer names (kworker/u8:2-...)
  // are display forms and are cut like the kernel's own comm.
  std::fill(std::begin(out->comm), std::end(out->comm), '\0');
  status.name.copy(out->comm, sizeof(out->comm) - 1);
  out->gpuKB = 0;
  return true;
}

}  // namespace kxhost
