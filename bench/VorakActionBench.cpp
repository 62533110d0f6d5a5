// The kill action's hints and the statistics they read, each beside its raw
// twin (RawLaunch, RawProcStats) in the same program.
//
// prepare/N: the preparation hint with N candidates listed: the candidate
// lists rebuilt from the host's list, the favourite slot and the user
// tables. launch/300: the launch hint after an untimed preparation: the
// favourite check, the budget from the app's learnt row and the model,
// service accounting, sparing the app's own processes, the kill loop with
// its identity check per kill, and the service pass. launch-proc/300: the
// same with the system statistics read from a proc tree of files and start
// times from /proc, on both sides. stats/1: one read of the system
// statistics from this machine's /proc and /sys.
//
// Candidates are the benchmark's own children that have already exited and
// are kept unreaped: a zombie keeps its pid (no other process can take it),
// passes the getpgid check, can be pinned by a pidfd and takes SIGKILL as a
// no-op. So the kill loop runs as on a device, ending after the few kills
// that cover the budget, while the kills land on nothing.
//
// Kill reports are formatted but dropped by a null log sink: the log's
// output is the host's cost, not the action's.

#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "BenchDevice.h"
#include "BenchSupport.h"
#include "ProcStatsSource.h"

namespace {

using kxbench::BenchDevice;

constexpr int kCandidates = 1000;
constexpr int kLaunchCandidates = 300;

// Children that exit at once and stay unreaped until the end.
class Zombies {
 public:
  Zombies() {
    for (int i = 0; i < kCandidates; ++i) {
      const pid_t pid = fork();
      if (pid == 0) _exit(0);
      if (pid < 0) break;
      siginfo_t info;
      waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
      mPids.push_back(pid);
    }
  }
  ~Zombies() {
    for (pid_t pid : mPids) waitpid(pid, nullptr, 0);
  }
  const std::vector<pid_t>& pids() const { return mPids; }

 private:
  std::vector<pid_t> mPids;
};

struct Bench {
  Zombies zombies;
  BenchDevice device{zombies.pids()};
  kxhost::ProcStatsSource procTree{{device.procTree() + "/proc", device.procTree() + "/sys", 4}};
  kxhost::ProcStatsSource proc;
  kxbench::RawProcStats rawTree{device.procTree() + "/proc", device.procTree() + "/sys", 4};
};

Bench& bench() {
  static Bench b;
  return b;
}

const AsyncTriggerPayload kPrepare = kxbench::hint(4162, 0, "");
const AsyncTriggerPayload kLaunch = kxbench::hint(4225, 2, BenchDevice::kApp);

bool ready(benchmark::State& state) {
  if (bench().zombies.pids().size() == static_cast<size_t>(kCandidates)) return true;
  state.SkipWithError("could not start the candidate processes");
  return false;
}

// Both sides must leave the same lists behind, or they did different work.
void compareLists(benchmark::State& state) {
  VorakAction& ours = bench().device.action();
  const VorakAction::CandidateList* lists[] = {&ours.backgroundList(), &ours.favoriteList(), &ours.userLaunchedList()};
  for (int i = 0; i < 3; ++i) {
    const auto& raw = bench().device.raw().list(i);
    if (!std::equal(lists[i]->begin(), lists[i]->end(), raw.begin(), raw.end()))
      state.SkipWithError("the raw twin's candidate lists differ from the action's");
  }
}

void BM_PrepareOurs(benchmark::State& state) {
  if (!ready(state)) return;
  bench().device.stats().list(static_cast<size_t>(state.range(0)));
  kxbench::timeEach(state, [] {}, [] { bench().device.action().applyAction(kPrepare); });
  bench().device.raw().prepare();
  compareLists(state);
}

void BM_PrepareRaw(benchmark::State& state) {
  if (!ready(state)) return;
  bench().device.stats().list(static_cast<size_t>(state.range(0)));
  kxbench::timeEach(state, [] {}, [] { bench().device.raw().prepare(); });
}

// With `fromProc`, the system statistics come from the proc tree and start
// times from /proc on both sides.
void launchOurs(benchmark::State& state, bool fromProc) {
  if (!ready(state)) return;
  Bench& b = bench();
  b.device.stats().list(static_cast<size_t>(state.range(0)));
  if (fromProc) b.device.stats().useProc(&b.procTree, &b.proc);
  VorakAction& action = b.device.action();
  kxbench::timeEach(state, [&] { action.applyAction(kPrepare); }, [&] { action.applyAction(kLaunch); });
  // The budget takes one background candidate; the app has no process.
  if (fromProc) b.device.raw().setStats({&b.rawTree, "/proc"});
  b.device.raw().prepare();
  b.device.raw().launch(BenchDevice::kApp);
  b.device.raw().setStats({});
  b.device.stats().useProc(nullptr, nullptr);
  compareLists(state);
  const SysStats tree = b.procTree.sysStats();
  const SysStats direct = b.rawTree.sysStats();
  const SysStats designed = kxbench::BenchStats::designed();
  if (std::memcmp(&tree, &designed, sizeof tree) != 0 || std::memcmp(&direct, &designed, sizeof tree) != 0)
    state.SkipWithError("the proc tree does not read as the designed statistics");
  if (action.backgroundList().size() + 1 + 10 + 20 != static_cast<size_t>(state.range(0)))
    state.SkipWithError("the launch did not kill as designed");
}

void launchRaw(benchmark::State& state, bool fromProc) {
  if (!ready(state)) return;
  Bench& b = bench();
  b.device.stats().list(static_cast<size_t>(state.range(0)));
  kxbench::RawLaunch& raw = b.device.raw();
  if (fromProc) raw.setStats({&b.rawTree, "/proc"});
  kxbench::timeEach(state, [&] { raw.prepare(); }, [&] { raw.launch(BenchDevice::kApp); });
  raw.setStats({});
}

void BM_LaunchOurs(benchmark::State& state) { launchOurs(state, false); }
void BM_LaunchRaw(benchmark::State& state) { launchRaw(state, false); }
void BM_LaunchProcOurs(benchmark::State& state) { launchOurs(state, true); }
void BM_LaunchProcRaw(benchmark::State& state) { launchRaw(state, true); }

void BM_StatsOurs(benchmark::State& state) {
  kxhost::ProcStatsSource& proc = bench().proc;
  kxbench::timeEach(state, [] {}, [&] { benchmark::DoNotOptimize(proc.sysStats()); });
}

void BM_StatsRaw(benchmark::State& state) {
  const kxbench::RawProcStats raw("/proc", "/sys", static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024);
  kxbench::timeEach(state, [] {}, [&] { benchmark::DoNotOptimize(raw.sysStats()); });
}

}  // namespace

BENCHMARK(BM_PrepareOurs)->Name("prepare/ours")->Arg(10)->Arg(300)->Arg(1000)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PrepareRaw)->Name("prepare/raw")->Arg(10)->Arg(300)->Arg(1000)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LaunchOurs)->Name("launch/ours")->Arg(kLaunchCandidates)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LaunchRaw)->Name("launch/raw")->Arg(kLaunchCandidates)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LaunchProcOurs)->Name("launch-proc/ours")->Arg(kLaunchCandidates)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LaunchProcRaw)->Name("launch-proc/raw")->Arg(kLaunchCandidates)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StatsOurs)->Name("stats/ours")->Arg(1)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StatsRaw)->Name("stats/raw")->Arg(1)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
