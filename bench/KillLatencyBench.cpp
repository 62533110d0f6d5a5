// From the launch hint to the first victim's death, through the reference
// host: the hint goes onto the hub's queue, the hub's thread delivers it,
// the action decides with the system statistics read from a proc tree and
// signals a live child process of this benchmark, and the benchmark's
// thread wakes when that child has died. The raw twin takes the same way
// through the hub under hint ids of its own.
//
// Only this benchmark's own children are listed as candidates; the ones
// killed are reaped and replaced, untimed, before the next preparation.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "BenchDevice.h"
#include "BenchSupport.h"
#include "MemPerfd.h"
#include "ProcStatsSource.h"

namespace {

using kxbench::BenchDevice;

constexpr int kCandidates = 300;

pid_t sleeper() {
  const pid_t pid = fork();
  if (pid == 0) {
    for (;;) pause();
  }
  return pid;
}

class Sleepers {
 public:
  Sleepers() {
    for (int i = 0; i < kCandidates; ++i) {
      const pid_t pid = sleeper();
      if (pid < 0) break;
      mPids.push_back(pid);
    }
  }
  ~Sleepers() {
    for (pid_t pid : mPids) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  std::vector<pid_t>& pids() { return mPids; }

 private:
  std::vector<pid_t> mPids;
};

struct Latency {
  Sleepers children;
  BenchDevice device{children.pids()};
  kxhost::ProcStatsSource procTree{{device.procTree() + "/proc", device.procTree() + "/sys", 4}};
  kxhost::ProcStatsSource proc;
  kxbench::RawProcStats rawTree{device.procTree() + "/proc", device.procTree() + "/sys", 4};

  Latency() {
    device.stats().useProc(&procTree, &proc);
    device.raw().setStats({&rawTree, "/proc"});
    MemPerfd::getInstance()->registerToPerfHint(&device.raw(), kxbench::RawLaunch::kPrepareHint, false);
    MemPerfd::getInstance()->registerToPerfHint(&device.raw(), kxbench::RawLaunch::kLaunchHint, false);
  }
  ~Latency() {
    MemPerfd::getInstance()->deregisterPerfHint(&device.raw(), kxbench::RawLaunch::kPrepareHint);
    MemPerfd::getInstance()->deregisterPerfHint(&device.raw(), kxbench::RawLaunch::kLaunchHint);
    device.stats().useProc(nullptr, nullptr);
  }

  // Waits for the hub, then reaps and replaces every child that died.
  void replaceKilled() {
    MemPerfd::getInstance()->drain();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));  // lets the last victims die
    auto& pids = children.pids();
    for (size_t i = 0; i < pids.size(); ++i) {
      if (waitpid(pids[i], nullptr, WNOHANG) != pids[i]) continue;
      pids[i] = sleeper();
      device.stats().replace(i, pids[i]);
    }
  }
};

Latency& latency() {
  static Latency l;
  return l;
}

void firstKill(benchmark::State& state, int prepareHint, int launchHint) {
  Latency& l = latency();
  if (l.children.pids().size() != static_cast<size_t>(kCandidates)) {
    state.SkipWithError("could not start the candidate processes");
    return;
  }
  MemPerfd* hub = MemPerfd::getInstance();
  const AsyncTriggerPayload prepare = kxbench::hint(prepareHint, 0, "");
  const AsyncTriggerPayload launch = kxbench::hint(launchHint, 2, BenchDevice::kApp);
  bool killed = true;
  kxbench::timeEach(
      state,
      [&] {
        l.replaceKilled();
        hub->sendHint(prepare);
        hub->drain();
      },
      [&] {
        hub->sendHint(launch);
        siginfo_t info{};
        killed = killed && waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) == 0;
      });
  l.replaceKilled();
  if (!killed) state.SkipWithError("a launch killed nothing");
}

void BM_FirstKillOurs(benchmark::State& state) { firstKill(state, 4162, 4225); }
void BM_FirstKillRaw(benchmark::State& state) {
  firstKill(state, kxbench::RawLaunch::kPrepareHint, kxbench::RawLaunch::kLaunchHint);
}

}  // namespace

BENCHMARK(BM_FirstKillOurs)->Name("first-kill/ours")->Arg(kCandidates)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(200);
BENCHMARK(BM_FirstKillRaw)->Name("first-kill/raw")->Arg(kCandidates)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(200);

BENCHMARK_MAIN();
