// vorak-model: encode, decode and check the kill model files; tune a model's
// safeload and train its weights on simulated days.
//
// Exit status: 0 success; 1 the model lacks something the device needs
// (check, or encode without --allow-partial), or a simulator run failed; 2
// unreadable or unparseable input, unwritable output, or bad usage.

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <google/protobuf/stubs/logging.h>

#include "ModelFile.h"
#include "Session.h"
#include "Tuner.h"

namespace {

namespace fs = std::filesystem;
using namespace vmodel;

constexpr const char* kProg = "vorak-model";
constexpr int kExitOk = 0;

int runEncode(const std::string& in, const std::string& out, bool allowPartial) {
  VorakModel model;
  parseText(in, readAll(in), model);
  const auto missing = missingPaths(model);
  if (!missing.empty() && !allowPartial) {
    std::string list;
    for (const auto& m : missing) list += (list.empty() ? "" : ", ") + m;
    throw ModelError(kExitIncomplete, displayName(in) + ": missing required fields: " + list);
  }
  writeAll(out, encode(model));
  return kExitOk;
}

int runDecode(const std::string& in, const std::string& out) {
  VorakModel model;
  parseBinary(in, readAll(in), model);
  const auto missing = missingPaths(model);
  if (!missing.empty()) {
    std::string list;
    for (const auto& m : missing) list += (list.empty() ? "" : ", ") + m;
    std::cerr << kProg << ": warning: " << displayName(in) << ": missing required fields: " << list << "\n";
  }
  writeAll(out, toText(model));
  return kExitOk;
}

int runCheck(const std::string& path, const std::string& format) {
  const std::string data = readAll(path);
  const bool text = format == "text" || (format == "auto" && looksLikeText(data));
  VorakModel model;
  if (text) parseText(path, data, model);
  else parseBinary(path, data, model);
  const CheckResult r = checkModel(model);
  const std::string name = displayName(path);
  std::cout << name << ": " << (text ? "text" : "binary") << " model, " << model.features_size() << " features\n";
  for (const auto& n : r.notes) std::cout << name << ": note: " << n << "\n";
  for (const auto& p : r.problems) std::cout << name << ": " << p << "\n";
  if (r.problems.empty()) {
    std::cout << name << ": complete\n";
    return kExitOk;
  }
  std::cout << name << ": " << r.problems.size() << (r.problems.size() == 1 ? " problem\n" : " problems\n");
  return kExitIncomplete;
}

std::string oneLine(std::string s) {
  for (char& c : s) {
    if (c == '\n') c = ' ';
  }
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

// ./run/<what>-<date-time>, with a suffix when that exists already.
std::string defaultRunDir(const std::string& what) {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &tm);
  std::string dir = "run/" + what + "-" + stamp;
  for (int n = 2; fs::exists(dir); ++n) dir = "run/" + what + "-" + stamp + "-" + std::to_string(n);
  return dir;
}

// Options that tune and train share.
void describeSession(CLI::App* cmd, SessionOptions& o) {
  cmd->add_option("--device", o.deviceGb, "device class, 2, 4 or 6 (GB): the model of that class")
      ->required()
      ->check(CLI::IsMember({2, 4, 6}));
  cmd->add_option("SCENARIO", o.scenarioFiles, "scenario files of the device class (JSON, as vorak-sim plays them)");
  cmd->add_option("--week", o.weekSeeds,
                  "a generated week of the class with this seed (repeatable; 7 is vorak-sim's built-in week); "
                  "without scenarios: --week 7");
  cmd->add_option("--model", o.baseModel, "the model to start from; default: the shipped one of the class");
  cmd->add_option("--jobs,-j", o.jobs, "simulator runs at a time; the results do not depend on it")
      ->capture_default_str()
      ->check(CLI::Range(1, 64));
  cmd->add_option("--run-dir", o.runDir, "directory for the runs and pictures; default ./run/<command>-<date-time>");
  cmd->add_option("--out", o.out, "write the model as OUT.txtpb and OUT.data; default <run-dir>/vorak_<class>");
  cmd->add_option("--plugin", o.pluginPath, "the plug-in's shared library")->capture_default_str();
  cmd->add_option("--models", o.shippedModels, "directory holding the shipped vorak_*.data models")->capture_default_str();
}

}  // namespace

