#include "Feature.h"

#include "Properties.h"

Feature::Feature(const FeatureInfo& info)
    : mFeatureName(info.name),
      mFeatureInfo(info),
      mFeatureState(info.name),
      mPerfTrace(property_get_bool("vendor.debug.trace.perf", false)) {}

// The components belong to the subclass, which deletes them in its own
// destructor, in the order its design requires.
Feature::~Feature() = default;

void Feature::runAsync(AsyncTriggerPayload payload) {}

void Feature::runAsyncIdle(const std::atomic<bool>& cancel) {
  if (mAlgo != nullptr) mAlgo->runAlgo(cancel);
}

void Feature::runAsyncPeriodic(const std::atomic<bool>& cancel) {}

int Feature::getData(std::string& key, featureData& out, int arg) {
  out.value = -1;
  return 0;
}

int Feature::getData(std::string& key, featureData& out, int arg1, int arg2) {
  out.value = -1;
  return 0;
}

int Feature::setData(std::string& key, std::vector<int> values) { return 0; }
