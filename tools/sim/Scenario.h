// What a simulation runs: the device, its applications and services with
// their true memory needs, and a timed sequence of events. Read from JSON or
// built in (a simulated day on a 4 GB device).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "DeviceModel.h"

namespace vsim {

struct AppProfile {
  std::string name;
  uint64_t rssSwapKB = 0;  // true "rss_swap" of a launch
  uint64_t ionKgslKB = 0;  // true "ion_kgsl" of a launch
  uint64_t fileKB = 0;     // mapped file pages
  std::vector<std::string> services;
  uint64_t growKB = 0;     // anonymous memory a process adds in its first foreground use
  double jitter = 0.0;     // each launch's need varies by up to this share
  std::optional<double> coldLaunchMs, warmLaunchMs;  // the app's own base launch times, if not the device's
  uint64_t needKB() const { return rssSwapKB + ionKgslKB; }
};

struct ServiceProfile {
  std::string name;
  uint64_t rssSwapKB = 0;
  uint64_t ionKgslKB = 0;
  uint64_t fileKB = 0;
  int oomAdj = 800;
};

enum class EventType {
  Prepare,   // the user leaves the foreground app: preparation hint
  Launch,    // launch hint, then the app starts (or returns to the foreground)
  Complete,  // launch completed: the framework samples the app's memory
  Remove,    // the user removes the app from recents: it is stopped
  Service,   // a service process starts
  Learn,     // the device is idle: one learning run
  Grow,      // an app allocates more memory
};

const char* eventTypeName(EventType type);

struct Event {
  double at = 0;            // seconds since the start of the simulated day
  EventType type = EventType::Launch;
  std::string target;       // app or service; empty for Learn, and for Prepare means the foreground app
  int hintType = 101;       // Complete: 101 or 102
  uint64_t kb = 0;          // Grow
};

// Victims that launch number `launch` (1-based, in launch order) must have.
struct Expectation {
  int launch = 0;
  std::vector<std::string> victims;
};

struct Scenario {
  std::string name;
  DeviceProfile device;
  uint32_t samplesThreshold = 3;  // samples per name before learning is due
  uint32_t seed = 1;              // for the launch-to-launch variation of needs
  std::vector<AppProfile> apps;
  std::vector<ServiceProfile> services;
  std::vector<Event> events;      // sorted by time, stable
  std::vector<Expectation> expectations;

  const AppProfile* app(const std::string& name) const;
  const ServiceProfile* service(const std::string& name) const;
  double durationSec() const { return events.empty() ? 0 : events.back().at; }
  size_t launchCount() const;
  nlohmann::json toJson() const;
};

class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Bounds of what a scenario may hold, so that a runaway file fails at once
// with a clear message instead of exhausting memory: the plug-in's tables
// list at most 1000 distinct names, and a week of heavy use is some
// thousands of events.
constexpr size_t kMaxScenarioBytes = size_t{64} << 20;
constexpr size_t kMaxApps = 500;
constexpr size_t kMaxServices = 100;
constexpr size_t kMaxEvents = 1000000;

// Parses and checks a scenario; errors name the offending member
// ("events[3].app: unknown app 'x'"). An "open" event stands for prepare,
// launch and, two seconds later, complete.
Scenario parseScenario(const std::string& text);
Scenario loadScenario(const std::string& path);

// A simulated day on a 4 GB device with twenty applications.
Scenario defaultScenario();

// "HH:MM:SS" for a time of the simulated day (hours go on past 24).
std::string clockTime(double seconds);
// "Tue 08:05:07": the simulated time begins on a Monday at midnight.
std::string dayTime(double seconds);

}  // namespace vsim
