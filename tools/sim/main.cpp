// vorak-sim: runs the plug-in on a simulated device through a scenario (a
// built-in day on a 4 GB phone by default) and reports, launch by launch,
// what it learnt, what it decided to free, whom it killed and what each
// launch cost; or runs several policies side by side; or generates
// scenarios of many days.
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
#include <iterator>
#include <map>
#include <sstream>

#include <CLI/CLI.hpp>

#include "Evaluation.h"
#include "Generator.h"
#include "LogImport.h"
#include "Scenario.h"
#include "Text.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kProg = "vorak-sim";
constexpr int kExitOk = 0;
constexpr int kExitUnmet = 1;
constexpr int kExitBad = 2;

struct ImportArgs {
  std::string log, figures, output = "-", name;
  int deviceGb = 4;
  std::optional<int> year;
};

struct Args {
  std::string scenarioPath, builtin, runDir, policy = "vorak", policies = "vorak,none,oracle", model;
  std::string plugin = VORAK_SIM_PLUGIN, models = VORAK_SIM_MODELS;
  bool asJson = false, quiet = false, noProgress = false, printScenario = false, compare = false, generate = false;
  vsim::GeneratorOptions gen;
  ImportArgs import;
};

std::string oneLine(std::string s) {
  std::replace(s.begin(), s.end(), '\n', ' ');
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return vsim::printable(s);
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

void describe(CLI::App& app, Args& a) {
  app.add_option("SCENARIO", a.scenarioPath, "scenario file (JSON); default: the built-in day");
  app.add_option("--builtin", a.builtin,
                 "a built-in scenario instead: day (20 apps, 4 GB) or week (24 apps, 4 GB, or the class of --device)")
      ->check(CLI::IsMember({"day", "week"}));
  app.add_option("--policy", a.policy,
                 "who frees memory before a launch: vorak (the plug-in), vorak:safeload=X (its model's "
                 "safeload replaced), none (only the device's low-memory killer), oracle (knows every true need)")
      ->capture_default_str();
  auto* compare = app.add_flag("--compare", a.compare,
                               "run the scenario under each of --policies, each in its own run directory, and "
                               "print one table (also report.json and compare.svg in the run directory)");
  app.add_option("--policies", a.policies, "comma-separated policies for --compare")->capture_default_str()->needs(compare);
  app.add_option("--model", a.model, "a model file used in place of the shipped one of the scenario's class");
  auto* generate = app.add_flag("--generate", a.generate, "print a generated scenario of many days and exit");
  app.add_option("--days", a.gen.days, "--generate: days, from a Monday (1 to 28)")->capture_default_str()->needs(generate);
  app.add_option("--apps", a.gen.apps, "--generate: apps (1 to 500)")->capture_default_str()->needs(generate);
  app.add_option("--device", a.gen.deviceGb, "--generate and --builtin week: device class, 2, 4 or 6 (GB)")
      ->capture_default_str();
  app.add_option("--seed", a.gen.seed, "--generate: seed; the same seed gives the same scenario")
      ->capture_default_str()
      ->needs(generate);
  app.add_option("--run-dir", a.runDir,
                 "directory the device's files go to (the plug-in's databases, its log, the report and the "
                 "picture); default ./run/<date-time>; kept after the run");
  app.add_flag("--json", a.asJson, "print the report as JSON");
  app.add_flag("-q,--quiet", a.quiet, "print nothing; the report is still written to the run directory");
  app.add_flag("--no-progress", a.noProgress, "no progress line, even on a terminal");
  app.add_flag("--print-scenario", a.printScenario,
               "print the scenario (the built-in one without SCENARIO) as JSON and exit: a start for your own");
  app.add_option("--plugin", a.plugin, "the plug-in's shared library")->capture_default_str();
  app.add_option("--models", a.models, "directory holding the shipped vorak_*.data models")->capture_default_str();
  app.footer(
      "Files in the run directory: report.txt, report.json, timeline.svg (free memory over time, launches and "
      "kills marked), vorak.log (the plug-in's own log), scenario.json, and the device tree the plug-in sees "
      "(data/vendor/kx/*.db: dump them with vorak-db). With --compare: report.txt, report.json and compare.svg, "
      "and one such directory per policy.\nExit status: 0 success, 1 expected victims not met or the plug-in "
      "disabled itself, 2 bad usage, bad scenario or a run that could not start.");
}

CLI::App* describeImport(CLI::App& app, ImportArgs& a) {
  auto* cmd = app.add_subcommand(
      "import",
      "Turn an Android event log (logcat -b events -v threadtime) into a scenario file: its activity launches "
      "and the apps the user removed, with the log's weekdays and hours, and learning every two hours.");
  cmd->add_option("LOG", a.log, "the event log as text (\"-\" for stdin)")->required();
  cmd->add_option("--figures", a.figures, "CSV of app name, rss_swap KB, graphics KB, file KB; apps it lacks get "
                                          "the class defaults");
  cmd->add_option("--device", a.deviceGb, "device class, 2, 4 or 6 (GB)")->capture_default_str()->check(CLI::IsMember({2, 4, 6}));
  cmd->add_option("--year", a.year, "the year of the log's first line, when its dates carry none")->check(CLI::Range(1970, 9999));
  cmd->add_option("--name", a.name, "the scenario's name; default: imported from LOG");
  cmd->add_option("-o,--output", a.output, "where the scenario goes (\"-\" for stdout)")->capture_default_str();
  return cmd;
}

// A week of a busy device's event log is some tens of MB: the bound stops an
// endless input (/dev/zero) before it exhausts memory.
constexpr size_t kMaxImportBytes = size_t{256} << 20;

std::string readText(const std::string& path, const char* what) {
  if (path != "-" && fs::is_directory(path)) throw vsim::ScenarioError(path + ": is a directory, not " + what);
  std::ifstream file;
  if (path != "-") {
    file.open(path, std::ios::binary);
    if (!file) throw vsim::ScenarioError(path + ": cannot read");
  }
  std::istream& in = path == "-" ? std::cin : file;
  std::string text;
  char buf[65536];
  while (text.size() <= kMaxImportBytes && in.read(buf, sizeof buf).gcount() > 0)
    text.append(buf, static_cast<size_t>(in.gcount()));
  if (in.bad()) throw vsim::ScenarioError(path + ": cannot read");
  if (text.size() > kMaxImportBytes)
    throw vsim::ScenarioError(path + ": larger than " + std::to_string(kMaxImportBytes >> 20) + " MiB, not " + what);
  return text;
}

int runImport(const ImportArgs& a) {
  const auto figures = a.figures.empty() ? std::map<std::string, vsim::AppFigures>{}
                                         : vsim::parseFigures(readText(a.figures, "a figures file"));
  std::istringstream log(readText(a.log, "a log"));
  vsim::ImportOptions o;
  o.deviceGb = a.deviceGb;
  o.year = a.year;
  o.name = a.name.empty() ? "imported from " + (a.log == "-" ? std::string("stdin") : fs::path(a.log).filename().string())
                          : a.name;
  const vsim::ImportResult r = vsim::importLog(log, figures, o);
  const std::string json = vsim::dumpJson(r.scenario.toJson()) + "\n";
  if (a.output == "-") {
    std::cout << json;
  } else {
    std::ofstream out(a.output, std::ios::binary);
    out << json;
    if (!out.flush()) throw vsim::ScenarioError(a.output + ": cannot write");
  }
  for (const auto& w : r.warnings()) std::cerr << kProg << ": warning: " << oneLine(w) << "\n";
  std::cerr << kProg << ": imported " << r.launches << " launches of " << r.scenario.apps.size() << " apps and "
            << r.removals << " removals; " << r.deviceKills << " kills by the device, " << r.processStarts
            << " process starts and " << r.processDeaths << " deaths are left to the simulation; " << r.otherLines
            << " lines of other tags ignored\n";
  return kExitOk;
}

vsim::Scenario chosenScenario(const Args& a, bool deviceGiven) {
  if (deviceGiven && !a.generate && a.builtin != "week")
    throw vsim::ScenarioError("--device goes with --generate or --builtin week");
  if (!a.scenarioPath.empty()) {
    if (!a.builtin.empty()) throw vsim::ScenarioError("give a scenario file or --builtin, not both");
    return vsim::loadScenario(a.scenarioPath);
  }
  return a.builtin == "week" ? vsim::builtinWeek(a.gen.deviceGb) : vsim::defaultScenario();
}

// The command that puts this run's scenario side by side with the other policies.
std::string compareCommand(const char* argv0, const Args& a) {
  std::string cmd = argv0;
  if (!a.scenarioPath.empty()) cmd += " " + vsim::printable(a.scenarioPath);
  if (!a.builtin.empty()) cmd += " --builtin " + a.builtin;
  if (a.builtin == "week" && a.gen.deviceGb != 4) cmd += " --device " + std::to_string(a.gen.deviceGb);
  return cmd + " --compare";
}

int runOne(const vsim::Scenario& scenario, const vsim::SimOptions& options, const Args& a, const char* argv0) {
  const vsim::Report report = vsim::runPolicy(scenario, options, scenario.expectations);
  if (!a.quiet) {
    if (a.asJson) {
      std::cout << vsim::dumpJson(report.toJson(scenario.expectations)) << "\n";
    } else {
      const fs::path dir = options.runDir;
      std::cout << report.toText(scenario.expectations) << "\nPicture: " << (dir / "timeline.svg").string()
                << "\nPlug-in log: " << (dir / "vorak.log").string()
                << "\nThe same scenario without the plug-in and with an oracle, side by side: "
                << compareCommand(argv0, a) << "\n";
    }
  }
  const auto results = report.check(scenario.expectations);
  if (std::all_of(results.begin(), results.end(), [](const auto& r) { return r.ok; })) return kExitOk;
  std::cerr << kProg << ": expected victims not met (see the report)\n";
  return kExitUnmet;
}

int runCompare(const vsim::Scenario& scenario, const vsim::SimOptions& options, const Args& a) {
  const auto policies = vsim::parsePolicies(a.policies);
  const vsim::Comparison comparison = vsim::comparePolicies(scenario, policies, options);
  if (a.quiet) return kExitOk;
  if (a.asJson) std::cout << vsim::dumpJson(comparison.toJson()) << "\n";
  else std::cout << comparison.toText() << "\nPicture: " << (fs::path(options.runDir) / "compare.svg").string() << "\n";
  return kExitOk;
}

int run(const vsim::Scenario& scenario, const Args& a, const char* argv0) {
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);

  vsim::SimOptions options;
  options.pluginPath = a.plugin;
  options.modelDir = a.models;
  options.modelFile = a.model;
  options.policy = vsim::parsePolicy(a.policy);
  options.runDir = a.runDir.empty() ? defaultRunDir() : a.runDir;
  options.progress = !a.noProgress && !a.quiet && isatty(STDERR_FILENO);
  return a.compare ? runCompare(scenario, options, a) : runOne(scenario, options, a, argv0);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Run the Vorak plug-in on a simulated device: applications with true memory needs start as real sleeping "
      "child processes, the plug-in learns their needs and kills to make room, and a report says what it "
      "learnt, decided and killed at each launch and what each launch cost. Without a scenario it runs a "
      "built-in day on a 4 GB phone.",
      kProg};
  Args a;
  describe(app, a);
  auto* importCmd = describeImport(app, a.import);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << kProg << ": " << oneLine(e.what()) << " (see --help)\n";
    return kExitBad;
  }

  vsim::Scenario scenario;
  try {
    if (importCmd->parsed()) return runImport(a.import);
    if (a.generate) {
      std::cout << vsim::dumpJson(vsim::generateScenario(a.gen).toJson()) << "\n";
      return kExitOk;
    }
    scenario = chosenScenario(a, app.count("--device") > 0);
    if (a.printScenario) {
      std::cout << vsim::dumpJson(scenario.toJson()) << "\n";
      return kExitOk;
    }
    return run(scenario, a, argv[0]);
  } catch (const vsim::ScenarioError& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return kExitBad;
  } catch (const vsim::PolicyError& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return kExitBad;
  } catch (const vsim::HostError& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return std::string(e.what()).find("disabled itself") != std::string::npos ? kExitUnmet : kExitBad;
  } catch (const std::exception& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return kExitBad;
  }
}
