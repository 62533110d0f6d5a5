#include "Registry.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "Feature.h"
#include "kxhost/LogCapture.h"
#include "support/FailingAllocation.h"

namespace {

using Reg = RegistryBase<Feature, FeatureInfo>;

class OtherFeature : public Feature {
 public:
  explicit OtherFeature(const FeatureInfo& info) : Feature(info) {}
};

// Loading, listing and creating are the host tool's test; here, a second
// registration under a name keeps the first factory.
TEST(Registry, ASecondRegistrationUnderANameKeepsTheFirstFactory) {
  ASSERT_NE(dlopen(KX_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL), nullptr) << dlerror();
  Reg::Factory factory = Reg::lookup("TestFeature");
  ASSERT_NE(factory, nullptr);
  EXPECT_EQ(Reg::lookup("NoSuchFeature"), nullptr);
  Registry<Feature, FeatureInfo, OtherFeature> again("TestFeature");
  EXPECT_EQ(Reg::lookup("TestFeature"), factory);
}

TEST(Registry, MapAllocationFailureLogsAndRegistersNothing) {
  Reg::ClassMap* saved;
  {
    std::lock_guard<std::mutex> lock(Reg::mMutex);
    saved = Reg::classList;
    Reg::classList = nullptr;
  }
  kxhost::LogCapture log;
  kxtest::NothrowFailure mapRefused(1, 1);
  Registry<Feature, FeatureInfo, OtherFeature> registration("Vorak");

  EXPECT_TRUE(Reg::names().empty());
  EXPECT_EQ(Reg::lookup("Vorak"), nullptr);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].prio, ANDROID_LOG_ERROR);
  EXPECT_EQ(lines[0].tag, "FeatureRegistry");
  EXPECT_EQ(lines[0].msg, "RegistryBase: Registry() 97: getMap() returned nullptr, Class Vorak not registered");

  std::lock_guard<std::mutex> lock(Reg::mMutex);
  Reg::classList = saved;
}

}  // namespace
