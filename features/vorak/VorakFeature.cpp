#include "VorakFeature.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <exception>
#include <fstream>
#include <new>
#include <system_error>

#include "FsRoot.h"
#include "Properties.h"
#include "Registry.h"
#include "StatsProvider.h"
#include "Vorak.pb.h"
#include "VorakAction.h"
#include "VorakAlgo.h"
#include "VorakAppName.h"
#include "VorakLog.h"
#include "VorakLoggedName.h"
#include "VorakMetaMeter.h"
#include "VorakModelFile.h"
#include "VorakRowGuard.h"
#include "kxdb/KxLastError.h"
#include "kxdb/KxLog.h"

namespace {

constexpr const char* kModule = "VorakFeature";

#define VLOGE_IN(func, fmt, ...) VORAK_LOGE_IN(kModule, func, fmt, ##__VA_ARGS__)
#define VLOGW_IN(func, fmt, ...) VORAK_LOGW_IN(kModule, func, fmt, ##__VA_ARGS__)

constexpr const char* kCtor = "VorakFeature";
constexpr const char* kWorker = "dbOperations";

constexpr int32_t kHintPrepare = 0x1042;   // 4162
constexpr int32_t kHintMeter = 0x1043;     // 4163
constexpr int32_t kHintLaunch = 0x1081;    // 4225
constexpr int32_t kHintForget = 0x1092;    // 4242
constexpr int32_t kHintRemoved = 0x1093;   // 4243
constexpr int32_t kLaunchStarted = 2;
constexpr int32_t kLaunchDoneA = 101;
constexpr int32_t kLaunchDoneB = 102;

constexpr int32_t kTriggerQueueFlood = 50;
constexpr unsigned long kTableCapacity = 100;  // the store ignores it
constexpr char kTableName[] = "Vorak";

constexpr uint64_t kMinMemTotalKB = 1048576;  // 1 GiB
constexpr uint64_t kMaxMemTotalKB = 8388608;  // 8 GiB
// Device file of the model for a memory class; empty when none matches
// (exactly 1 GiB passes the range gate but has no model of its own).
std::string modelFileFor(uint64_t memTotalKB) {
  const char* suffix = vorak::modelSuffixFor(memTotalKB);
  return *suffix == '\0' ? std::string() : std::string(vorak::kModelPrefix) + suffix;
}

// strerror() may share a buffer between threads, and features are created
// on whichever host thread asks.
std::string errnoText() {
  char buffer[128];
  return strerror_r(errno, buffer, sizeof(buffer));
}

bool isLaunchCompletion(int32_t hintType) { return hintType == kLaunchDoneA || hintType == kLaunchDoneB; }

// The triggers that change an app's rows or state, which their name selects.
bool actsOnApp(int32_t hintID) {
  return hintID == kHintPrepare || hintID == kHintMeter || hintID == kHintLaunch || hintID == kHintForget ||
         hintID == kHintRemoved;
}

bool isWorkerTrigger(const AsyncTriggerPayload& p) {
  if (p.hintID == kHintPrepare || p.hintID == kHintRemoved) return true;
  return p.hintID == kHintLaunch && (p.hintType == kLaunchStarted || isLaunchCompletion(p.hintType));
}

// Launch and completion name the same application when either name contains
// the other: the two triggers may carry a package or one of its processes.
bool pairsWithLaunch(const std::string& pending, const std::string& completed) {
  return pending.find(completed) != std::string::npos || completed.find(pending) != std::string::npos;
}

template <typename T>
void deleteTable(KxDatabase<T>*& table) {
  delete table;
  table = nullptr;
}

// Why the last table operation on this thread failed: the worker's failure
// lines print it, since a failed store call leaves errno as it was.
thread_local std::string tTableError;

int tableFailure(std::string reason) {
  tTableError = std::move(reason);
  return -1;
}

// A failed store call, in the store's own words when it recorded them.
int storeFailure(const char* what) { return tableFailure(*kxdb::lastError() != '\0' ? kxdb::lastError() : what); }

using UserRows = VorakRowGuard<_vorak_User_Launched_Data>;

// Reads the app's rows; false when the store failed, so that a failed read
// is never taken for an app without rows.
bool readAppRows(VorakFeature::UserDb* db, KxDBDataRowKey& key, UserRows::Rows& rows) {
  kxdb::clearLastError();
  rows = db->readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  return *kxdb::lastError() == '\0';
}

// Hands the rows to the store and writes them: -1 unless they are committed.
int writeBack(VorakFeature::UserDb* db, UserRows& rows) {
  db->cacheRow(rows.rows());
  return db->KxDatabaseWriteCachedToDisk() == KXDB_SUCCESS ? 0 : storeFailure("write-back failed");
}

// Deletes the rows from the store: false unless the deletion went through,
// which the store shows by taking the rows.
bool deleteRows(VorakFeature::UserDb* db, UserRows& rows) {
  kxdb::clearLastError();
  db->deleteDeallocateDR(rows.rows());
  if (rows.rows().empty()) return true;
  storeFailure("deletion failed");
  return false;
}

int duplicated(const char* operation, const std::string& appName, const char* dbName) {
  VLOGE_IN(operation, "There is some problem with App = (%s) as it has > 1 entries in %s DB.", appName.c_str(),
           dbName);
  return tableFailure(std::string("more than one row of the app in ") + dbName + " DB");
}

}  // namespace

