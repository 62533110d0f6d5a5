#include "FeatureState.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

class FeatureStateTest : public ::testing::Test {
 protected:
  void SetUp() override { kxhost::clearFeatureStates(); }
  void TearDown() override { kxhost::clearFeatureStates(); }
};

TEST_F(FeatureStateTest, HandlesOfOneFeatureShareStatesAndOthersDoNot) {
  FeatureState feature("Vorak");
  FeatureState second("Vorak");
  FeatureState other("Other");
  EXPECT_EQ(feature.readState("com.app"), APP_STATE_COLLECTING);

  feature.writeState("com.app", APP_STATE_LEARNING_DUE);
  second.writeState("vendor.svc", APP_STATE_LEARN_FAILED);
  EXPECT_EQ(second.readState("com.app"), APP_STATE_LEARNING_DUE);
  EXPECT_EQ(feature.readState("vendor.svc"), APP_STATE_LEARN_FAILED);
  EXPECT_EQ(other.readState("com.app"), APP_STATE_COLLECTING);
  EXPECT_EQ(feature.names(), (std::vector<std::string>{"com.app", "vendor.svc"}));
  EXPECT_TRUE(other.names().empty());

  FeatureState copy = other;
  copy = feature;
  EXPECT_EQ(copy.featureName(), "Vorak");
  EXPECT_EQ(copy.readState("com.app"), APP_STATE_LEARNING_DUE);
}

TEST_F(FeatureStateTest, ClearingEmptiesTheStatesSeenByExistingHandles) {
  FeatureState feature("Vorak");
  feature.writeState("com.app", APP_STATE_LEARNT);
  kxhost::clearFeatureStates();
  EXPECT_EQ(feature.readState("com.app"), APP_STATE_COLLECTING);
  EXPECT_TRUE(feature.names().empty());
  feature.writeState("com.app", APP_STATE_RELEARN_DUE);
  EXPECT_EQ(FeatureState("Vorak").readState("com.app"), APP_STATE_RELEARN_DUE);
}

TEST_F(FeatureStateTest, ConcurrentHandlesSeeEveryWrite) {
  constexpr int kThreads = 4, kNames = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      FeatureState state("Vorak");  // each thread builds its own handle, as components do
      for (int i = 0; i < kNames; ++i) {
        std::string name = "app" + std::to_string(t) + "." + std::to_string(i);
        state.writeState(name, APP_STATE_LEARNING_DUE);
        if (state.readState(name) == APP_STATE_LEARNING_DUE) state.writeState(name, APP_STATE_LEARNT);
        state.names();
      }
    });
  }
  for (auto& th : threads) th.join();
  FeatureState state("Vorak");
  ASSERT_EQ(state.names().size(), size_t(kThreads * kNames));
  for (const std::string& name : state.names()) EXPECT_EQ(state.readState(name), APP_STATE_LEARNT) << name;
}

}  // namespace
