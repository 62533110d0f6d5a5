// Timing and a quiet log, shared by the benchmark programs.
//
// Every path is measured beside its raw twin: plain C calls to SQLite, the
// same /proc reads and the same system calls that the path is required to
// make, in the same program. The two are registered under one path name as
// "<path>/ours" and "<path>/raw", with the work size as argument, which is
// how `./dev bench` pairs them into its table of ratios.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "kxhost/LogCapture.h"

namespace kxbench {

// The timed work, behind a call of its own: `./dev bench instructions`
// counts the instructions executed inside it and nowhere else.
template <typename Work>
__attribute__((noinline)) void timedWork(Work& work) {
  work();
}

// Runs `setup` untimed before each iteration and times `work` alone, by
// hand: pausing and resuming the library's timer reads the process and
// thread clocks, a cost that would be counted into both sides alike and so
// make their ratio look better than it is. The median iteration is kept as
// the counter "median_us": on a loaded machine a few iterations that wait
// for a core swell a mean, while the median stays with the work.
template <typename Setup, typename Work>
void timeEach(benchmark::State& state, Setup setup, Work work) {
  std::vector<double> seconds;
  for (auto _ : state) {
    setup();
    const auto start = std::chrono::steady_clock::now();
    timedWork(work);
    const auto end = std::chrono::steady_clock::now();
    seconds.push_back(std::chrono::duration<double>(end - start).count());
    state.SetIterationTime(seconds.back());
  }
  if (seconds.empty()) return;
  std::nth_element(seconds.begin(), seconds.begin() + seconds.size() / 2, seconds.end());
  state.counters["median_us"] = seconds[seconds.size() / 2] * 1e6;
}

// The root of a device for the benchmarks' files: in memory where the
// system offers it, so that the disk's own delays (a commit waits for its
// sync) do not drown what is compared.
inline std::string deviceBase() { return std::filesystem::exists("/dev/shm") ? "/dev/shm" : ""; }

// Applied to every benchmark: with KXBENCH_ITERATIONS=n in the environment
// each runs exactly n iterations, so that instruction counts (callgrind)
// compare like with like whatever the timings under the tool.
inline void countable(benchmark::internal::Benchmark* b) {
  if (const char* n = std::getenv("KXBENCH_ITERATIONS")) b->Iterations(std::atoi(n));
}

// Drops the log's lines: writing them out is the host's cost, not the
// plug-in's, while formatting them is counted on both sides.
class NullSink : public kxhost::LogSink {
 public:
  void write(const kxhost::LogLine&) override {}
};

}  // namespace kxbench
