#include "SimDevice.h"

#include <algorithm>
#include <cstring>

namespace vsim {

SimDevice::SimDevice(const DeviceProfile& profile, const ProcessPool& pool) : mPool(pool), mModel(profile) {}

SysStats SimDevice::sysStats() {
  std::lock_guard<std::mutex> lock(mMutex);
  return mModel.sysStats();
}

PIDStats SimDevice::record(int pid, const ProcessMemory& m) const {
  PIDStats s{};
  s.pid = pid;
  s.rssFileKB = m.fileKB;
  s.oomScoreAdj = m.oomAdj;
  s.rssAnonSwapKB = m.rssSwapKB();
  s.gpuKB = m.gpuKB;
  auto it = mNames.find(pid);
  if (it != mNames.end()) {
    const std::string& n = it->second;
    const std::string shown = n.size() > 15 ? n.substr(n.size() - 15) : n;
    std::memcpy(s.comm, shown.data(), shown.size());
  }
  return s;
}

PIDStats SimDevice::pidStats(int pid) {
  std::lock_guard<std::mutex> lock(mMutex);
  const auto m = mModel.process(pid);
  if (!m || !mPool.owns(pid)) {
    PIDStats none{};
    none.pid = -1;
    return none;
  }
  return record(pid, *m);
}

std::vector<PIDStats> SimDevice::pidStatsRange(int minAdj, int maxAdj) {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<PIDStats> out;
  for (const auto& [pid, name] : mNames) {
    const auto m = mModel.process(pid);
    if (m && m->oomAdj >= minAdj && m->oomAdj <= maxAdj && mPool.owns(pid)) out.push_back(record(pid, *m));
  }
  // Ascending pid, as a walk of /proc would list them.
  std::sort(out.begin(), out.end(), [](const PIDStats& a, const PIDStats& b) { return a.pid < b.pid; });
  return out;
}

std::optional<Reclaim> SimDevice::addProcess(int pid, const std::string& name, uint64_t anonKB, uint64_t fileKB,
                                             uint64_t gpuKB, int oomAdj) {
  if (!mPool.owns(pid)) return std::nullopt;
  std::lock_guard<std::mutex> lock(mMutex);
  mNames[pid] = name;
  return mModel.addProcess(pid, anonKB, fileKB, gpuKB, oomAdj);
}

Reclaim SimDevice::grow(int pid, uint64_t anonKB) {
  std::lock_guard<std::mutex> lock(mMutex);
  return mModel.grow(pid, anonKB);
}

Reclaim SimDevice::swapIn(int pid, uint64_t* swappedInKB) {
  std::lock_guard<std::mutex> lock(mMutex);
  return mModel.swapIn(pid, swappedInKB);
}

void SimDevice::setOomAdj(int pid, int oomAdj) {
  std::lock_guard<std::mutex> lock(mMutex);
  mModel.setOomAdj(pid, oomAdj);
}

bool SimDevice::removeProcess(int pid) {
  std::lock_guard<std::mutex> lock(mMutex);
  mNames.erase(pid);
  return mModel.removeProcess(pid);
}

std::optional<ProcessMemory> SimDevice::process(int pid) const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mModel.process(pid);
}

DeviceModel SimDevice::snapshot() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mModel;
}

}  // namespace vsim