// ---------------------------------------------------------------------------
// Lifecycle

VorakFeature::VorakFeature(FeatureInfo info)
    : Feature(info), mTriggerQ("VorakTriggerQ", kTriggerQueueFlood) {
  float safeload{};  // read only once the gates have set it
  if (!passesEnableGate() || !passesModelGates(safeload)) {
    mDisabled = true;
    return;
  }
  const int ret = initializeAllDb();
  if (ret < 0) {
    KXLOGE(kModule, "Couldnt Initialize DBs properly. Disabling the %s Feature. ret = %d\n", mFeatureName.c_str(),
           ret);
    mDisabled = true;
    return;
  }
  readTraceSwitch();
  createComponents(safeload);
  startWorker();
  if (mTraceVorak) KXLOGE(kModule, "Successfully Created constructors and Enabled %s Feature.", mFeatureName.c_str());
}

// Components first (they borrow the tables), then the tables, then the
// worker. The worker may still hold items when the tables go: deleteTables()
// waits for the item in progress, and the items after it find no tables.
VorakFeature::~VorakFeature() {
  deleteComponents();
  deleteTables();
  stopWorker();
}

bool VorakFeature::passesEnableGate() {
  char value[PROPERTY_VALUE_MAX] = {};
  perf_get_prop("ro.vendor.perf.enable.vorak", value, "true");
  mVorakEnabled = std::strcmp(value, "true") == 0;
  return mVorakEnabled;
}

// The memory range gate, then the model of the device's memory class, which
// must open and parse; its safeload goes to the action.
bool VorakFeature::passesModelGates(float& safeload) {
  const uint64_t memTotal = StatsProvider::getSysStats().totalKB;
  if (memTotal < kMinMemTotalKB || memTotal > kMaxMemTotalKB) {
    VLOGW_IN(kCtor, "Device's MemTotal = %" PRIu64 ", is not supporting the Feature. Disabling the %s Feature.",
             memTotal, mFeatureName.c_str());
    return false;
  }
  return loadSafeload(modelFileFor(memTotal), safeload);
}

bool VorakFeature::loadSafeload(const std::string& modelFile, float& safeload) {
  GOOGLE_PROTOBUF_VERIFY_VERSION;
  std::ifstream in(kxhost::devicePath(modelFile), std::ios::in | std::ios::binary);
  if (!in.is_open()) {
    VLOGE_IN(kCtor, "Fatal! : Failed to open file %s. Disabling the %s Feature. Err = %s", modelFile.c_str(),
             mFeatureName.c_str(), errnoText().c_str());
    return false;
  }
  VorakModel model;
  if (!model.ParseFromIstream(&in)) {
    VLOGE_IN(kCtor, "Fatal! Failed to parse model from file: %s. Disabling the %s Feature. Err = %s",
             modelFile.c_str(), mFeatureName.c_str(), errnoText().c_str());
    return false;
  }
  safeload = model.safeload();
  return true;
}

void VorakFeature::readTraceSwitch() {
  char value[PROPERTY_VALUE_MAX] = {};
  if (property_get("vendor.debug.trace.VORAK", value, nullptr) >= 1 && value[0] == '1') mTraceVorak = true;
}

