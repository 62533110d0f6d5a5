// A real device's day as a scenario: an Android event log captured as text
// (logcat -b events -v threadtime) becomes timed launches and removals of
// its apps, with their memory figures from an optional CSV file and the
// device class's defaults for the apps it does not list.
//
// Tags read:
//   wm_activity_launch_time, am_activity_launch_time
//       [user,token,component,ms,...]: the app of the component was
//       launched; prepare and launch at the log time less ms, complete at it.
//   am_kill [user,pid,process,adj,reason]: a reason of "remove task" or
//       "stop ..." (the user swiped the app away or stopped it) removes the
//       app; any other kill was the device's doing, which the simulated
//       policies replace, and is only counted.
//   am_proc_start [user,pid,uid,process,type,component] and
//   am_proc_died [user,pid,process,...]: counted; the simulator starts an
//       app's process at its launch and decides itself which die.
// Times keep the log's weekday and hour: the scenario's clock starts on the
// Monday of the week of the first line. Learning runs every two hours.
#pragma once

#include <cstddef>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Scenario.h"

namespace vsim {

struct AppFigures {
  uint64_t rssSwapKB = 0, ionKgslKB = 0, fileKB = 0;
};

// "app name, rss_swap KB, graphics KB, file KB" per line; blank lines, lines
// starting with '#' and a first line of column names are skipped. Throws
// ScenarioError naming the line of the first bad one.
std::map<std::string, AppFigures> parseFigures(const std::string& csv);

struct ImportOptions {
  int deviceGb = 4;            // 2, 4 or 6
  std::optional<int> year;     // for logs whose dates have none
  std::string name;            // the scenario's name
};

struct ImportResult {
  Scenario scenario;
  size_t launches = 0, removals = 0, deviceKills = 0, processStarts = 0, processDeaths = 0, otherLines = 0;
  std::vector<size_t> badLines;       // 1-based numbers of the lines that could not be read
  std::vector<std::string> defaulted; // apps given the class defaults (not in the figures)
  // The warnings a user must see, one line each.
  std::vector<std::string> warnings() const;
};

// Throws ScenarioError when nothing can be made of the log (no launch, no
// year for dates without one, a span beyond the simulator's clock).
ImportResult importLog(std::istream& log, const std::map<std::string, AppFigures>& figures,
                       const ImportOptions& options);

}  // namespace vsim
