// The plug-in as the host loads it: dlopen registers the factory under
// "Vorak", and the factory builds the feature behind a Feature*.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "Feature.h"
#include "FsRoot.h"
#include "Properties.h"
#include "Registry.h"
#include "support/TempDir.h"

namespace {

using Registry_ = RegistryBase<Feature, FeatureInfo>;

TEST(VorakPlugin, LoadingRegistersTheFactory) {
  ASSERT_EQ(Registry_::lookup("Vorak"), nullptr);
  void* handle = dlopen(VORAK_PLUGIN_PATH, RTLD_NOW | RTLD_GLOBAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  const auto factory = Registry_::lookup("Vorak");
  ASSERT_NE(factory, nullptr);

  // Turned off by property: the factory still hands back the object.
  kxtest::TempDir root;
  kxhost::setFsRoot(root.path());
  kxhost::setProperty("ro.vendor.perf.enable.vorak", "false");
  FeatureInfo info;
  info.name = "Vorak";
  std::unique_ptr<Feature> feature(factory(info));
  ASSERT_NE(feature, nullptr);
  EXPECT_EQ(feature->getFeatureName(), "Vorak");
  EXPECT_TRUE(feature->isDisabled());
  feature.reset();
  kxhost::clearProperties();
  kxhost::setFsRoot("");
  // The library stays loaded, as in the host: its registration is process-wide.
}

}  // namespace
