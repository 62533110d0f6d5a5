// What a simulation found: one record per launch, the learnt and true needs
// of each application, and a summary, as text for people and JSON for tools.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "LaunchCost.h"
#include "Scenario.h"

namespace vsim {

// The kill action frees only amounts above 20 MB and up to 600 MB: smaller
// ones are not worth a kill, larger ones are taken for a faulty estimate.
constexpr double kKillWindowMinKB = 20480;
constexpr double kKillWindowMaxKB = 614400;

// Who killed a process: the plug-in from one of its three lists, the
// device's low-memory killer, or the oracle policy.
enum class KillBy { Background, Favourite, User, Device, Oracle };
const char* killByName(KillBy by);
inline bool byPolicy(KillBy by) { return by != KillBy::Device; }

// Why a launch had to start the app's process.
enum class ColdCause { Warm, First, Removed, KilledByPolicy, KilledByDevice, Other };
const char* coldCauseName(ColdCause cause);

struct Victim {
  std::string name;
  int pid = 0;
  uint64_t kb = 0;  // the victim's memory as the kill action counted it
  KillBy by = KillBy::Background;
  bool servicePass = false;  // killed to make room for the app's services
};

struct LaunchRecord {
  int index = 0;  // 1-based, in launch order
  double at = 0;
  std::string app;
  bool cold = true;                  // a new process (not a return to a running one that survived the hint)
  ColdCause coldCause = ColdCause::First;
  uint64_t trueKB = 0;               // the app's true need (ion_kgsl + rss_swap)
  std::optional<uint64_t> learntKB;  // its learnt need when the launch hint came
  double amountKB = 0;               // what the plug-in decided to free for the app
  double freedKB = 0;                // what it reported freed for the app
  double serviceAmountKB = 0;        // ... and for the app's services not yet running
  double serviceFreedKB = 0;
  std::vector<Victim> victims;       // by the plug-in, then by the device's low-memory killer
  uint64_t freeBeforeKB = 0;         // free memory when the hint came
  uint64_t freeAfterKB = 0;          // free memory once the app was running
  uint64_t lackedKB = 0;             // memory the launch could not get without swapping or killing
  uint64_t shortfallKB = 0;          // ... as it stood at the hint, before any kill: what needed freeing
  SysStats stats{};                  // the statistics the plug-in read at the hint
  std::optional<std::pair<int64_t, int64_t>> learntRow;  // its learnt (ion_kgsl, rss_swap) then
  std::optional<double> modelSum;    // the model's biased sum, as the plug-in logged it
  bool answered = false;             // the plug-in (or the oracle) decided an amount for this launch
  LaunchWork work;                   // what the kernel did for the launch
  double launchMs = 0;               // the estimated launch time
  std::string slot;                  // the time slot of the launch ("week_day_1")
  bool favourite = false;            // the app was a favourite of the slot, as the host predicted then
};

struct AppOutcome {
  std::string name;
  uint64_t trueIonKB = 0, trueRssKB = 0;
  std::optional<int64_t> learntIonKB, learntRssKB;
  int launches = 0;
  int killed = 0;  // times one of its processes was a victim
  std::string state;
};

struct TimelinePoint {
  double at;
  uint64_t freeKB;
  uint64_t availableKB;
};

struct Summary {
  size_t launches = 0, coldLaunches = 0;
  size_t coldByPolicyKills = 0, coldByDeviceKills = 0;  // cold because an earlier kill took the app
  size_t kills = 0, killsBackground = 0, killsFavourite = 0, killsUser = 0, killsDevice = 0, killsOracle = 0;
  size_t killsByPolicy = 0;    // all but the low-memory killer's
  double freedKB = 0;          // by the plug-in (or the oracle)
  double askedKB = 0;          // amounts in the kill window the plug-in decided to free
  double overKillKB = 0;       // freed beyond the amount, summed over launches
  size_t askingLaunches = 0;   // launches for which it decided to free an amount in the window
  size_t coveredLaunches = 0;  // ... and freed at least that much
  size_t outsideWindow = 0;    // launches whose amount lay outside the window
  size_t lackingLaunches = 0, lackingUnlearnt = 0;
  uint64_t lackedKB = 0;
  size_t appsLearnt = 0;
  double meanLearntErrorPct = 0;  // over learnt apps, |learnt - true| / true
  size_t servicesLearnt = 0;
  double meanServiceErrorPct = 0;
  double launchMsMean = 0, launchMsP95 = 0, launchMsTotal = 0;
  size_t favouriteLaunches = 0;  // launches of an app that was a favourite of the slot
  size_t appsAliveAtEnd = 0;
  size_t coldByKills() const { return coldByPolicyKills + coldByDeviceKills; }
};

struct ExpectationResult {
  int launch;
  std::vector<std::string> expected, actual;
  bool ok;
};

class Report {
 public:
  std::string scenarioName;
  std::string deviceClass;
  uint64_t totalKB = 0;
  std::string runDir;
  std::string policy = "vorak";
  bool multiDay = false;              // times are shown with their weekday
  std::vector<std::string> problems;  // run-level notes (plug-in disabled, ...)
  size_t appsAliveAtEnd = 0;
  // The host's favourites per slot at the end of the run.
  std::map<std::string, std::vector<std::string>> favourites;

  void addLaunch(LaunchRecord r) { mLaunches.push_back(std::move(r)); }
  void addDeviceKill(double at, Victim v);
  void addApp(AppOutcome a) { mApps.push_back(std::move(a)); }
  void addService(AppOutcome s) { mServices.push_back(std::move(s)); }
  void addPoint(TimelinePoint p) { mTimeline.push_back(p); }

  const std::vector<LaunchRecord>& launches() const { return mLaunches; }
  const std::vector<AppOutcome>& apps() const { return mApps; }
  const std::vector<AppOutcome>& services() const { return mServices; }
  const std::vector<TimelinePoint>& timeline() const { return mTimeline; }
  // Kills by the device itself, outside any launch's plug-in pass.
  const std::vector<std::pair<double, Victim>>& deviceKills() const { return mDeviceKills; }

  Summary summary() const;
  std::vector<ExpectationResult> check(const std::vector<Expectation>& expectations) const;

  std::string launchLine(const LaunchRecord& r) const;
  std::string launchHeader() const;
  std::string timeOf(double at) const { return multiDay ? dayTime(at) : clockTime(at); }
  std::string toText(const std::vector<Expectation>& expectations = {}) const;
  nlohmann::json toJson(const std::vector<Expectation>& expectations = {}) const;

 private:
  std::vector<LaunchRecord> mLaunches;
  std::vector<AppOutcome> mApps;
  std::vector<AppOutcome> mServices;
  std::vector<TimelinePoint> mTimeline;
  std::vector<std::pair<double, Victim>> mDeviceKills;

  std::string summaryText() const;
  std::string learntText() const;
  std::string slotText() const;
  std::string expectationText(const std::vector<Expectation>& expectations) const;
};

// The summary's figures as JSON, as report.json and the comparison write them.
nlohmann::json summaryJson(const Summary& s);

// "512 MB", "1.5 GB"; KB below 1 MB as "0 MB".
std::string formatMB(double kb);
// "850 ms", "1.25 s", "3.4 min".
std::string formatMs(double ms);

}  // namespace vsim
