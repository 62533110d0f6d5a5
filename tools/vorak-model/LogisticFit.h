// Logistic regression with a small L2 penalty on the weights (not on the
// bias): the bias and weights at which the penalised log-loss has a zero
// gradient, found by Eigen's Powell hybrid solver with the exact Hessian.
// The penalty keeps the answer finite on separable data.
#pragma once

#include <vector>

namespace vmodel {

struct LogisticModel {
  double bias = 0;
  std::vector<double> weights;
  // The linear score bias + w.x; a probability of at least 0.5 is a score >= 0.
  double score(const std::vector<double>& x) const;
};

struct FitResult {
  LogisticModel model;
  bool converged = false;
  int iterations = 0;
};

// rows: one input vector per example, all of the same length; labels: 0 or 1.
// Deterministic: the same data gives the same bits.
FitResult fitLogistic(const std::vector<std::vector<double>>& rows, const std::vector<int>& labels,
                      double l2 = 1e-3);

}  // namespace vmodel