// Each component borrows the tables it needs; one that cannot be built is
// reported and the feature runs without it.
void VorakFeature::createComponents(float safeload) {
  const char* name = mFeatureName.c_str();

  if (mVorakDb != nullptr && mServiceInDb != nullptr)
    mMetaMeter =
        new (std::nothrow) VorakMetaMeter(mFeatureInfo, mVorakDb, mFeatureState, mServiceInDb, &mSamplesMutex);
  if (mMetaMeter == nullptr)
    VLOGE_IN(kCtor, "No MetaMeter for (%s : %p). Error in input DB Creation or ServiceIP DB Creation", name,
             static_cast<void*>(this));

  // Action: the kill action owns its output table and registers with the
  // hint hub itself.
  VorakAction* action = nullptr;
  if (mUserDb != nullptr && mFavPidDb != nullptr && mFavTimeSlotDb != nullptr && mServiceOutDb != nullptr) {
    action = new (std::nothrow)
        VorakAction(*this, safeload, mUserDb, mFavPidDb, mFavTimeSlotDb, mServiceOutDb, mStartProcDb);
    mAction = action;
  }
  if (mAction == nullptr)
    VLOGE_IN(kCtor, "No Action for (%s : %p). Error in some Action DB Creation", name, static_cast<void*>(this));

  // Algorithm: learns into the action's output table, so it needs the action.
  KxDatabase<_vorak_Feature_Action_Data>* actionDb = action != nullptr ? action->getActionOutputDb() : nullptr;
  if (actionDb != nullptr && mVorakDb != nullptr && mFavPidDb != nullptr && mFavTimeSlotDb != nullptr &&
      mServiceInDb != nullptr && mServiceOutDb != nullptr) {
    mAlgo = new (std::nothrow) VorakAlgo(*this, mServiceInDb, mServiceOutDb, mVorakDb, actionDb, mFavPidDb,
                                         mFavTimeSlotDb, mStartProcDb, mFeatureState);
  }
  if (mAlgo == nullptr)
    VLOGE_IN(kCtor, "No Algo for (%s : %p). Error in some Action/RAM DB Creation", name, static_cast<void*>(this));
}

void VorakFeature::startWorker() {
  try {
    mWorker = std::thread(&VorakFeature::dbOperations, this);
  } catch (const std::system_error& e) {
    // A constructor that throws gets no destructor: release what it built.
    deleteComponents();
    deleteTables();
    throw std::system_error(e.code(), "thread constructor failed");
  }
}

void VorakFeature::deleteComponents() {
  delete mMetaMeter;
  mMetaMeter = nullptr;
  delete mAlgo;
  mAlgo = nullptr;
  delete mAction;
  mAction = nullptr;
}

void VorakFeature::deleteTables() {
  std::lock_guard<std::mutex> lock(mWorkMutex);
  deleteTable(mVorakDb);
  deleteTable(mUserDb);
  deleteTable(mStartProcDb);
  deleteTable(mFavPidDb);
  deleteTable(mFavTimeSlotDb);
  deleteTable(mServiceInDb);
  deleteTable(mServiceOutDb);
}

// The worker sets mWorkerStarted when it begins to run, which may be after
// the destructor looks: a thread that exists gets the stop item all the same,
// or the join would never return. A stop item that meets a flooded queue is
// dropped with the flood; the second push then finds the queue empty.
void VorakFeature::stopWorker() {
  if (mWorkerStarted.load() || mWorker.joinable()) {
    try {
      if (!mTriggerQ.push(PayloadInfo::stopItem())) mTriggerQ.push(PayloadInfo::stopItem());
    } catch (...) {
    }
  }
  if (mWorker.joinable()) mWorker.join();
}

// ---------------------------------------------------------------------------
// Tables

template <typename T>
int VorakFeature::createTable(KxDatabase<T>*& table, const std::string& fileName) {
  if (table != nullptr) return 0;
  table = new (std::nothrow) KxDatabase<T>(kTableCapacity, fileName, kTableName);
  if (table == nullptr) return 0;  // tolerated here; the checks below or the components catch it
  return table->KxDatabaseInit();
}

