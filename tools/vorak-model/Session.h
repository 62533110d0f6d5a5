// The tune and train commands: the scenarios they play, the simulator runs,
// and what they print and write.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "Scenario.h"
#include "Vorak.pb.h"

namespace vmodel {

struct SessionOptions {
  int deviceGb = 4;                     // 2, 4 or 6
  std::vector<std::string> scenarioFiles;
  std::vector<uint32_t> weekSeeds;      // generated weeks of the class (seed 7 is the built-in week)
  std::string baseModel;                // a model file; empty: the shipped one of the class
  std::string shippedModels;            // directory of the shipped vorak_*.data
  std::string pluginPath;
  std::string runDir;                   // created; every run's directory below it
  std::string out;                      // PREFIX of PREFIX.txtpb and PREFIX.data; empty: <runDir>/vorak_<class>
  int jobs = 1;
};

std::string memClassOf(int deviceGb);

// The files, then the generated weeks; a week of seed 7 when neither is
// given. Throws ModelError(kExitBadInput) for an unreadable scenario or one
// of another device class.
std::vector<vsim::Scenario> loadScenarios(int deviceGb, const std::vector<std::string>& files,
                                          const std::vector<uint32_t>& seeds);

// Sweeps safeload over `grid`; prints the table, writes tune.svg into the
// run directory and the chosen model next to `out`.
void runTune(const SessionOptions& o, const std::vector<float>& grid, std::ostream& out);

struct TrainOptions {
  std::vector<std::string> heldOutFiles;
  std::vector<uint32_t> heldOutSeeds;  // a week of seed 8 when neither is given
  double l2 = 1e-3;
};

// Plays the training and held-out scenarios with the base model, fits, and
// prints accuracy and confusion matrices of both models on held-out days.
void runTrain(const SessionOptions& o, const TrainOptions& t, std::ostream& out);

}  // namespace vmodel
