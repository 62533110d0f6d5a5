// Per-name learning state kept by the framework for each feature.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// The framework's learning state of one application or service name.
enum AppState : int32_t {
  APP_STATE_COLLECTING = 0,     // collecting samples
  APP_STATE_LEARNING_DUE = 1,   // enough samples, learning due
  APP_STATE_LEARNT = 2,         // learnt (set by the framework)
  APP_STATE_RELEARN_DUE = 3,    // enough new samples after learning
  APP_STATE_LEARN_FAILED = 99,  // learnt result could not be stored
};

namespace kxhost {
class FeatureStateStore;

// Closes every feature's state file and forgets what was loaded from it;
// the next use loads the states again from the device root in effect then
// (test fixtures, simulator runs). Existing handles stay valid.
void clearFeatureStates();
}  // namespace kxhost

// A handle on the states of one feature. Every handle constructed with the
// same feature name sees the same states; handles are cheap and thread-safe.
// The states persist in "/data/vendor/kx/<feature>AppState.db" (through
// kxhost::devicePath), loaded on first use and written through.
class FeatureState {
 public:
  explicit FeatureState(const std::string& featureName);
  ~FeatureState();
  FeatureState(const FeatureState&);
  FeatureState& operator=(const FeatureState&);

  // State of `appName`; APP_STATE_COLLECTING for a name never written.
  AppState readState(const std::string& appName);
  void writeState(const std::string& appName, AppState state);
  // Every name with a written state, sorted.
  std::vector<std::string> names() const;

  const std::string& featureName() const { return mFeatureName; }

 private:
  std::string mFeatureName;
  std::shared_ptr<kxhost::FeatureStateStore> mStore;
};
