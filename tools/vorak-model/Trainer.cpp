#include "Trainer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "VorakCheckedArithmetic.h"

namespace vmodel {
namespace {

using Checked = VorakCheckedArithmetic;

// `v` to `digits` significant digits, rounded toward -inf, +inf or nearest.
float roundDigits(double v, int digits, int direction) {
  if (v == 0 || !std::isfinite(v)) return static_cast<float>(v);
  const double scale = std::pow(10.0, digits - 1 - static_cast<int>(std::floor(std::log10(std::fabs(v)))));
  const double scaled = v * scale;
  const double r = direction < 0 ? std::floor(scaled) : direction > 0 ? std::ceil(scaled) : std::nearbyint(scaled);
  // Through text, so the float is the one a reader of the digits gets.
  char b[32];
  std::snprintf(b, sizeof b, "%.*g", digits + 1, r / scale);
  return std::strtof(b, nullptr);
}

// The input scaled as the plug-in scales it.
float normalised(float value, const VorakModel::Feature& f) {
  return Checked::checkAndDiff(value, f.min()) / Checked::checkAndDiff(f.max(), f.min());
}

}  // namespace

double Confusion::accuracy() const {
  return total() == 0 ? 0 : static_cast<double>(truePos + trueNeg) / static_cast<double>(total());
}

float modelSum(const VorakModel& model, const InputValues& values) {
  float sum = 0;
  for (size_t i = 0; i < kVorakFeatureNames.size(); ++i) {
    auto it = model.features().find(std::string(kVorakFeatureNames[i]));
    if (it == model.features().end() || it->second.min() == it->second.max()) continue;
    sum = Checked::checkOverflowAndAdd(sum, Checked::checkOverflowAndMult(it->second.weight(), normalised(values[i], it->second)));
  }
  return Checked::checkOverflowAndAdd(sum, model.bias());
}

Confusion evaluate(const VorakModel& model, const std::vector<Example>& examples) {
  Confusion c;
  for (const Example& e : examples) {
    // 1 / (1 + e^-sum) >= 0.5 exactly when sum >= 0.
    const bool says = modelSum(model, e.values) >= 0;
    if (says && e.needed) ++c.truePos;
    else if (says) ++c.falsePos;
    else if (e.needed) ++c.falseNeg;
    else ++c.trueNeg;
  }
  return c;
}

TrainResult train(const VorakModel& base, const std::vector<Example>& examples, double l2) {
  if (examples.empty()) throw std::runtime_error("no launch was scored by the plug-in: nothing to train on");
  const auto needed = std::count_if(examples.begin(), examples.end(), [](const Example& e) { return e.needed; });
  if (needed == 0 || static_cast<size_t>(needed) == examples.size())
    throw std::runtime_error(std::string("every launch scored ") + (needed == 0 ? "needed no memory freed" : "needed memory freed") +
                             ": nothing to tell apart (play scenarios with both kinds of launch)");
  TrainResult r;
  r.model.set_safeload(base.safeload());
  std::vector<size_t> fitted;  // indexes of the inputs that vary
  for (size_t i = 0; i < kVorakFeatureNames.size(); ++i) {
    float lo = examples.front().values[i], hi = lo;
    for (const Example& e : examples) {
      lo = std::min(lo, e.values[i]);
      hi = std::max(hi, e.values[i]);
    }
    VorakModel::Feature& f = (*r.model.mutable_features())[std::string(kVorakFeatureNames[i])];
    const float rlo = roundDigits(lo, 3, -1), rhi = roundDigits(hi, 3, +1);
    if (std::isfinite(lo) && std::isfinite(hi) && rlo < rhi) {
      f.set_min(rlo);
      f.set_max(rhi);
      fitted.push_back(i);
    } else {
      auto b = base.features().find(std::string(kVorakFeatureNames[i]));
      const bool usable = b != base.features().end() && b->second.min() < b->second.max();
      f.set_min(usable ? b->second.min() : 0);
      f.set_max(usable ? b->second.max() : 1);
    }
    f.set_weight(0);
  }
  std::vector<std::vector<double>> rows;
  std::vector<int> labels;
  for (const Example& e : examples) {
    std::vector<double> x;
    for (size_t i : fitted) {
      const float v = normalised(e.values[i], r.model.features().at(std::string(kVorakFeatureNames[i])));
      x.push_back(std::isfinite(v) ? v : 0);
    }
    rows.push_back(std::move(x));
    labels.push_back(e.needed ? 1 : 0);
  }
  r.fit = fitLogistic(rows, labels, l2);
  r.fittedInputs = fitted.size();
  for (size_t k = 0; k < fitted.size(); ++k) {
    (*r.model.mutable_features())[std::string(kVorakFeatureNames[fitted[k]])].set_weight(
        roundDigits(r.fit.model.weights[k], 4, 0));
  }
  r.model.set_bias(roundDigits(r.fit.model.bias, 4, 0));
  return r;
}

}  // namespace vmodel
