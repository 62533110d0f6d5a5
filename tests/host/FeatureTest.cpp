#include "Feature.h"

#include <gtest/gtest.h>

#include "support/DeviceRoot.h"
#include "Properties.h"

namespace {

class RecordingAlgo : public Algo {
 public:
  void runAlgo(const std::atomic<bool>& cancel) override { seenCancel = &cancel; }
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

TEST(Feature, BaseCopiesTheInfoSharesTheStateOfItsNameAndReadsThePerfTrace) {
  kxtest::DeviceRoot root;
  kxhost::clearProperties();
  PlainFeature feature(info("FeatureTest"));
  EXPECT_EQ(feature.getFeatureName(), "FeatureTest");
  EXPECT_EQ(feature.info().samplesThreshold, 7u);
  EXPECT_FALSE(feature.isDisabled());
  EXPECT_FALSE(feature.perfTrace());
  FeatureState("FeatureTest").writeState("com.app", APP_STATE_LEARNT);
  EXPECT_EQ(feature.state().readState("com.app"), APP_STATE_LEARNT);

  kxhost::setProperty("vendor.debug.trace.perf", "true");
  EXPECT_TRUE(PlainFeature(info("FeatureTest")).perfTrace());
  kxhost::clearProperties();
}

TEST(Feature, BaseOperationsAnswerAsTheFrameworkDoes) {
  PlainFeature feature(info("FeatureTest"));
  std::string key = "k";
  featureData out;
  out.value = 5;
  EXPECT_EQ(feature.getData(key, out, 1), 0);
  EXPECT_EQ(out.value, -1);
  out.value = 5;
  EXPECT_EQ(feature.getData(key, out, 1, 2), 0);
  EXPECT_EQ(out.value, -1);
  EXPECT_EQ(feature.setData(key, {1, 2}), 0);

  std::atomic<bool> cancel{false};
  feature.runAsyncIdle(cancel);  // no algorithm: nothing to run
  auto* algo = new RecordingAlgo();
  feature.setAlgo(algo);
  feature.runAsyncIdle(cancel);
  EXPECT_EQ(algo->seenCancel, &cancel);
}

}  // namespace
