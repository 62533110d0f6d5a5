// The fit on synthetic data whose answer is known.

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "LogisticFit.h"

namespace {

// Points of the unit cube labelled by a known plane, kept only when at least
// `margin` away from it: a linearly separable set.
struct Separable {
  std::vector<std::vector<double>> rows;
  std::vector<int> labels;
};

Separable separable(const std::vector<double>& w, double bias, size_t n, double margin) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> unit(0, 1);
  Separable s;
  const double norm = std::sqrt(std::inner_product(w.begin(), w.end(), w.begin(), 0.0));
  while (s.rows.size() < n) {
    std::vector<double> x(w.size());
    for (double& v : x) v = unit(rng);
    const double z = bias + std::inner_product(w.begin(), w.end(), x.begin(), 0.0);
    if (std::fabs(z) / norm < margin) continue;
    s.rows.push_back(x);
    s.labels.push_back(z > 0 ? 1 : 0);
  }
  return s;
}

TEST(LogisticFit, RecoversThePlaneOfASeparableSet) {
  const std::vector<double> w{3, -2, 1.5, 0};
  const double bias = -1;
  const Separable s = separable(w, bias, 600, 0.05);
  const vmodel::FitResult fit = vmodel::fitLogistic(s.rows, s.labels, 1e-4);
  ASSERT_TRUE(fit.converged);

  size_t right = 0;
  for (size_t i = 0; i < s.rows.size(); ++i) right += (fit.model.score(s.rows[i]) >= 0) == (s.labels[i] == 1);
  EXPECT_EQ(right, s.rows.size());
  // The same plane: the direction of (bias, w) matches, the unused input stays near 0.
  std::vector<double> truth{bias}, found{fit.model.bias};
  truth.insert(truth.end(), w.begin(), w.end());
  found.insert(found.end(), fit.model.weights.begin(), fit.model.weights.end());
  const double cosine = std::inner_product(truth.begin(), truth.end(), found.begin(), 0.0) /
                        std::sqrt(std::inner_product(truth.begin(), truth.end(), truth.begin(), 0.0) *
                                  std::inner_product(found.begin(), found.end(), found.begin(), 0.0));
  EXPECT_GT(cosine, 0.99);
  EXPECT_LT(std::fabs(fit.model.weights[3]), 0.1 * std::fabs(fit.model.weights[0]));
}

}  // namespace
