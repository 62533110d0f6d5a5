// The kill decision's inputs as the plug-in computes them, on statistics
// whose derived figures were worked out by hand.

#include <gtest/gtest.h>

#include "DecisionProbe.h"
#include "support/TempDir.h"

namespace {

// A 4GB-class device, only the normal zone in use. Derived: FreeKB 200000,
// anon 1200000, CachedKB 1020000, load 2505000, available 1355000,
// a_plus_l 3860000.
SysStats ordinaryStats() {
  return SysStats{210000, 3900000, 20000, 25000, 150000, 450000, 1000000, 5000, 40000, 70000, 60000, 8000,
                  120000, 10000,   50000, 99999, 30000,  0,      0,       0,    0,     0,     200000, 800000,
                  400000, 600000,  500000, 0,    0,      0,      0,       0,    0,     0,     0,      0,      0};
}

float input(const vmodel::InputValues& v, std::string_view name) {
  for (size_t i = 0; i < kVorakFeatureNames.size(); ++i)
    if (kVorakFeatureNames[i] == name) return v[i];
  ADD_FAILURE() << name;
  return 0;
}

TEST(DecisionProbe, GivesThePluginsInputsForARecordedLaunch) {
  kxtest::TempDir dir;
  VorakModel model;
  model.set_bias(0);
  model.set_safeload(0.25f);
  vmodel::DecisionProbe probe(model, dir.path());
  vmodel::LaunchSample s;
  s.stats = ordinaryStats();
  s.rssSwapKB = 200000;
  s.ionKgslKB = 100000;
  const auto v = probe.inputs(s);
  const struct {
    const char* name;
    float value;
  } expected[] = {{"FreeKB", 200000},    {"CachedKB", 1020000},       {"available", 1355000},
                  {"load", 2505000},     {"a_plus_l", 3860000},       {"TotalAnonPages", 300000},
                  {"killsafeANON", 200000}, {"killsafeUNRECLAIM", 100000}, {"newLoad", 300000},
                  // 0.25 * 3860000 - (1355000 - 300000)
                  {"howMuchToKill", -90000}};
  for (const auto& e : expected) EXPECT_EQ(input(v, e.name), e.value) << e.name;

  // The next launch replaces the learnt row: nothing of the first stays.
  s.rssSwapKB = 0;
  EXPECT_EQ(input(probe.inputs(s), "newLoad"), 100000);
}

}  // namespace
