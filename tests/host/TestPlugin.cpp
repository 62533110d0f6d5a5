// A minimal feature plug-in for the host's tests: registers "TestFeature" at
// load through the framework's Registry template, as a real plug-in does.
#include "Feature.h"
#include "Properties.h"
#include "Registry.h"

namespace {

class TestFeature : public Feature {
 public:
  explicit TestFeature(const FeatureInfo& info) : Feature(info) {
    // Lets tests see a feature that gives up while starting.
    mDisabled = property_get_bool("kxtest.feature.disable", false);
  }
};

Registry<Feature, FeatureInfo, TestFeature> gRegistration("TestFeature");

}  // namespace
