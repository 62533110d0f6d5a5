// Runs a scenario against a policy: plays the device (memory, processes,
// statistics, services) and the framework (triggers, hints, metering,
// learning), lets the policy free memory at each launch (the plug-in, the
// oracle, or nobody but the device's low-memory killer), and records what
// happened and what each launch cost.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PluginHost.h"
#include "PluginLog.h"
#include "Policy.h"
#include "ProcessPool.h"
#include "Report.h"
#include "Scenario.h"
#include "SimDevice.h"

namespace vsim {

struct SimOptions {
  std::string pluginPath;  // the plug-in's shared library
  std::string runDir;      // the device's file-system root; created, kept after the run
  std::string modelDir;    // where the shipped vorak_*.data models are copied from
  std::string modelFile;   // if set, the model used in place of the shipped one of the scenario's class
  Policy policy;
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
  // Safe to call from a signal handler; every later run stops at once too.
  static void stop();
  static bool stopped();

 private:
  struct AppRun {
    pid_t pid = 0;
    int launches = 0;
    uint64_t jitterSeq = 0;
    bool grown = false;                    // the running process has grown by the app's growKB
    ColdCause lostTo = ColdCause::First;   // why it has no process, when it has none
  };
  struct Sizes {
    uint64_t anon, gpu, file;
    uint64_t total() const { return anon + gpu + file; }
  };

  void prepareRunDir();
  void startHost();
  void play(const Event& e);
  void onPrepare(const Event& e);
  void onLaunch(const Event& e);
  void onComplete(const Event& e);
  void onRemove(const Event& e);
  void letWorkerRun();
  LaunchRecord newLaunch(const AppProfile& profile);
  std::vector<Victim> pluginKills(const AppProfile& profile, LaunchRecord& rec);
  std::vector<Victim> oracleKills(const AppProfile& profile, LaunchRecord& rec);
  // Memory the launch of `profile` will take beyond what it holds now.
  uint64_t demandKB(const AppProfile& profile) const;
  // What of that free memory and clean cache cannot give, keeping the low watermark.
  uint64_t shortfallKB(const AppProfile& profile) const;
  void bringUp(const AppProfile& profile, LaunchRecord& rec);
  void startService(const std::string& name, LaunchRecord* rec);
  void startApp(const AppProfile& profile, LaunchRecord& rec);
  void swapInApp(const AppProfile& profile, LaunchRecord& rec);
  Sizes sizesOf(const AppProfile& profile, uint64_t seq) const;
  void makeRoom(uint64_t needKB, LaunchRecord* rec);
  void demote(const std::string& app);
  void reassignOomAdj();
  // Children that died (killed by the plug-in, or otherwise) are taken off
  // the device; returns them with the memory they held.
  std::vector<Victim> settleDeaths(ColdCause cause);
  // Takes a child that died off the device and the simulator's books.
  Victim takeDead(pid_t pid, const std::string& poolName, ColdCause cause);
  void noteStrayDeaths();
  void forget(pid_t pid);
  std::optional<uint64_t> learntNeed(const std::string& app) const;
  // The plug-in's learnt rows (ion_kgsl, rss_swap by name); only a learning
  // run writes them, so they are read once after each.
  const std::map<std::string, std::pair<int64_t, int64_t>>& learntRows() const;
  void showProgress(double at, bool final);
  void finishReport();
  AppOutcome outcome(const std::string& name, uint64_t ionKB, uint64_t rssKB,
                     const std::map<std::string, std::pair<int64_t, int64_t>>& rows) const;

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
  std::map<std::string, int> mKills;     // app or service name -> times one of its processes was a victim
  std::string mForeground;
  std::vector<std::string> mRecent;      // background apps, most recent first
  mutable std::optional<std::map<std::string, std::pair<int64_t, int64_t>>> mLearnt;
  int mLaunchCount = 0;
  int mLastProgress = -1;
  double mNow = 0;
};

}  // namespace vsim
