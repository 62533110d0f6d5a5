#include "RunPool.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>
#include <map>
#include <sstream>
#include <stdexcept>

#include "Text.h"

namespace vmodel {
namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr size_t kStatsFigures = sizeof(SysStats) / sizeof(uint64_t);

json statsJson(const SysStats& s) {
  uint64_t figures[kStatsFigures];
  std::memcpy(figures, &s, sizeof s);
  return json(std::vector<uint64_t>(figures, figures + kStatsFigures));
}

SysStats statsFromJson(const json& j) {
  const auto figures = j.get<std::vector<uint64_t>>();
  if (figures.size() != kStatsFigures) throw std::runtime_error("a launch's statistics have the wrong size");
  SysStats s;
  std::memcpy(&s, figures.data(), sizeof s);
  return s;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// In the forked worker: the run, then its result or its error, then out
// without running the parent's exit handlers.
[[noreturn]] void work(const RunJob& job) {
  int code = 0;
  const fs::path dir = job.options.runDir;
  try {
    const vsim::Report report = vsim::runPolicy(*job.scenario, job.options);
    std::ofstream(dir / "result.json") << resultJson(report).dump() << "\n";
  } catch (const std::exception& e) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    std::ofstream(dir / "error.txt") << e.what() << "\n";
    code = 1;
  }
  _exit(code);
}

// The run's result, or why there is none.
RunResult collect(const RunJob& job, int status) {
  const fs::path dir = job.options.runDir;
  const std::string name = job.scenario->name + " under " + job.options.policy.name();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::string why = readFile(dir / "error.txt");
    while (!why.empty() && why.back() == '\n') why.pop_back();
    if (why.empty()) why = WIFSIGNALED(status) ? std::string("ended by signal ") + strsignal(WTERMSIG(status)) : "failed";
    throw std::runtime_error("the run of " + name + " failed: " + why);
  }
  try {
    RunResult r = resultFromJson(json::parse(readFile(dir / "result.json")));
    r.runDir = dir.string();
    return r;
  } catch (const json::exception& e) {
    throw std::runtime_error("the run of " + name + " left no readable result in " + dir.string());
  }
}

}  // namespace

json resultJson(const vsim::Report& report) {
  json j;
  j["summary"] = vsim::summaryJson(report.summary());
  j["samples"] = json::array();
  for (const auto& r : report.launches()) {
    if (!r.learntRow) continue;
    json s{{"stats", statsJson(r.stats)},
           {"ionKgslKB", r.learntRow->first},
           {"rssSwapKB", r.learntRow->second},
           {"shortfallKB", r.shortfallKB}};
    if (r.modelSum) s["loggedSum"] = *r.modelSum;
    j["samples"].push_back(s);
  }
  return j;
}

RunResult resultFromJson(const json& j) {
  RunResult r;
  const json& s = j.at("summary");
  RunFigures& f = r.figures;
  f.launches = s.at("launches");
  f.coldLaunches = s.at("coldLaunches");
  f.coldByKills = s.at("coldCausedByKills");
  f.killsByPolicy = s.at("killsByPolicy");
  f.killsDevice = s.at("killsDevice");
  f.lackingLaunches = s.at("lackingLaunches");
  f.launchMsMean = s.at("launchMsMean");
  f.launchMsP95 = s.at("launchMsP95");
  f.launchMsTotal = s.at("launchMsTotal");
  f.freedKB = s.at("freedKB");
  f.overKillKB = s.at("overKillKB");
  for (const json& x : j.at("samples")) {
    LaunchSample sample;
    sample.stats = statsFromJson(x.at("stats"));
    sample.ionKgslKB = x.at("ionKgslKB");
    sample.rssSwapKB = x.at("rssSwapKB");
    sample.shortfallKB = x.at("shortfallKB");
    if (x.contains("loggedSum")) sample.loggedSum = x["loggedSum"].get<double>();
    r.samples.push_back(sample);
  }
  return r;
}

std::vector<RunResult> runAll(const std::vector<RunJob>& jobs, int workers) {
  if (workers < 1) workers = 1;
  std::vector<std::optional<RunResult>> results(jobs.size());
  std::map<pid_t, size_t> running;
  std::string firstError;
  size_t next = 0;
  while (next < jobs.size() || !running.empty()) {
    while (firstError.empty() && next < jobs.size() && static_cast<int>(running.size()) < workers) {
      std::cout.flush();
      std::cerr.flush();
      const pid_t pid = fork();
      if (pid < 0) throw std::runtime_error(std::string("cannot start a run: ") + std::strerror(errno));
      if (pid == 0) work(jobs[next]);
      running[pid] = next++;
    }
    if (running.empty()) break;
    // Only our own workers are waited for: a caller's other children are not ours to reap.
    bool any = false;
    for (auto it = running.begin(); it != running.end();) {
      int status = 0;
      const pid_t done = waitpid(it->first, &status, WNOHANG);
      if (done == 0 || (done < 0 && errno == EINTR)) {
        ++it;
        continue;
      }
      any = true;
      const size_t index = it->second;
      it = running.erase(it);
      try {
        if (done < 0) throw std::runtime_error(std::string("waiting for a run: ") + std::strerror(errno));
        results[index] = collect(jobs[index], status);
      } catch (const std::runtime_error& e) {
        if (firstError.empty()) firstError = e.what();
      }
    }
    if (!any) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!firstError.empty()) throw std::runtime_error(firstError);
  std::vector<RunResult> out;
  for (auto& r : results) out.push_back(std::move(*r));
  return out;
}

}  // namespace vmodel
