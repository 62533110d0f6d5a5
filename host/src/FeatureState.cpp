// Per-name learning state. The states of a feature live in one store per
// feature name, kept for the life of the process, so every handle built from
// the same name (the feature's own, its components', the host's) agrees.
#include "FeatureState.h"

#include <map>
#include <mutex>
#include <unordered_map>

namespace kxhost {

class FeatureStateStore {
 public:
  AppState read(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = mStates.find(name);
    return it == mStates.end() ? APP_STATE_COLLECTING : it->second;
  }

  void write(const std::string& name, AppState state) {
    std::lock_guard<std::mutex> lock(mMutex);
    mStates[name] = state;
  }

  std::vector<std::string> names() const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> out;
    out.reserve(mStates.size());
    for (const auto& entry : mStates) out.push_back(entry.first);
    return out;
  }

  void clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mStates.clear();
  }

 private:
  // Guards mStates.
  mutable std::mutex mMutex;
  std::map<std::string, AppState> mStates;
};

namespace {

class StoreDirectory {
 public:
  // Never destroyed: feature threads may still touch states at exit.
  static StoreDirectory& instance() {
    static StoreDirectory* directory = new StoreDirectory();
    return *directory;
  }

  std::shared_ptr<FeatureStateStore> storeFor(const std::string& featureName) {
    std::lock_guard<std::mutex> lock(mMutex);
    std::shared_ptr<FeatureStateStore>& store = mStores[featureName];
    if (!store) store = std::make_shared<FeatureStateStore>();
    return store;
  }

  void clearAll() {
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto& entry : mStores) entry.second->clear();
  }

 private:
  // Guards mStores (the map, not the stores' contents).
  std::mutex mMutex;
  std::unordered_map<std::string, std::shared_ptr<FeatureStateStore>> mStores;
};

}  // namespace

void clearFeatureStates() { StoreDirectory::instance().clearAll(); }

}  // namespace kxhost

FeatureState::FeatureState(const std::string& featureName)
    : mFeatureName(featureName), mStore(kxhost::StoreDirectory::instance().storeFor(featureName)) {}

FeatureState::~FeatureState() = default;
FeatureState::FeatureState(const FeatureState&) = default;
FeatureState& FeatureState::operator=(const FeatureState&) = default;

AppState FeatureState::readState(const std::string& appName) { return mStore->read(appName); }

void FeatureState::writeState(const std::string& appName, AppState state) { mStore->write(appName, state); }

std::vector<std::string> FeatureState::names() const { return mStore->names(); }
