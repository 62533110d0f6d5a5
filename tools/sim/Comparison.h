// Several policies' runs of the same scenario side by side: one table of
// figures, as text for people and JSON for tools.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Report.h"

namespace vsim {

struct PolicyOutcome {
  std::string policy;            // as named on the command line
  std::string runDir;            // the policy's own run directory
  Summary summary;
  std::vector<double> launchMs;  // each launch's estimated time, in launch order
};

class Comparison {
 public:
  std::string scenarioName;
  std::string deviceClass;

  void add(const Report& report);
  const std::vector<PolicyOutcome>& outcomes() const { return mOutcomes; }

  // The table (one row per figure, one column per policy), then each
  // policy's difference from "none" when that was run.
  std::string toText() const;
  nlohmann::json toJson() const;

 private:
  std::string againstNone() const;

  std::vector<PolicyOutcome> mOutcomes;
};

}  // namespace vsim
