#include "Evaluation.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "Picture.h"
#include "Text.h"

namespace vsim {
namespace fs = std::filesystem;
namespace {

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  if (!out) throw std::runtime_error(path.string() + ": cannot write");
}

}  // namespace

Report runPolicy(const Scenario& scenario, const SimOptions& options, const std::vector<Expectation>& expectations) {
  fs::create_directories(options.runDir);
  Report report;
  {
    Simulator sim(scenario, options);
    report = sim.run();
  }  // every child is stopped and reaped here
  const fs::path dir = options.runDir;
  writeFile(dir / "report.txt", report.toText(expectations));
  writeFile(dir / "report.json", dumpJson(report.toJson(expectations)) + "\n");
  writeFile(dir / "timeline.svg", renderSvg(report));
  return report;
}

Comparison comparePolicies(const Scenario& scenario, const std::vector<Policy>& policies, const SimOptions& options) {
  Comparison comparison;
  comparison.scenarioName = scenario.name;
  comparison.deviceClass = scenario.device.memClass();
  for (const Policy& policy : policies) {
    if (Simulator::stopped()) break;
    SimOptions o = options;
    o.policy = policy;
    o.runDir = (fs::path(options.runDir) / policy.dirName()).string();
    comparison.add(runPolicy(scenario, o));
  }
  const fs::path dir = options.runDir;
  writeFile(dir / "report.txt", comparison.toText());
  writeFile(dir / "report.json", dumpJson(comparison.toJson()) + "\n");
  writeFile(dir / "compare.svg", renderComparisonSvg(comparison));
  return comparison;
}

}  // namespace vsim
