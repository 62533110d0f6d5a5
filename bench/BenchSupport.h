// Timing and a quiet log, shared by the benchmark programs.
//
// Every path is measured beside its raw twin: plain C calls to SQLite, the
// same /proc reads and the same system calls that the path is required to
// make, in the same program. The two are registered under one path name as
// "<path>/ours" and "<path>/raw", with the work size as argument, which is
// how `./dev bench` pairs them into its table of ratios.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>

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
// make their ratio look better than it is.
template <typename Setup, typename Work>
void timeEach(benchmark::State& state, Setup setup, Work work) {
  for (auto _ : state) {
    setup();
    const auto start = std::chrono::steady_clock::now();
    timedWork(work);
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
}

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
