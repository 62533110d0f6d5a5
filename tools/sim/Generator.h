// Scenarios of many days of use, generated from a seed: apps with daily
// habits by hour (different on weekends), sessions of a few apps, services,
// the odd app installed or removed part-way, and learning while the device
// is idle.
#pragma once

#include <cstdint>

#include "Scenario.h"

namespace vsim {

struct GeneratorOptions {
  int days = 7;       // 1 .. kMaxDays; day 0 is a Monday
  int apps = 30;      // 1 .. kMaxApps
  int deviceGb = 4;   // 2, 4 or 6
  uint32_t seed = 1;
};

constexpr int kMaxDays = 28;

// The same options give the same scenario on every platform. Throws
// ScenarioError for options out of range.
Scenario generateScenario(const GeneratorOptions& options);

// The built-in week: 24 apps on a phone of the 2, 4 (the default) or 6 GB
// class, Monday to Sunday; the same habits on every class.
Scenario builtinWeek(int deviceGb = 4);

}  // namespace vsim
