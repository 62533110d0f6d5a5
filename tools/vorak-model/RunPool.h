// Simulator runs of a tuning or training session, several at a time. The
// plug-in and the host keep process-wide state (file-system root,
// properties, statistics source, hint hub), so each run is a forked worker
// of its own; its result comes back through a file in its run directory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Evaluation.h"
#include "StatsProvider.h"

namespace vmodel {

// One launch the plug-in scored, as a model is fitted and judged on it.
struct LaunchSample {
  SysStats stats{};           // what the plug-in read at the hint
  int64_t ionKgslKB = 0;      // its learnt row then
  int64_t rssSwapKB = 0;
  uint64_t shortfallKB = 0;   // memory that had to be found beyond free memory and clean cache
  std::optional<double> loggedSum;  // the model's biased sum as the plug-in logged it
  bool needed() const { return shortfallKB > 0; }
};

struct RunJob {
  const vsim::Scenario* scenario = nullptr;  // outlives the run
  vsim::SimOptions options;                  // its policy, model and run directory
};

// The figures of a run that a model is chosen by.
struct RunFigures {
  size_t launches = 0, coldLaunches = 0, coldByKills = 0, killsByPolicy = 0, killsDevice = 0, lackingLaunches = 0;
  double launchMsMean = 0, launchMsP95 = 0, launchMsTotal = 0, freedKB = 0, overKillKB = 0;
};

struct RunResult {
  std::string runDir;
  RunFigures figures;
  std::vector<LaunchSample> samples;  // launches with a learnt row, in launch order
};

// Runs every job, at most `workers` at once, and returns the results in the
// order of `jobs`, whatever order the runs end in. Throws std::runtime_error
// naming the first job that failed.
std::vector<RunResult> runAll(const std::vector<RunJob>& jobs, int workers);

// The figures of a run as the pool hands them back; exposed for tests.
nlohmann::json resultJson(const vsim::Report& report);
RunResult resultFromJson(const nlohmann::json& j);

}  // namespace vmodel
