#include "PluginHost.h"

#include <dlfcn.h>

#include "Feature.h"
#include "FeatureInfo.h"
#include "FetchPreferredApps.h"
#include "MemPerfd.h"
#include "Registry.h"
#include "WallClock.h"
#include "kxhost/LearningScheduler.h"
#include "kxhost/MeteringThread.h"

namespace vsim {
namespace {

// The configuration the framework gives the feature: one "Memory" meter of
// the two launch figures, sampled on launch completion.
FeatureInfo featureInfo(const PluginHost::Options& o) {
  FeatureInfo info;
  info.name = o.featureName;
  info.samplesThreshold = o.samplesThreshold;
  MeterInfo memory;
  memory.name = "Memory";
  memory.triggers = {{0x1043, 0}, {0x1081, 101}, {0x1081, 102}};
  memory.fields = {"ion_kgsl", "rss_swap"};
  memory.samplesPerMeter = 1;
  info.meterInfo.push_back(memory);
  info.hintTypes = {{0x1042, {}}, {0x1043, {}}, {0x1081, {2, 101, 102}}, {0x1092, {}}, {0x1093, {}}};
  return info;
}

}  // namespace

PluginHost::PluginHost(const Options& options) : mOptions(options), mState(options.featureName) {
  mLibrary = dlopen(options.pluginPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (mLibrary == nullptr) {
    const char* err = dlerror();
    throw HostError(std::string("cannot load the plug-in: ") + (err != nullptr ? err : options.pluginPath));
  }
  const auto factory = RegistryBase<Feature, FeatureInfo>::lookup(options.featureName);
  if (factory == nullptr)
    throw HostError(options.pluginPath + " registers no feature named '" + options.featureName + "'");
  mFeature = factory(featureInfo(options));
  if (mFeature == nullptr) throw HostError("the factory of '" + options.featureName + "' returned no feature");
  // Run on the simulator's thread at the scenario's idle times, not on the
  // scheduler's own timer: simulated time is not wall time.
  mScheduler = std::make_unique<kxhost::LearningScheduler>(mFeature, options.learntRowExists);
}

PluginHost::~PluginHost() {
  mScheduler.reset();
  delete mFeature;
}

bool PluginHost::disabled() const { return mFeature->isDisabled(); }

void PluginHost::trigger(const AsyncTriggerPayload& payload) {
  // The framework keeps its launch history, whatever its features do: the
  // favourites it predicts come from it.
  if (payload.hintID == 0x1081 && payload.hintType == 2) FetchPreferredApps::noteLaunch(payload.appName, kxhost::wallTime());
  // The framework never drives a feature that disabled itself.
  if (!disabled()) mFeature->runAsync(payload);
}

void PluginHost::hint(const AsyncTriggerPayload& payload) {
  MemPerfd* hub = MemPerfd::getInstance();
  hub->sendHint(payload);
  hub->drain();
}

void PluginHost::waitForMetering() { kxhost::MeteringThread::instance().drain(); }

void PluginHost::learn() { mScheduler->runOnce(); }

AppState PluginHost::state(const std::string& name) { return mState.readState(name); }

}  // namespace vsim
