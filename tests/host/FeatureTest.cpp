#include "Feature.h"

#include <gtest/gtest.h>

#include "Properties.h"

namespace {

class RecordingAlgo : public Algo {
 public:
  void runAlgo(const std::atomic<bool>& cancel) override {
    ++runs;
    seenCancel = &cancel;
  }
  int runs = 0;
  const std::atomic<bool>* seenCancel = nullptr;
};

class PlainFeature : public Feature {
 public:
  explicit PlainFeature(const FeatureInfo& info) : Feature(info) {}
  ~PlainFeature() override { delete mAlgo; }
  void setAlgo(Algo* algo) { mAlgo = algo; }
  bool perfTrace() const { return mPerfTrace; }
  const FeatureInfo& info() const { return mFeatureInfo; }
  FeatureState& state() { return mFeatureState; }
};

FeatureInfo info(const std::string& name) {
  FeatureInfo i;
  i.name = name;
  i.samplesThreshold = 7;
  return i;
}

TEST(Feature, BaseCopiesTheInfoAndSharesTheStateOfItsName) {
  kxhost::clearProperties();
  PlainFeature feature(info("FeatureTestA"));
  EXPECT_EQ(feature.getFeatureName(), "FeatureTestA");
  EXPECT_EQ(feature.info().samplesThreshold, 7u);
  EXPECT_FALSE(feature.isDisabled());
  EXPECT_FALSE(feature.perfTrace());
  EXPECT_EQ(feature.getMetaMeter(), nullptr);
  EXPECT_EQ(feature.getAlgo(), nullptr);
  EXPECT_EQ(feature.getAction(), nullptr);
  FeatureState("FeatureTestA").writeState("com.app", APP_STATE_LEARNT);
  EXPECT_EQ(feature.state().readState("com.app"), APP_STATE_LEARNT);

  kxhost::setProperty("vendor.debug.trace.perf", "true");
  EXPECT_TRUE(PlainFeature(info("FeatureTestA")).perfTrace());
  kxhost::clearProperties();
}

TEST(Feature, BaseDataCallsAnswerMinusOneAndZero) {
  PlainFeature feature(info("FeatureTestB"));
  std::string key = "k";
  featureData out;
  out.value = 5;
  EXPECT_EQ(feature.getData(key, out, 1), 0);
  EXPECT_EQ(out.value, -1);
  out.value = 5;
  EXPECT_EQ(feature.getData(key, out, 1, 2), 0);
  EXPECT_EQ(out.value, -1);
  EXPECT_EQ(feature.setData(key, {1, 2}), 0);
}

TEST(Feature, IdleLearningRunsTheAlgorithmWithTheHostsFlag) {
  PlainFeature feature(info("FeatureTestC"));
  std::atomic<bool> cancel{false};
  feature.runAsyncIdle(cancel);  // no algorithm: nothing to run
  auto* algo = new RecordingAlgo();
  feature.setAlgo(algo);
  feature.runAsyncIdle(cancel);
  feature.runAsyncPeriodic(cancel);
  EXPECT_EQ(algo->runs, 1);
  EXPECT_EQ(algo->seenCancel, &cancel);
}

}  // namespace
