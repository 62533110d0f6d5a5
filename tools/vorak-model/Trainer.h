// Fitting a model's bias and weights so that its logistic score says
// whether a launch needed memory freed: the inputs are the kill decision's
// own (see DecisionProbe), scaled by the min and max that the model file
// carries, so that the plug-in scores exactly what was fitted.
#pragma once

#include <string>
#include <vector>

#include "DecisionProbe.h"
#include "LogisticFit.h"
#include "Vorak.pb.h"

namespace vmodel {

struct Example {
  InputValues values{};
  bool needed = false;  // the launch had to find memory beyond free memory and clean cache
};

// How a model's "kill needed" verdicts (score >= 0.5) compare with the truth.
struct Confusion {
  size_t truePos = 0, falsePos = 0, falseNeg = 0, trueNeg = 0;
  size_t total() const { return truePos + falsePos + falseNeg + trueNeg; }
  double accuracy() const;
};

// The biased sum that the plug-in computes for `values` under `model`: the
// same scaling and checked float arithmetic, inputs taken in the order of
// kVorakFeatureNames (the plug-in's own order may differ in the last bits).
float modelSum(const VorakModel& model, const InputValues& values);

Confusion evaluate(const VorakModel& model, const std::vector<Example>& examples);

struct TrainResult {
  VorakModel model;
  FitResult fit;
  size_t fittedInputs = 0;  // inputs that vary in the training data
};

// A model with `base`'s safeload, every input of the kill decision, each
// scaled to the range it took in `examples` (rounded outward to three
// significant digits; an input that never varied keeps base's range and
// weight 0), and the bias and weights fitted. Weights are kept to four
// significant digits, so that the same data gives the same file on any
// machine.
TrainResult train(const VorakModel& base, const std::vector<Example>& examples, double l2 = 1e-3);

}  // namespace vmodel
