#include "DeviceModel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <vector>

namespace vsim {
namespace {

constexpr int kForegroundAdjMax = 200;  // foreground and visible: on the active lists, never swapped

uint64_t pct(uint64_t total, double percent) { return static_cast<uint64_t>(static_cast<double>(total) * percent / 100.0); }

// Zone shares of a 64-bit device: no high memory; a small movable zone.
std::array<uint64_t, 4> zones(uint64_t kb) {
  const uint64_t dma = kb * 45 / 100;
  const uint64_t movable = kb * 5 / 100;
  return {dma, kb - dma - movable, movable, 0};
}

}  // namespace

std::optional<DeviceProfile> DeviceProfile::forClass(int gigabytes) {
  // Typical figures of each class (KB): total, system anon, system graphics,
  // page cache at boot, and the cache the kernel keeps.
  struct ClassFigures {
    int gigabytes;
    uint64_t totalKB, systemAnonKB, systemGpuKB, cacheKB, minCacheKB;
  };
  static constexpr ClassFigures kClasses[] = {
      {2, 1900000, 560000, 70000, 330000, 110000},
      {4, 3870000, 850000, 120000, 700000, 220000},
      {6, 5800000, 1100000, 160000, 1000000, 300000},
  };
  const auto* c = std::find_if(std::begin(kClasses), std::end(kClasses),
                               [gigabytes](const ClassFigures& f) { return f.gigabytes == gigabytes; });
  if (c == std::end(kClasses)) return std::nullopt;
  DeviceProfile p;
  p.totalKB = c->totalKB;
  p.systemAnonKB = c->systemAnonKB;
  p.systemGpuKB = c->systemGpuKB;
  p.cacheKB = c->cacheKB;
  p.minCacheKB = c->minCacheKB;
  p.zramSizeKB = p.totalKB / 2;
  p.zramRatio = 3.0;
  p.lowWatermarkKB = pct(p.totalKB, 1.5);
  p.costs = *LaunchCosts::forClass(gigabytes);
  return p;
}

std::string DeviceProfile::memClass() const {
  if (totalKB > 1048576 && totalKB <= 2097152) return "2GB";
  if (totalKB > 2097152 && totalKB <= 4194304) return "4GB";
  if (totalKB > 4194304 && totalKB <= 8388608) return "6GB";
  return "";
}

DeviceModel::DeviceModel(const DeviceProfile& profile) : mProfile(profile), mCacheKB(profile.cacheKB) {
  if (mProfile.zramRatio < 1.0) mProfile.zramRatio = 1.0;
  const uint64_t t = profile.totalKB;
  mFixed = Fixed{pct(t, 0.5), pct(t, 1.0), pct(t, 2.0), pct(t, 2.0), pct(t, 1.0), pct(t, 1.0),
                 pct(t, 1.5), pct(t, 2.0), pct(t, 0.5), pct(t, 1.0), pct(t, 0.5)};
  recomputeFree();
}

uint64_t DeviceModel::zramUsedKB() const {
  return static_cast<uint64_t>(std::ceil(static_cast<double>(mZramOrigKB) / mProfile.zramRatio));
}

uint64_t DeviceModel::usedKB() const {
  uint64_t used = mFixed.kernelStack + mFixed.pageTables + mFixed.sUnreclaim + mFixed.sReclaimable +
                  mFixed.reclaimable + mFixed.unevictable + mFixed.vmalloc + mFixed.misc + mFixed.buffers +
                  mFixed.shmem + mCacheKB + mProfile.systemAnonKB + mProfile.systemGpuKB + zramUsedKB();
  for (const auto& [pid, p] : mProcs) used += p.anonKB + p.fileKB + p.gpuKB;
  return used;
}

void DeviceModel::recomputeFree() {
  const uint64_t used = usedKB();
  mFreeKB = used < mProfile.totalKB ? mProfile.totalKB - used : 0;
}

uint64_t DeviceModel::swappableKB() const {
  uint64_t anon = 0;
  for (const auto& [pid, p] : mProcs)
    if (p.oomAdj > kForegroundAdjMax) anon += p.anonKB;
  const uint64_t room = mProfile.zramSizeKB > mZramOrigKB ? mProfile.zramSizeKB - mZramOrigKB : 0;
  return std::min(anon, room);
}

uint64_t DeviceModel::headroomKB() const {
  const double gainPerKB = 1.0 - 1.0 / mProfile.zramRatio;
  return cleanKB() + static_cast<uint64_t>(static_cast<double>(swappableKB()) * gainPerKB);
}

uint64_t DeviceModel::cleanKB() const {
  uint64_t mapped = 0;
  for (const auto& [pid, p] : mProcs)
    if (p.oomAdj > kForegroundAdjMax) mapped += p.fileKB;
  return mFreeKB + (mCacheKB > mProfile.minCacheKB ? mCacheKB - mProfile.minCacheKB : 0) + mapped;
}

void DeviceModel::reclaimTo(uint64_t targetFreeKB, Reclaim& r) {
  if (mFreeKB >= targetFreeKB) return;
  // Clean cache first: dropping it costs nothing but a later re-read.
  const uint64_t droppable = mCacheKB > mProfile.minCacheKB ? mCacheKB - mProfile.minCacheKB : 0;
  const uint64_t drop = std::min(droppable, targetFreeKB - mFreeKB);
  mCacheKB -= drop;
  r.cacheDroppedKB += drop;
  recomputeFree();
  if (mFreeKB >= targetFreeKB) return;

  // Then the file pages that background processes map: clean too, they are
  // only read back if the process runs again.
  std::vector<std::pair<int, int>> order;  // (oomAdj, pid), least important first
  for (const auto& [pid, p] : mProcs)
    if (p.oomAdj > kForegroundAdjMax) order.emplace_back(p.oomAdj, pid);
  std::sort(order.rbegin(), order.rend());
  for (const auto& [adj, pid] : order) {
    if (mFreeKB >= targetFreeKB) return;
    ProcessMemory& p = mProcs[pid];
    const uint64_t unmap = std::min(p.fileKB, targetFreeKB - mFreeKB);
    p.fileKB -= unmap;
    r.cacheDroppedKB += unmap;
    recomputeFree();
  }

  // Then anonymous memory of the least important processes into zram; each
  // swapped KB frees only what compression saves.
  const double gainPerKB = 1.0 - 1.0 / mProfile.zramRatio;
  for (const auto& [adj, pid] : order) {
    if (mFreeKB >= targetFreeKB || gainPerKB <= 0.0) break;
    ProcessMemory& p = mProcs[pid];
    const uint64_t room = mProfile.zramSizeKB > mZramOrigKB ? mProfile.zramSizeKB - mZramOrigKB : 0;
    const auto want = static_cast<uint64_t>(std::ceil(static_cast<double>(targetFreeKB - mFreeKB) / gainPerKB));
    const uint64_t move = std::min({want, p.anonKB, room});
    if (move == 0) continue;
    p.anonKB -= move;
    p.swappedKB += move;
    mZramOrigKB += move;
    r.swappedKB += move;
    recomputeFree();
  }
}

uint64_t DeviceModel::take(uint64_t kb, Reclaim& r) {
  const uint64_t low = mProfile.lowWatermarkKB;
  if (mFreeKB < kb + low) reclaimTo(kb + low + low / 2, r);
  const uint64_t granted = std::min(kb, mFreeKB);
  r.shortKB += kb - granted;
  return granted;
}

Reclaim DeviceModel::addProcess(int pid, uint64_t anonKB, uint64_t fileKB, uint64_t gpuKB, int oomAdj) {
  Reclaim r;
  removeProcess(pid);
  ProcessMemory p;
  p.oomAdj = oomAdj;
  // The new process is not yet on the lists while the kernel makes room for it.
  p.gpuKB = take(gpuKB, r);
  mProcs[pid] = p;
  recomputeFree();
  const uint64_t file = take(fileKB, r);
  mProcs[pid].fileKB = file;
  recomputeFree();
  const uint64_t anon = take(anonKB, r);
  mProcs[pid].anonKB = anon;
  recomputeFree();
  return r;
}

Reclaim DeviceModel::grow(int pid, uint64_t anonKB) {
  Reclaim r;
  if (!hasProcess(pid)) return r;
  const uint64_t granted = take(anonKB, r);
  mProcs[pid].anonKB += granted;
  recomputeFree();
  return r;
}

Reclaim DeviceModel::swapIn(int pid, uint64_t* swappedInKB) {
  Reclaim r;
  *swappedInKB = 0;
  auto it = mProcs.find(pid);
  if (it == mProcs.end() || it->second.swappedKB == 0) return r;
  // Decompressing gives the compressed copy back before the pages need room.
  const uint64_t swapped = it->second.swappedKB;
  it->second.swappedKB = 0;
  mZramOrigKB -= std::min(mZramOrigKB, swapped);
  recomputeFree();
  const uint64_t granted = take(swapped, r);
  ProcessMemory& p = mProcs[pid];
  p.anonKB += granted;
  p.swappedKB = swapped - granted;
  mZramOrigKB += swapped - granted;
  recomputeFree();
  *swappedInKB = granted;
  return r;
}

void DeviceModel::setOomAdj(int pid, int oomAdj) {
  auto it = mProcs.find(pid);
  if (it != mProcs.end()) it->second.oomAdj = oomAdj;
}

bool DeviceModel::removeProcess(int pid) {
  auto it = mProcs.find(pid);
  if (it == mProcs.end()) return false;
  mZramOrigKB -= std::min(mZramOrigKB, it->second.swappedKB);
  mCacheKB += it->second.fileKB;
  mProcs.erase(it);
  recomputeFree();
  return true;
}

std::optional<ProcessMemory> DeviceModel::process(int pid) const {
  auto it = mProcs.find(pid);
  if (it == mProcs.end()) return std::nullopt;
  return it->second;
}

uint64_t DeviceModel::availableKB() const {
  uint64_t mapped = 0;
  for (const auto& [pid, p] : mProcs) mapped += p.fileKB;
  return mFreeKB + mFixed.sReclaimable + mFixed.reclaimable + mFixed.buffers + mCacheKB + mapped;
}

SysStats DeviceModel::sysStats() const {
  SysStats s{};
  uint64_t procFile = 0, activeAnon = mProfile.systemAnonKB / 2, inactiveAnon = mProfile.systemAnonKB - activeAnon;
  for (const auto& [pid, p] : mProcs) {
    procFile += p.fileKB;
    (p.oomAdj <= kForegroundAdjMax ? activeAnon : inactiveAnon) += p.anonKB;
  }
  s.freeKB = mFreeKB;
  s.totalKB = mProfile.totalKB;
  s.kernelStackKB = mFixed.kernelStack;
  s.reclaimableKB = mFixed.reclaimable;
  s.zramUsedKB = zramUsedKB();
  s.zramOrigKB = mZramOrigKB;
  s.zramSizeKB = mProfile.zramSizeKB;
  s.unreclaimableKB = mFixed.unevictable;
  s.buffersKB = mFixed.buffers;
  s.sReclaimableKB = mFixed.sReclaimable;
  s.sUnreclaimKB = mFixed.sUnreclaim;
  s.freeCmaKB = std::min(mFixed.cma, mFreeKB);
  s.mappedKB = procFile + std::min(mCacheKB, mProfile.minCacheKB);
  s.swapCachedKB = 0;
  s.pageTablesKB = mFixed.pageTables;
  s.vmallocUsedKB = mFixed.vmalloc;
  s.shmemKB = mFixed.shmem;

  // The file lists hold the cache, mapped files, buffers and shmem, so that
  // the decision's page cache (file - swap cache - buffers) minus shmem is
  // exactly the cache.
  const uint64_t file = mCacheKB + procFile + mFixed.buffers + mFixed.shmem;
  const uint64_t activeFile = file * 2 / 5;
  const auto free = zones(mFreeKB), aa = zones(activeAnon), ia = zones(inactiveAnon), af = zones(activeFile),
             inf = zones(file - activeFile);
  auto zone = [&](int z, uint64_t& fr, uint64_t& actA, uint64_t& inA, uint64_t& actF, uint64_t& inF) {
    fr = free[z];
    actA = aa[z];
    inA = ia[z];
    actF = af[z];
    inF = inf[z];
  };
  zone(0, s.dmaFreeKB, s.dmaActiveAnonKB, s.dmaInactiveAnonKB, s.dmaActiveFileKB, s.dmaInactiveFileKB);
  zone(1, s.normalFreeKB, s.normalActiveAnonKB, s.normalInactiveAnonKB, s.normalActiveFileKB, s.normalInactiveFileKB);
  zone(2, s.movableFreeKB, s.movableActiveAnonKB, s.movableInactiveAnonKB, s.movableActiveFileKB,
       s.movableInactiveFileKB);
  zone(3, s.highMemFreeKB, s.highMemActiveAnonKB, s.highMemInactiveAnonKB, s.highMemActiveFileKB,
       s.highMemInactiveFileKB);
  return s;
}

}  // namespace vsim
