// The feature's start-up when memory runs out: each of its eleven nothrow
// allocations (seven tables, the meter, the action, the action's table, the
// learning algorithm) refused in turn. A missing table disables the feature;
// a missing component is reported and the feature runs without it.
#include <gtest/gtest.h>

#include "VorakDevice.h"
#include "kxhost/LogCapture.h"
#include "support/FailingAllocation.h"

namespace {

constexpr const char* kNoTables = "Couldnt Initialize DBs properly. Disabling the Vorak Feature. ret = -1";
constexpr const char* kNoMeter = "No MetaMeter for (Vorak : ";
constexpr const char* kNoAction = "No Action for (Vorak : ";
constexpr const char* kNoActionTable = "Failed to Create KxDatabase for VorakFeatureActionData.";
constexpr const char* kNoAlgo = "No Algo for (Vorak : ";

struct Refusal {
  int nth;  // which allocation of the start-up fails
  bool meter, action, algo;
  std::vector<const char*> errors;
};

TEST(VorakFeatureOutOfMemory, EachRefusedAllocationCostsOnlyWhatNeedsIt) {
  const Refusal table[] = {
      {1, false, false, false, {kNoTables}},  // each of the five tables the feature needs
      {3, false, false, false, {kNoTables}},
      {5, false, false, false, {kNoTables}},
      {6, false, true, false, {kNoMeter, kNoAlgo}},  // service input
      {7, true, false, false, {kNoAction, kNoAlgo}},  // service output
      {8, false, true, true, {kNoMeter}},
      {9, true, false, false, {kNoAction, kNoAlgo}},
      {10, true, true, false, {kNoActionTable, kNoAlgo}},
      {11, true, true, false, {kNoAlgo}},
      {12, true, true, true, {}},  // there is no twelfth
  };
  for (const Refusal& r : table) {
    SCOPED_TRACE(r.nth);
    vorakdev::Device device;
    kxhost::LogCapture log;
    std::unique_ptr<VorakFeature> feature;
    {
      kxtest::NothrowFailure refused(r.nth, 1);
      feature = device.create();
      if (r.errors.empty()) {
        EXPECT_EQ(kxtest::NothrowFailure::seen(), 11);
      }
    }
    EXPECT_EQ(feature->isDisabled(), r.nth <= 5);
    EXPECT_EQ(feature->getMetaMeter() != nullptr, r.meter);
    EXPECT_EQ(feature->getAction() != nullptr, r.action);
    EXPECT_EQ(feature->getAlgo() != nullptr, r.algo);
    size_t errors = 0;
    for (const auto& line : log.lines()) errors += line.prio >= ANDROID_LOG_WARN && line.tag == "ANDR-PERF-KX";
    EXPECT_EQ(errors, r.errors.size() + (r.nth <= 5));  // the table check's own line before the last
    for (const char* error : r.errors) EXPECT_EQ(log.count(error, ANDROID_LOG_ERROR), 1u) << error;
  }
}

}  // namespace
