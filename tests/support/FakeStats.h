// A statistics source of the test's own making: the system figures it is
// given and the processes it is told of, nothing of this machine.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "StatsProvider.h"

namespace kxtest {

class FakeStats : public kxhost::StatsSource {
 public:
  SysStats sysStats() override {
    std::lock_guard<std::mutex> lock(mMutex);
    return mSys;
  }
  PIDStats pidStats(int pid) override {
    std::lock_guard<std::mutex> lock(mMutex);
    for (const PIDStats& p : mProcs) {
      if (p.pid == pid) return p;
    }
    return PIDStats{-1, 0, 0, 0, {}, 0};
  }
  // Newest first: the host promises no order.
  std::vector<PIDStats> pidStatsRange(int minAdj, int maxAdj) override {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<PIDStats> out;
    for (auto p = mProcs.rbegin(); p != mProcs.rend(); ++p) {
      if (p->oomScoreAdj >= minAdj && p->oomScoreAdj <= maxAdj) out.push_back(*p);
    }
    return out;
  }

  void setSys(const SysStats& s) {
    std::lock_guard<std::mutex> lock(mMutex);
    mSys = s;
  }
  // Adds the process, or replaces the one of the same pid.
  void set(const PIDStats& p) {
    std::lock_guard<std::mutex> lock(mMutex);
    auto same = std::find_if(mProcs.begin(), mProcs.end(), [&](const PIDStats& q) { return q.pid == p.pid; });
    if (same != mProcs.end()) {
      *same = p;
    } else {
      mProcs.push_back(p);
    }
  }
  // A background process (oom_score_adj 900) whose three memory figures add
  // up to `memKB`, named as the kernel keeps a name: its last 15 characters.
  void addProcess(int pid, uint64_t memKB, const std::string& name = "sleeper", int oomScoreAdj = 900) {
    PIDStats p{pid, memKB / 4, oomScoreAdj, memKB / 2, {}, memKB - memKB / 4 - memKB / 2, 5000u + pid};
    name.copy(p.comm, 15, name.size() > 15 ? name.size() - 15 : 0);
    set(p);
  }
  // From now on the pid names another process, started later.
  void reuse(int pid) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (PIDStats& p : mProcs) p.startTime += p.pid == pid ? 777 : 0;
  }
  void remove(int pid) {
    std::lock_guard<std::mutex> lock(mMutex);
    mProcs.erase(std::remove_if(mProcs.begin(), mProcs.end(), [pid](const PIDStats& p) { return p.pid == pid; }),
                 mProcs.end());
  }
  void clearProcesses() {
    std::lock_guard<std::mutex> lock(mMutex);
    mProcs.clear();
  }

 private:
  std::mutex mMutex;
  SysStats mSys{};
  std::vector<PIDStats> mProcs;
};

}  // namespace kxtest