int VorakFeature::initializeAllDb() {
  std::lock_guard<std::mutex> lock(mWorkMutex);
  const char* name = mFeatureName.c_str();
  auto open = [&](auto*& table, const std::string& fileName, const char* what) {
    const int rc = createTable(table, fileName);
    if (rc != 0) KXLOGE(kModule, "Error in DB initialization - %s  %d - Disabling %s Feature", what, rc, name);
    return rc == 0;
  };
  if (!open(mUserDb, "", "createMeterUserDataDb") || !open(mStartProcDb, "", "createMeterStartProcDataDb") ||
      !open(mFavPidDb, "", "createFavoriteDataDb") || !open(mFavTimeSlotDb, "", "createFavoriteDataDb") ||
      !open(mVorakDb, mFeatureName + ".db", "createMeterDataDb") ||
      !open(mServiceInDb, mFeatureName + "ServiceIP.db", "createAppServiceDbInput") ||
      !open(mServiceOutDb, mFeatureName + "ServiceOP.db", "createAppServiceDbOutput"))
    return -1;
  if (!mUserDb || !mStartProcDb || !mFavPidDb || !mFavTimeSlotDb || !mVorakDb) {
    KXLOGE(kModule, "Error in DB initialization - Disabling Vorak Feature");
    return -1;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Triggers

void VorakFeature::runAsync(AsyncTriggerPayload payload) {
  // One remembered launch, shared by every trigger: a completion pairs with
  // at most one launch. " " until a launch is seen and after each pairing.
  static std::string sPendingLaunchApp = " ";
  try {
    if (refusesAppName(payload)) return;
    if (isWorkerTrigger(payload)) mTriggerQ.push(PayloadInfo::fromTrigger(payload));
    if (mMetaMeter == nullptr) {
      KXLOGE(kModule, "No MetaMeter");
      return;
    }
    if (!needsLearning(payload)) return;
    if (payload.hintID == kHintMeter) {
      ++mMeterTriggerCount;
      mMetaMeter->handleAsync(payload);
      return;
    }
    if (payload.hintID != kHintLaunch) return;
    if (payload.hintType == kLaunchStarted) {
      sPendingLaunchApp = payload.appName;  // sampled when its launch completes
      return;
    }
    if (isLaunchCompletion(payload.hintType) && pairsWithLaunch(sPendingLaunchApp, payload.appName)) {
      mMeterTriggerCount = 0;
      sPendingLaunchApp = " ";
      mMetaMeter->handleAsync(payload);
    }
  } catch (const std::exception& e) {
    KXLOGE(kModule, "Caught exception: %s in %s", e.what(), __func__);
  }
}

// Deliberately stricter than passing every trigger on: a trigger that acts
// on an app whose name cannot be a key of the app's rows (an empty name
// selects every row of a table) is refused whole, before it is queued,
// sampled or made to forget anything. A name of blanks only is a key like
// any other and passes: a launch of " " leaves the pending-launch slot as
// it is with nothing pending, and its completion, which contains a blank,
// pairs with it all the same.
bool VorakFeature::refusesAppName(const AsyncTriggerPayload& payload) {
  if (!actsOnApp(payload.hintID)) return false;
  const char* problem = vorak::appNameProblem(payload.appName);
  if (problem == nullptr) return false;
  VLOGW_IN("runAsync", "Refused hint %d type %d for app \"%s\": %s", payload.hintID, payload.hintType,
           vorak::loggedName(payload.appName).c_str(), problem);
  return true;
}

bool VorakFeature::needsLearning(AsyncTriggerPayload payload) {
  const AppState state = mFeatureState.readState(payload.appName);
  if (payload.hintID != kHintForget) return state == APP_STATE_COLLECTING || state == APP_STATE_LEARNT;
  // A 4242 is never a sample: it discards what was collected for the app
  // so far, or takes an app that was due for learning back to collecting.
  if (state == APP_STATE_COLLECTING) {
    forgetMeterSamples(payload.appName);
  } else if (state == APP_STATE_LEARNING_DUE) {
    mFeatureState.writeState(payload.appName, APP_STATE_COLLECTING);
  }
  return false;
}

void VorakFeature::forgetMeterSamples(const std::string& appName) {
  if (mVorakDb == nullptr) return;
  std::lock_guard<std::mutex> samplesLock(mSamplesMutex);
  KxDBDataRowKey key(appName, KXDB_INTCOL_UNSET);
  VorakRowGuard<_vorak_Meter_Data> rows(mVorakDb, mVorakDb->readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE));
  if (!rows.rows().empty()) mVorakDb->deleteAllDR(key);
}

// ---------------------------------------------------------------------------
// Worker

void VorakFeature::dbOperations() {
  mWorkerStarted.store(true);
  for (;;) {
    PayloadInfo item = mTriggerQ.pop();
    if (item.isStop) {
      mTriggerQ.taskDone();
      return;
    }
    {
      std::lock_guard<std::mutex> lock(mWorkMutex);
      try {
        applyToUserTables(item.payload);
      } catch (const std::exception& e) {
        KXLOGE(kModule, "Caught exception: %s in %s", e.what(), __func__);
      }
    }
    mTriggerQ.taskDone();
  }
}

// One queued trigger against the user tables; a failed step is reported
// with the reason its operation recorded, and the next step still runs.
// Caller holds mWorkMutex. Items that outlive the tables (the feature is
// being destroyed) have nothing left to update and are dropped unreported;
// the worker runs only with every table, and they go together.
void VorakFeature::applyToUserTables(AsyncTriggerPayload& t) {
  if (mUserDb == nullptr) return;
  if (t.hintID == kHintPrepare) {
    if (updatePIDInDB(mUserDb, t.appName, t.pid, "User") < 0)
      VLOGE_IN(kWorker, "Couldnt Update PID in User DB. Err = %s", tTableError.c_str());
  } else if (t.hintID == kHintLaunch && isLaunchCompletion(t.hintType)) {
    if (updateFavDB(mFavPidDb, t.appName, t.pid, "FavoritePID") < 0)
      VLOGE_IN(kWorker, "Couldnt Update PID in Fav PID DB. Err = %s", tTableError.c_str());
    if (updatePIDInDB(mStartProcDb, t.appName, t.pid, "StartProc") < 0)
      VLOGE_IN(kWorker, "Couldnt Update PID in StartProc DB. Err = %s", tTableError.c_str());
  } else if (t.hintID == kHintRemoved) {
    if (updateFavDB(mFavPidDb, t.appName, -1, "FavoritePID") < 0)
      VLOGE_IN(kWorker, "Couldnt update favoriteDb. Err = %s", tTableError.c_str());
    if (deleteAppFromDB(mUserDb, t.appName, "User") < 0)
      VLOGE_IN(kWorker, "Couldnt deleteApp from User DB. Err = %s", tTableError.c_str());
    if (deleteAppFromDB(mStartProcDb, t.appName, "StartProc") < 0)
      VLOGE_IN(kWorker, "Couldnt deleteApp from Start Proc DB. Err = %s", tTableError.c_str());
  }
}

// Creates the app's row or changes its pid; duplicates are reported and left.
int VorakFeature::updatePIDInDB(UserDb* db, std::string& appName, int pid, const char* dbName) {
  if (db == nullptr || dbName == nullptr) return tableFailure("no table");
  KxDBDataRowKey key(appName, KXDB_INTCOL_UNSET);
  UserRows rows(db, {});
  if (!readAppRows(db, key, rows.rows())) return storeFailure("read failed");
  if (rows.rows().size() > 1) return duplicated(__func__, appName, dbName);
  if (rows.rows().empty()) {
    rows.rows() = db->allocateDR(1);
    if (rows.rows().empty()) return tableFailure("no row could be allocated");
    rows.rows()[0]->appName = appName;
  } else if (rows.rows()[0]->blob.value == pid) {
    return 0;
  }
  rows.rows()[0]->blob.value = pid;
  return writeBack(db, rows);
}

// Sets the pid of an app that has a row; duplicates are reported and removed.
int VorakFeature::updateFavDB(UserDb* db, std::string& appName, int pid, const char* dbName) {
  if (db == nullptr || dbName == nullptr) return tableFailure("no table");
  KxDBDataRowKey key(appName, KXDB_INTCOL_UNSET);
  UserRows rows(db, {});
  if (!readAppRows(db, key, rows.rows())) return storeFailure("read failed");
  if (rows.rows().empty()) return 0;
  if (rows.rows().size() > 1) {
    const int rc = duplicated(__func__, appName, dbName);
    return deleteRows(db, rows) ? rc : -1;
  }
  rows.rows()[0]->blob.value = pid;
  return writeBack(db, rows);
}

// Removes the app's row; duplicates are reported and removed as well.
int VorakFeature::deleteAppFromDB(UserDb* db, std::string& appName, const char* dbName) {
  if (db == nullptr || dbName == nullptr) return tableFailure("no table");
  KxDBDataRowKey key(appName, KXDB_INTCOL_UNSET);
  UserRows rows(db, {});
  if (!readAppRows(db, key, rows.rows())) return storeFailure("read failed");
  if (rows.rows().empty()) return 0;
  const int rc = rows.rows().size() > 1 ? duplicated(__func__, appName, dbName) : 0;
  return deleteRows(db, rows) ? rc : -1;
}

// ---------------------------------------------------------------------------
// Registration with the host's class registry when the library is loaded.

static Registry<Feature, FeatureInfo, VorakFeature> sVorakRegistration("Vorak");