int main(int argc, char** argv) {
  GOOGLE_PROTOBUF_VERIFY_VERSION;
  // Errors are reported by this program, one line each; the library's own
  // log lines would only repeat them.
  google::protobuf::SetLogHandler(nullptr);

  CLI::App app{"Encode, decode and check kill model files (VorakModel); tune and train them on simulated days.", kProg};
  app.require_subcommand(1, 1);
  app.footer(
      "Exit status: 0 success, 1 model incomplete or a simulator run failed, 2 unreadable or unparseable input, "
      "unwritable output or bad usage. \"-\" stands for stdin or stdout.");

  std::string in;
  std::string out = "-";
  bool allowPartial = false;
  std::string format = "auto";

  auto* encodeCmd = app.add_subcommand("encode", "Encode a text model into the binary form the device reads.");
  encodeCmd->add_option("IN", in, "text model (\"-\" for stdin)")->required();
  encodeCmd->add_option("OUT", out, "binary output (\"-\" for stdout)")->required();
  encodeCmd->add_flag("--allow-partial", allowPartial, "encode even when required fields are missing");

  auto* decodeCmd = app.add_subcommand("decode", "Decode a binary model into protobuf text.");
  decodeCmd->add_option("IN", in, "binary model (\"-\" for stdin)")->required();
  decodeCmd->add_option("OUT", out, "text output (default \"-\", stdout)");

  auto* checkCmd = app.add_subcommand(
      "check",
      "Check that a model, binary or text, has every required field, finite numbers, a safeload in (0, 1), and an "
      "entry for every input of the kill decision whose min differs from its max.");
  checkCmd->add_option("FILE", in, "model file (\"-\" for stdin)")->required();
  checkCmd->add_option("--format", format, "input format")
      ->check(CLI::IsMember({"auto", "binary", "text"}))
      ->capture_default_str();

  SessionOptions session;
  session.pluginPath = VORAK_SIM_PLUGIN;
  session.shippedModels = VORAK_SIM_MODELS;
  session.jobs = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  std::string grid = "0.1:0.4:0.05";
  auto* tuneCmd = app.add_subcommand(
      "tune",
      "Play the scenarios once per safeload of a grid under the plug-in and keep the value with the least "
      "estimated launch time (then the fewest cold launches caused by kills); print the table, draw tune.svg, "
      "write the model.");
  describeSession(tuneCmd, session);
  tuneCmd->add_option("--grid", grid, "safeload values: FROM:TO:STEP or a comma-separated list, each in (0, 1)")
      ->capture_default_str();

  TrainOptions training;
  auto* trainCmd = app.add_subcommand(
      "train",
      "Play the scenarios under the plug-in, then fit the model's bias and weights so that its score tells the "
      "launches that needed memory freed; report accuracy on held-out days next to the starting model's.");
  describeSession(trainCmd, session);
  trainCmd->add_option("--held-out", training.heldOutFiles, "held-out scenario files (repeatable)");
  trainCmd->add_option("--held-out-week", training.heldOutSeeds,
                       "a generated held-out week of the class with this seed (repeatable); default 8");
  trainCmd->add_option("--l2", training.l2, "penalty on the squared weights")->capture_default_str()->check(CLI::Range(0.0, 10.0));

  // Without this a mistyped command would only be told that one is required.
  if (argc > 1 && argv[1][0] != '-' && app.get_subcommands([&](CLI::App* s) { return s->check_name(argv[1]); }).empty()) {
    std::cerr << kProg << ": unknown command '" << argv[1] << "' (see --help)\n";
    return kExitBadInput;
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << kProg << ": " << oneLine(e.what()) << " (see --help)\n";
    return kExitBadInput;
  }

  try {
    if (*encodeCmd) return runEncode(in, out, allowPartial);
    if (*decodeCmd) return runDecode(in, out);
    if (*checkCmd) return runCheck(in, format);
    const bool tuning = tuneCmd->parsed();
    const std::vector<float> values = tuning ? parseGrid(grid) : std::vector<float>{};
    if (session.runDir.empty()) session.runDir = defaultRunDir(tuning ? "tune" : "train");
    if (tuning) runTune(session, values, std::cout);
    else runTrain(session, training, std::cout);
    return kExitOk;
  } catch (const ModelError& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return e.code();
  } catch (const std::exception& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return encodeCmd->parsed() || decodeCmd->parsed() || checkCmd->parsed() ? kExitBadInput : kExitIncomplete;
  }
}
