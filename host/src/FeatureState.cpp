// Per-name learning state. The states of a feature live in one store per
// feature name, kept for the life of the process, so every handle built from
// the same name (the feature's own, its components', the host's) agrees.
// Each store keeps its states in the table "AppState" of the file
// "<feature>AppState.db" in the device's data directory: loaded on first use,
// written through on every change. A store whose file cannot be opened keeps
// its states in memory only.
#include "FeatureState.h"

#include <map>
#include <mutex>
#include <unordered_map>

#include "AndroidLog.h"
#include "kxdb/KxDatabase.h"

namespace kxhost {

class FeatureStateStore {
 public:
  explicit FeatureStateStore(std::string featureName) : mFeatureName(std::move(featureName)) {}

  AppState read(const std::string& name) {
    std::lock_guard<std::mutex> lock(mMutex);
    loadLocked();
    auto it = mStates.find(name);
    return it == mStates.end() ? APP_STATE_COLLECTING : it->second;
  }

  void write(const std::string& name, AppState state) {
    std::lock_guard<std::mutex> lock(mMutex);
    loadLocked();
    mStates[name] = state;
    if (mTable) persistLocked(name, state);
  }

  std::vector<std::string> names() {
    std::lock_guard<std::mutex> lock(mMutex);
    loadLocked();
    std::vector<std::string> out;
    out.reserve(mStates.size());
    for (const auto& entry : mStates) out.push_back(entry.first);
    return out;
  }

  // Closes the file and forgets the loaded states; the next use loads them
  // again, from the device root in effect then.
  void unload() {
    std::lock_guard<std::mutex> lock(mMutex);
    mTable.reset();
    mStates.clear();
    mLoaded = false;
  }

 private:
  using Table = KxDatabase<AppState>;

  void loadLocked() {
    if (mLoaded) return;
    mLoaded = true;
    mTable.reset(new Table(0, mFeatureName + "AppState.db", "AppState"));
    if (mTable->KxDatabaseInit() != KXDB_SUCCESS) {
      __android_log_print(ANDROID_LOG_ERROR, "kxhost", "FeatureState: %s() %d: states of %s kept in memory only",
                          __func__, __LINE__, mFeatureName.c_str());
      mTable.reset();
      return;
    }
    KxDBDataRowKey all;
    Table::vecT rows = mTable->readAllocateDR(all, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
    for (const auto* row : rows) mStates[row->appName] = row->blob;
    mTable->deallocateDR(rows);
  }

  // Updates the name's row in place, or adds it.
  void persistLocked(const std::string& name, AppState state) {
    KxDBDataRowKey key(name, 0);
    Table::vecT rows = mTable->readAllocateDR(key, 1, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
    if (rows.empty()) {
      rows = mTable->allocateDR(1);
      if (rows.empty()) return;
      rows[0]->appName = name;
    }
    rows[0]->blob = state;
    mTable->writeDeallocateDR(rows);
  }

  const std::string mFeatureName;
  // Guards every member below; the table is only used under it.
  std::mutex mMutex;
  bool mLoaded = false;
  std::unique_ptr<Table> mTable;  // null while unloaded or when the file cannot be opened
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
    if (!store) store = std::make_shared<FeatureStateStore>(featureName);
    return store;
  }

  void unloadAll() {
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto& entry : mStores) entry.second->unload();
  }

 private:
  // Guards mStores (the map, not the stores' contents).
  std::mutex mMutex;
  std::unordered_map<std::string, std::shared_ptr<FeatureStateStore>> mStores;
};

}  // namespace

void clearFeatureStates() { StoreDirectory::instance().unloadAll(); }

}  // namespace kxhost

FeatureState::FeatureState(const std::string& featureName)
    : mFeatureName(featureName), mStore(kxhost::StoreDirectory::instance().storeFor(featureName)) {}

FeatureState::~FeatureState() = default;
FeatureState::FeatureState(const FeatureState&) = default;
FeatureState& FeatureState::operator=(const FeatureState&) = default;

AppState FeatureState::readState(const std::string& appName) { return mStore->read(appName); }

void FeatureState::writeState(const std::string& appName, AppState state) { mStore->write(appName, state); }

std::vector<std::string> FeatureState::names() const { return mStore->names(); }
