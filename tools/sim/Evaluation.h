// Runs of a scenario under policies, for the simulator and for any tool that
// evaluates a model: each run keeps its directory (the device's files, the
// plug-in's log, the report and its picture); a comparison writes its table
// and picture above the runs' directories.
#pragma once

#include <string>
#include <vector>

#include "Comparison.h"
#include "Policy.h"
#include "Report.h"
#include "Scenario.h"
#include "Simulator.h"

namespace vsim {

// Runs `scenario` under options.policy in options.runDir (created, kept),
// writes report.txt, report.json and timeline.svg there and returns the
// report. `expectations` are only written into the report. Throws HostError
// or std::runtime_error when the run cannot start.
Report runPolicy(const Scenario& scenario, const SimOptions& options,
                 const std::vector<Expectation>& expectations = {});

// Runs each policy in its own directory, options.runDir/<policy dir name>,
// with the same scenario, events and seed, then writes report.txt,
// report.json and compare.svg into options.runDir. Stops after the run in
// progress once Simulator::stop() was called.
Comparison comparePolicies(const Scenario& scenario, const std::vector<Policy>& policies, const SimOptions& options);

}  // namespace vsim
