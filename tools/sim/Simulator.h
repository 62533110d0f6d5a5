// Runs a scenario against the plug-in: plays the device (memory, processes,
// statistics, services) and the framework (triggers, hints, metering,
// learning), and records what happened at every launch.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PluginHost.h"
#include "PluginLog.h"
#include "ProcessPool.h"
#include "Report.h"
#include "Scenario.h"
#include "SimDevice.h"

namespace vsim {

struct SimOptions {
  std::string pluginPath;  // the plug-in's shared library
  std::string runDir;      // the device's file-system root; created, kept after the run
  std::string modelDir;    // where the shipped vorak_*.data models are copied from
  bool progress = false;   // a progress line on stderr
};

class Simulator {
 public:
  Simulator(Scenario scenario, SimOptions options);
  ~Simulator();

  // Plays every event and returns the report; throws HostError or
  // std::runtime_error when the run cannot start. Stops early (with a partial
  // report) once stop() was called.
  Report run();
  // Safe to call from a signal handler.
  static void stop();

 private:
  struct AppRun {
    pid_t pid = 0;
    int launches = 0;
    int killed = 0;
    uint64_t jitterSeq = 0;
    bool grown = false;  // the running process has grown by the app's growKB
  };

  void prepareRunDir();
  void startHost();
  void play(const Event& e);
  void onPrepare(const Event& e);
  void onLaunch(const Event& e);
  void onComplete(const Event& e);
  void onRemove(const Event& e);
  void onLearn();
  void letWorkerRun();
  void startService(const std::string& name);
  void startApp(const AppProfile& profile, LaunchRecord& rec);
  void makeRoom(uint64_t needKB, LaunchRecord* rec);
  void demote(const std::string& app);
  void reassignOomAdj();
  // Children that died (killed by the plug-in, or otherwise) are taken off
  // the device; returns them with the memory they held.
  std::vector<Victim> settleDeaths();
  // Takes a child that died off the device and the simulator's books.
  Victim takeDead(pid_t pid, const std::string& poolName);
  void noteStrayDeaths();
  void forget(pid_t pid);
  std::optional<uint64_t> learntNeed(const std::string& app) const;
  std::map<std::string, std::pair<int64_t, int64_t>> learntRows() const;
  void showProgress(double at, bool final);
  void finishReport();

  Scenario mScenario;
  SimOptions mOptions;
  ProcessPool mPool;
  std::shared_ptr<SimDevice> mDevice;
  std::shared_ptr<PluginLog> mLog;
  std::unique_ptr<PluginHost> mHost;
  Report mReport;

  std::map<std::string, AppRun> mApps;
  std::map<std::string, pid_t> mServices;
  std::map<pid_t, std::string> mOwners;  // pid -> app or service name
  std::string mForeground;
  std::vector<std::string> mRecent;      // background apps, most recent first
  int mLaunchCount = 0;
  int mLastProgress = -1;
  double mNow = 0;
};

}  // namespace vsim
