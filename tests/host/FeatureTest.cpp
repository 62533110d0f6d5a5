#include "Feature.h"

#include <gtest/gtest.h>

#include <tuple>

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
  EXPECT_EQ(std::make_tuple(feature.getFeatureName(), feature.info().samplesThreshold, feature.isDisabled(),
                            feature.perfTrace()),
            std::make_tuple(std::string("FeatureTest"), 7u, false, false));
  FeatureState("FeatureTest").writeState("com.app", APP_STATE_LEARNT);
  EXPECT_EQ(feature.state().readState("com.app"), APP_STATE_LEARNT);

  kxhost::setProperty("vendor.debug.trace.perf", "true");
  EXPECT_TRUE(PlainFeature(info("FeatureTest")).perfTrace());
  kxhost::clearProperties();
}

TEST(Feature, BaseOperationsAnswerAsTheFrameworkDoes) {
  PlainFeature feature(info("FeatureTest"));
  std::string key = "k";
  featureData one{5, {}}, two{5, {}};
  EXPECT_EQ(std::make_tuple(feature.getData(key, one, 1), feature.getData(key, two, 1, 2),
                            feature.setData(key, {1, 2})),
            std::make_tuple(0, 0, 0));
  EXPECT_EQ(std::make_pair(one.value, two.value), std::make_pair(-1, -1));

  std::atomic<bool> cancel{false};
  feature.runAsyncIdle(cancel);  // no algorithm: nothing to run
  auto* algo = new RecordingAlgo();
  feature.setAlgo(algo);
  feature.runAsyncIdle(cancel);
  EXPECT_EQ(algo->seenCancel, &cancel);
}

}  // namespace
