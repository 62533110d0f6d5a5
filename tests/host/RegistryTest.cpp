#include "Registry.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>

#include "Feature.h"
#include "kxhost/LogCapture.h"

namespace {

std::atomic<bool> gFailNextNothrowNew{false};

}  // namespace

// Replaces the process's nothrow allocation so the registry's map allocation
// can be made to fail; everything else allocates as usual.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (gFailNextNothrowNew.exchange(false)) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

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
  gFailNextNothrowNew = true;
  Registry<Feature, FeatureInfo, OtherFeature> registration("Vorak");
  gFailNextNothrowNew = false;

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
