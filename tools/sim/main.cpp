// vorak-sim: runs the plug-in on a simulated device through a scenario (a
// built-in day on a 4 GB phone by default) and reports, launch by launch,
// what it learnt, what it decided to free and whom it killed.
//
// Exit status: 0 success; 1 the scenario's expected victims were not met, or
// the plug-in disabled itself; 2 bad usage, an unreadable scenario, or a run
// that could not start.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>

#include "Picture.h"
#include "Scenario.h"
#include "Simulator.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kProg = "vorak-sim";
constexpr int kExitOk = 0;
constexpr int kExitUnmet = 1;
constexpr int kExitBad = 2;

std::string oneLine(std::string s) {
  std::replace(s.begin(), s.end(), '\n', ' ');
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

// ./run/<date-time>, with a suffix when that exists already.
std::string defaultRunDir() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &tm);
  std::string dir = std::string("run/") + stamp;
  for (int n = 2; fs::exists(dir); ++n) dir = std::string("run/") + stamp + "-" + std::to_string(n);
  return dir;
}

void onSignal(int) { vsim::Simulator::stop(); }

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  if (!out) throw std::runtime_error(path.string() + ": cannot write");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Run the Vorak plug-in on a simulated device: applications with true memory needs start as real sleeping "
      "child processes, the plug-in learns their needs and kills to make room, and a report says what it "
      "learnt, decided and killed at each launch. Without a scenario it runs a built-in day on a 4 GB phone.",
      kProg};
  std::string scenarioPath, runDir, plugin = VORAK_SIM_PLUGIN, models = VORAK_SIM_MODELS;
  bool asJson = false, quiet = false, noProgress = false, printScenario = false;
  app.add_option("SCENARIO", scenarioPath, "scenario file (JSON); default: the built-in day");
  app.add_option("--run-dir", runDir,
                 "directory the device's files go to (the plug-in's databases, its log, the report and the "
                 "picture); default ./run/<date-time>; kept after the run");
  app.add_flag("--json", asJson, "print the report as JSON");
  app.add_flag("-q,--quiet", quiet, "print nothing; the report is still written to the run directory");
  app.add_flag("--no-progress", noProgress, "no progress line, even on a terminal");
  app.add_flag("--print-scenario", printScenario,
               "print the scenario (the built-in one without SCENARIO) as JSON and exit: a start for your own");
  app.add_option("--plugin", plugin, "the plug-in's shared library")->capture_default_str();
  app.add_option("--models", models, "directory holding the shipped vorak_*.data models")->capture_default_str();
  app.footer(
      "Files in the run directory: report.txt, report.json, timeline.svg (free memory over time, launches and "
      "kills marked), vorak.log (the plug-in's own log), scenario.json, and the device tree the plug-in sees "
      "(data/vendor/kx/*.db: dump them with vorak-db).\nExit status: 0 success, 1 expected victims not met or "
      "the plug-in disabled itself, 2 bad usage, bad scenario or a run that could not start.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << kProg << ": " << oneLine(e.what()) << " (see --help)\n";
    return kExitBad;
  }

  vsim::Scenario scenario;
  try {
    scenario = scenarioPath.empty() ? vsim::defaultScenario() : vsim::loadScenario(scenarioPath);
  } catch (const vsim::ScenarioError& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return kExitBad;
  }
  if (printScenario) {
    std::cout << scenario.toJson().dump(2) << "\n";
    return kExitOk;
  }

  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);

  vsim::SimOptions options;
  options.pluginPath = plugin;
  options.modelDir = models;
  options.runDir = runDir.empty() ? defaultRunDir() : runDir;
  options.progress = !noProgress && !quiet && isatty(STDERR_FILENO);

  try {
    fs::create_directories(options.runDir);
    vsim::Report report;
    {
      vsim::Simulator sim(scenario, options);
      report = sim.run();
    }  // every child is stopped and reaped here
    const fs::path dir = options.runDir;
    const std::string text = report.toText(scenario.expectations);
    writeFile(dir / "report.txt", text);
    writeFile(dir / "report.json", report.toJson(scenario.expectations).dump(2) + "\n");
    writeFile(dir / "timeline.svg", vsim::renderSvg(report));
    if (!quiet) {
      if (asJson) {
        std::cout << report.toJson(scenario.expectations).dump(2) << "\n";
      } else {
        std::cout << text << "\nPicture: " << (dir / "timeline.svg").string()
                  << "\nPlug-in log: " << (dir / "vorak.log").string() << "\n";
      }
    }
    const auto results = report.check(scenario.expectations);
    const bool met = std::all_of(results.begin(), results.end(), [](const auto& r) { return r.ok; });
    if (!met) {
      std::cerr << kProg << ": expected victims not met (see the report)\n";
      return kExitUnmet;
    }
    return kExitOk;
  } catch (const vsim::HostError& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return std::string(e.what()).find("disabled itself") != std::string::npos ? kExitUnmet : kExitBad;
  } catch (const std::exception& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return kExitBad;
  }
}
