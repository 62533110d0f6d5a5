// The framework's side of the plug-in, as the simulator plays it: the shared
// library is loaded with dlopen, the feature is created through the class
// registry under its name, and from then on it is driven only through the
// framework's seams (runAsync, the hint hub, the metering thread, the idle
// learning run, the per-name state).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "AsyncTriggerPayload.h"
#include "FeatureState.h"

class Feature;
namespace kxhost {
class LearningScheduler;
}

namespace vsim {

class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class PluginHost {
 public:
  struct Options {
    std::string pluginPath;  // the plug-in's shared library
    std::string featureName = "Vorak";
    uint32_t samplesThreshold = 3;
    // Whether the feature holds a learnt row for a name: the learning
    // scheduler's proof that learning the name succeeded.
    std::function<bool(const std::string&)> learntRowExists;
  };

  // Loads the library and creates the feature; throws HostError when the
  // library cannot be loaded or registers no factory under the name. A
  // feature that disables itself while starting is kept: see disabled().
  explicit PluginHost(const Options& options);
  // Destroys the feature (its threads stop, it leaves the hint hub). The
  // library stays loaded: its static state may still be referenced at exit.
  ~PluginHost();
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;

  bool disabled() const;
  // A trigger, as the framework hands it to every feature.
  void trigger(const AsyncTriggerPayload& payload);
  // A perf hint through the hub; returns once the hub has delivered it.
  void hint(const AsyncTriggerPayload& payload);
  // Returns once the metering thread has recorded every sample asked for so far.
  void waitForMetering();
  // The device is idle: the learning scheduler's pass (a run when some name
  // is due, then names with a learnt row move on to learnt).
  void learn();
  AppState state(const std::string& name);

 private:
  Options mOptions;
  void* mLibrary = nullptr;
  Feature* mFeature = nullptr;
  std::unique_ptr<kxhost::LearningScheduler> mScheduler;
  FeatureState mState;
};

}  // namespace vsim
