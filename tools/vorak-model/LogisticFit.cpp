#include "LogisticFit.h"

#include <cmath>
#include <stdexcept>

#include <Eigen/Dense>
#include <unsupported/Eigen/NonLinearOptimization>

namespace vmodel {
namespace {

double sigmoid(double z) { return z >= 0 ? 1 / (1 + std::exp(-z)) : std::exp(z) / (1 + std::exp(z)); }

// The gradient of the mean log-loss plus the penalty, and its Jacobian (the
// Hessian), in the form Eigen's solver asks for. Parameter 0 is the bias.
struct Gradient {
  Eigen::MatrixXd x;  // examples as rows, a leading column of ones
  Eigen::VectorXd y;
  double l2;

  int operator()(const Eigen::VectorXd& w, Eigen::VectorXd& g) const {
    const Eigen::VectorXd p = (x * w).unaryExpr([](double z) { return sigmoid(z); });
    g = x.transpose() * (p - y) / static_cast<double>(x.rows());
    g.tail(w.size() - 1) += l2 * w.tail(w.size() - 1);
    return 0;
  }
  int df(const Eigen::VectorXd& w, Eigen::MatrixXd& h) const {
    const Eigen::VectorXd p = (x * w).unaryExpr([](double z) { return sigmoid(z); });
    const Eigen::VectorXd d = p.array() * (1 - p.array());
    h = x.transpose() * d.asDiagonal() * x / static_cast<double>(x.rows());
    h.diagonal().tail(w.size() - 1).array() += l2;
    return 0;
  }
};

}  // namespace

double LogisticModel::score(const std::vector<double>& x) const {
  double s = bias;
  for (size_t i = 0; i < weights.size() && i < x.size(); ++i) s += weights[i] * x[i];
  return s;
}

FitResult fitLogistic(const std::vector<std::vector<double>>& rows, const std::vector<int>& labels, double l2) {
  if (rows.empty() || rows.size() != labels.size()) throw std::invalid_argument("fitLogistic: no examples, or labels do not match");
  const size_t n = rows.size(), k = rows.front().size();
  Gradient f{Eigen::MatrixXd(n, k + 1), Eigen::VectorXd(n), l2};
  for (size_t i = 0; i < n; ++i) {
    if (rows[i].size() != k) throw std::invalid_argument("fitLogistic: examples of different lengths");
    f.x(i, 0) = 1;
    for (size_t j = 0; j < k; ++j) f.x(i, j + 1) = rows[i][j];
    f.y(i) = labels[i] != 0 ? 1 : 0;
  }
  Eigen::VectorXd w = Eigen::VectorXd::Zero(k + 1);
  Eigen::HybridNonLinearSolver<Gradient> solver(f);
  solver.parameters.maxfev = 2000;
  const auto status = solver.hybrj1(w, 1e-12);
  FitResult r;
  r.converged = status == Eigen::HybridNonLinearSolverSpace::RelativeErrorTooSmall;
  r.iterations = static_cast<int>(solver.nfev);
  r.model.bias = w(0);
  r.model.weights.assign(w.data() + 1, w.data() + w.size());
  return r;
}

}  // namespace vmodel
