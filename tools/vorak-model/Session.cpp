#include "Session.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>

#include "Generator.h"
#include "ModelFile.h"
#include "RunPool.h"
#include "Trainer.h"
#include "Tuner.h"

namespace vmodel {
namespace fs = std::filesystem;

namespace {

// Held-out days differ from the training week by their seed alone.
constexpr uint32_t kBuiltinWeekSeed = 7;
constexpr uint32_t kHeldOutWeekSeed = 8;
// Two scores agree when they differ by less than the log's six decimals can show.
constexpr double kSumTolerance = 1e-3;

std::string basePath(const SessionOptions& o) {
  return o.baseModel.empty() ? (fs::path(o.shippedModels) / ("vorak_" + memClassOf(o.deviceGb) + ".data")).string()
                             : o.baseModel;
}

// The runs' model file, in the binary form the plug-in reads whatever form
// the base was given in.
fs::path runModel(const SessionOptions& o) { return fs::path(o.runDir) / "base.data"; }

VorakModel loadBase(const SessionOptions& o) {
  VorakModel base = loadModel(basePath(o));
  const auto missing = missingPaths(base);
  if (!missing.empty())
    throw ModelError(kExitBadInput, displayName(basePath(o)) + ": missing required fields: " + missing.front() +
                                        (missing.size() > 1 ? " and more" : ""));
  fs::create_directories(o.runDir);
  writeAll(runModel(o).string(), encode(base));
  return base;
}

std::string outPrefix(const SessionOptions& o) {
  return o.out.empty() ? (fs::path(o.runDir) / ("vorak_" + memClassOf(o.deviceGb))).string() : o.out;
}

// The model in both forms; the text starts with how it was made.
void writeModel(const std::string& prefix, const VorakModel& model, const std::vector<std::string>& header,
                std::ostream& out) {
  const fs::path dir = fs::path(prefix).parent_path();
  std::error_code ec;
  if (!dir.empty()) fs::create_directories(dir, ec);
  std::string text;
  for (const auto& line : header) text += "# " + line + "\n";
  writeAll(prefix + ".txtpb", text + "\n" + toText(model));
  writeAll(prefix + ".data", encode(model));
  out << "Model: " << prefix << ".txtpb (text), " << prefix << ".data (binary)\n";
}

vsim::SimOptions runOptions(const SessionOptions& o, const fs::path& dir, const vsim::Policy& policy) {
  vsim::SimOptions s;
  s.pluginPath = o.pluginPath;
  s.modelDir = o.shippedModels;
  s.modelFile = runModel(o).string();
  s.runDir = dir.string();
  s.policy = policy;
  return s;
}

std::string scenarioList(const std::vector<vsim::Scenario>& scenarios) {
  std::string s;
  for (const auto& sc : scenarios) s += (s.empty() ? "" : "; ") + sc.name;
  return s;
}

std::string number(const char* format, double v) {
  char b[64];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

void announce(size_t runs, int jobs) {
  std::cerr << "vorak-model: " << runs << (runs == 1 ? " simulator run, " : " simulator runs, ") << jobs
            << " at a time\n";
}

// Every launch of the runs that the plug-in scored, with its inputs as the
// plug-in computes them under `model`.
std::vector<Example> examplesOf(DecisionProbe& probe, const std::vector<RunResult>& runs, size_t from, size_t to) {
  std::vector<Example> out;
  for (size_t i = from; i < to; ++i)
    for (const LaunchSample& s : runs[i].samples) out.push_back({probe.inputs(s), s.needed()});
  return out;
}

std::string confusionRow(const char* name, const Confusion& c) {
  char b[200];
  const double precision = c.truePos + c.falsePos == 0 ? 0 : 100.0 * c.truePos / (c.truePos + c.falsePos);
  const double recall = c.truePos + c.falseNeg == 0 ? 0 : 100.0 * c.truePos / (c.truePos + c.falseNeg);
  std::snprintf(b, sizeof b, "  %-10s %8.1f %% %9zu %9zu %9zu %9zu %9.1f %% %7.1f %%\n", name, 100.0 * c.accuracy(),
                c.truePos, c.falsePos, c.falseNeg, c.trueNeg, precision, recall);
  return b;
}

void printConfusions(const char* title, const VorakModel& base, const VorakModel& fitted,
                     const std::vector<Example>& examples, std::ostream& out) {
  const size_t needed = std::count_if(examples.begin(), examples.end(), [](const Example& e) { return e.needed; });
  out << title << ": " << examples.size() << " launches scored, " << needed
      << " needed memory freed; \"kill needed\" (score >= 0.5) against the truth\n";
  char b[200];
  std::snprintf(b, sizeof b, "  %-10s %10s %9s %9s %9s %9s %11s %9s\n", "model", "accuracy", "true pos", "false pos",
                "false neg", "true neg", "precision", "recall");
  out << b << confusionRow("hand-set", evaluate(base, examples)) << confusionRow("fitted", evaluate(fitted, examples));
}

}  // namespace

std::string memClassOf(int deviceGb) { return std::to_string(deviceGb) + "GB"; }

std::vector<vsim::Scenario> loadScenarios(int deviceGb, const std::vector<std::string>& files,
                                          const std::vector<uint32_t>& seeds) {
  std::vector<vsim::Scenario> out;
  const std::string cls = memClassOf(deviceGb);
  for (const auto& f : files) {
    try {
      out.push_back(vsim::loadScenario(f));
    } catch (const vsim::ScenarioError& e) {
      throw ModelError(kExitBadInput, e.what());
    }
    if (out.back().device.memClass() != cls)
      throw ModelError(kExitBadInput, f + ": a scenario of the " + out.back().device.memClass() +
                                          " class, not of the " + cls + " class being tuned (--device)");
  }
  std::vector<uint32_t> weeks = seeds;
  if (files.empty() && weeks.empty()) weeks.push_back(kBuiltinWeekSeed);
  for (uint32_t seed : weeks) {
    if (seed == kBuiltinWeekSeed) {
      out.push_back(vsim::builtinWeek(deviceGb));
    } else {
      out.push_back(vsim::generateScenario({7, 24, deviceGb, seed}));
    }
  }
  return out;
}

void runTune(const SessionOptions& o, const std::vector<float>& grid, std::ostream& out) {
  const auto scenarios = loadScenarios(o.deviceGb, o.scenarioFiles, o.weekSeeds);
  VorakModel model = loadBase(o);
  std::vector<RunJob> jobs;
  for (float g : grid) {
    vsim::Policy p;
    p.safeload = g;
    for (size_t k = 0; k < scenarios.size(); ++k)
      jobs.push_back({&scenarios[k], runOptions(o, fs::path(o.runDir) / ("scenario-" + std::to_string(k + 1)) / p.dirName(), p)});
  }
  announce(jobs.size(), o.jobs);
  const auto points = sumByPoint(grid, runAll(jobs, o.jobs));
  const size_t chosen = choosePoint(points);
  const std::string cls = memClassOf(o.deviceGb);

  out << "Tuning safeload of the " << cls << " model (" << displayName(basePath(o)) << ") on " << scenarioList(scenarios)
      << "\n\n"
      << tuneTable(points, chosen) << "\n* chosen: safeload " << number("%g", points[chosen].safeload)
      << ", the least estimated launch time (then the fewest cold launches caused by kills)\n";
  writeAll((fs::path(o.runDir) / "tune.svg").string(),
           tuneSvg(points, chosen, "safeload of the " + cls + " model: " + scenarioList(scenarios)));
  out << "Picture: " << (fs::path(o.runDir) / "tune.svg").string() << "\n";

  model.set_safeload(points[chosen].safeload);
  const RunFigures& t = points[chosen].total;
  writeModel(outPrefix(o), model,
             {"Kill model for devices of the " + cls + " class.",
              "safeload " + number("%g", points[chosen].safeload) + " chosen by vorak-model tune over " +
                  number("%g", grid.front()) + " .. " + number("%g", grid.back()) + " (" + std::to_string(grid.size()) +
                  " values) on: " + scenarioList(scenarios) + ".",
              "There: " + std::to_string(t.launches) + " launches, estimated launch time " + vsim::formatMs(t.launchMsTotal) +
                  " in all, " + std::to_string(t.coldByKills) + " cold launches caused by kills, " +
                  std::to_string(t.killsByPolicy) + " kills by the plug-in."},
             out);
}

void runTrain(const SessionOptions& o, const TrainOptions& t, std::ostream& out) {
  const auto training = loadScenarios(o.deviceGb, o.scenarioFiles, o.weekSeeds);
  std::vector<uint32_t> heldSeeds = t.heldOutSeeds;
  if (t.heldOutFiles.empty() && heldSeeds.empty()) heldSeeds.push_back(kHeldOutWeekSeed);
  const auto heldOut = loadScenarios(o.deviceGb, t.heldOutFiles, heldSeeds);
  const VorakModel base = loadBase(o);

  vsim::Policy plugin;
  std::vector<RunJob> jobs;
  for (size_t k = 0; k < training.size(); ++k)
    jobs.push_back({&training[k], runOptions(o, fs::path(o.runDir) / ("train-" + std::to_string(k + 1)), plugin)});
  for (size_t k = 0; k < heldOut.size(); ++k)
    jobs.push_back({&heldOut[k], runOptions(o, fs::path(o.runDir) / ("held-out-" + std::to_string(k + 1)), plugin)});
  announce(jobs.size(), o.jobs);
  const auto runs = runAll(jobs, o.jobs);

  // Only now, with every run over: the probe sets this process's host seams.
  DecisionProbe probe(base, (fs::path(o.runDir) / "probe").string());
  const auto trainSet = examplesOf(probe, runs, 0, training.size());
  const auto heldSet = examplesOf(probe, runs, training.size(), runs.size());

  size_t logged = 0, agreed = 0;
  size_t index = 0;
  for (size_t i = 0; i < training.size(); ++i) {
    for (const LaunchSample& s : runs[i].samples) {
      const Example& e = trainSet[index++];
      if (!s.loggedSum) continue;
      ++logged;
      agreed += std::fabs(modelSum(base, e.values) - *s.loggedSum) <= kSumTolerance * std::max(1.0, std::fabs(*s.loggedSum));
    }
  }
  const TrainResult fitted = train(base, trainSet, t.l2);
  const std::string cls = memClassOf(o.deviceGb);

  out << "Training the " << cls << " model's bias and weights (base " << displayName(basePath(o)) << ", safeload "
      << number("%g", base.safeload()) << ")\n"
      << "  training days: " << scenarioList(training) << "\n  held-out days: " << scenarioList(heldOut) << "\n"
      << "  the plug-in's logged scores reproduced on " << agreed << " of " << logged << " training launches\n"
      << "  fit: " << fitted.fittedInputs << " of " << kVorakFeatureNames.size() << " inputs vary; Eigen's hybrid solver "
      << (fitted.fit.converged ? "converged" : "stopped without converging") << " after " << fitted.fit.iterations
      << " evaluations (L2 " << number("%g", t.l2) << ")\n\n";
  printConfusions("Held-out days", base, fitted.model, heldSet, out);
  out << "\n";
  printConfusions("Training days", base, fitted.model, trainSet, out);

  std::vector<std::pair<float, std::string>> weights;
  for (const auto& [name, f] : fitted.model.features())
    if (f.weight() != 0) weights.push_back({-std::fabs(f.weight()), name});
  std::sort(weights.begin(), weights.end());
  out << "\nLargest weights:";
  for (size_t i = 0; i < weights.size() && i < 6; ++i)
    out << (i == 0 ? " " : ", ") << weights[i].second << " " << number("%g", fitted.model.features().at(weights[i].second).weight());
  out << "; bias " << number("%g", fitted.model.bias()) << "\n";

  const Confusion held = evaluate(fitted.model, heldSet), heldBase = evaluate(base, heldSet);
  writeModel(outPrefix(o), fitted.model,
             {"Kill model for devices of the " + cls + " class.",
              "safeload " + number("%g", base.safeload()) + " kept from the base model; bias and weights fitted by "
                  "vorak-model train on: " + scenarioList(training) + ".",
              "Held out (" + scenarioList(heldOut) + "): \"kill needed\" right on " +
                  number("%.1f", 100 * held.accuracy()) + " % of " + std::to_string(held.total()) +
                  " launches (the hand-set weights: " + number("%.1f", 100 * heldBase.accuracy()) + " %)."},
             out);
}

}  // namespace vmodel
