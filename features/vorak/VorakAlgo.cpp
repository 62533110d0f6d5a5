#include "VorakAlgo.h"

#include <cstdint>
#include <cstring>
#include <exception>
#include <mutex>
#include <vector>

#include "FetchPreferredApps.h"
#include "VorakFeature.h"
#include "VorakLog.h"
#include "VorakRowGuard.h"
#include "kxdb/KxLastError.h"

namespace {

constexpr const char* kTag = "VorakAlgo";

template <typename T>
std::vector<std::string> namesOf(KxDatabase<T>* db) {
  return db->getTxtColUniqList(KXDB_TXTCOL_APPNAME, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
}

}  // namespace

VorakAlgo::VorakAlgo(VorakFeature& feature, KxDatabase<_vorak_App_Service_In>* serviceIn,
                     KxDatabase<_vorak_App_Service_Out>* serviceOut, KxDatabase<_vorak_Meter_Data>* meter,
                     KxDatabase<_vorak_Feature_Action_Data>* action,
                     KxDatabase<_vorak_User_Launched_Data>* userLaunched,
                     KxDatabase<_vorak_Favorite_Time_Slot_Data>* favTimeSlot,
                     KxDatabase<_vorak_User_Launched_Data>* userLaunched2, FeatureState& state)
    : mFeatureState(state),
      mMeterDb(meter),
      mActionDb(action),
      mUserLaunchedDb(userLaunched),
      mUserLaunchedDb2(userLaunched2),
      mFavTimeSlotDb(favTimeSlot),
      mAppServiceInDb(serviceIn),
      mAppServiceOutDb(serviceOut),
      mFeature(feature) {}

VorakAlgo::~VorakAlgo() = default;

bool VorakAlgo::traceOn() const { return mFeature.isTraceVorak(); }

void VorakAlgo::runAlgo(const std::atomic<bool>& cancel) {
  try {
    // Favourites and service lists are cheap and always completed: the
    // cancellation flag only ends the per-name loop.
    populateFavoriteApps();
    populateAppServiceOutputDb();
    if (traceOn()) KXLOGE(kTag, "runAlgo called \n");
    printFsm();

    bool cancelled = false;
    for (std::string& name : namesOf(mMeterDb)) {
      AppState state = mFeatureState.readState(name);
      if (state == APP_STATE_LEARNING_DUE || state == APP_STATE_RELEARN_DUE) learnPerApp(name);
      if (cancel.load()) {
        cancelled = true;
        break;
      }
      printDB();
    }
    if (!cancelled) {
      printFsm();
      printDB();
      printActionDB();
    }
    if (traceOn()) KXLOGE(kTag, "VorakAlgo::runAlgo finished");
  } catch (const std::exception& e) {
    KXLOGE(kTag, "Caught exception: %s in %s", e.what(), __func__);
  } catch (...) {
    KXLOGE(kTag, "Error in std::string operations in %s", __func__);
  }
}

void VorakAlgo::populateFavoriteApps() {
  FetchPreferredApps preferred;
  preferred.populateFavoriteApps(mUserLaunchedDb, mUserLaunchedDb2, mFavTimeSlotDb);
}

// The input rows are looked at, not kept: each is read as a view of
// readAllocateDR's query instead of an allocated row, and only a list still
// missing from the output is copied.
bool VorakAlgo::populateAppServiceOutputDb() {
  KxDBDataRowKey all("", KXDB_INTCOL_UNSET);
  mAppServiceInDb->readEachDR(all, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE, [&](KxDBDataRowView<_vorak_App_Service_In>& input) {
    // An output row is made once per application and never refreshed: the
    // input row keeps the first list anyway.
    KxDBDataRowKey key(std::string(input.appName()), KXDB_INTCOL_UNSET);
    if (mAppServiceOutDb->getCountDR(key) >= 1) return;

    VorakRowGuard<_vorak_App_Service_Out> output(mAppServiceOutDb, mAppServiceOutDb->allocateDR(1));
    if (output.rows().empty()) {
      VORAK_LOGE_IN(kTag, "populateAppServiceOutputDb", "Could not allocate AppServiceOutput DB row");
      return;
    }
    auto* row = output.rows().front();
    static_assert(sizeof(row->blob.serviceNames) == sizeof(input.blob().serviceNames), "service row layout");
    std::memcpy(row->blob.serviceNames, input.blob().serviceNames, sizeof(row->blob.serviceNames));
    row->appName = key.appName;
    mAppServiceOutDb->writeDeallocateDR(output.rows());
  });
  return false;
}

bool VorakAlgo::learnPerApp(std::string& name) {
  // Only a first learning is done here; names due again (3) are passed
  // over and keep their samples.
  if (mFeatureState.readState(name) != APP_STATE_LEARNING_DUE) {
    mFeatureState.readState(name);
    return true;
  }

  // The metering thread adds samples while learning runs: from counting to
  // deleting, the name's samples must stay the ones averaged.
  std::lock_guard<std::mutex> samplesLock(mFeature.samplesMutex());
  KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
  const int64_t count = mMeterDb->getCountDR(key);
  if (count < 1) return true;

  // Summed wider than the samples: a sum of 64-bit readings can leave the
  // 64-bit range, while their mean cannot. Where the 64-bit sum fits, the
  // mean is the same as with 64-bit sums.
  __int128 ionKgslSum = 0;
  __int128 rssSwapSum = 0;
  // The -1 and 0 markers of missing readings are summed like any value.
  // Read as views instead of allocated rows (readAllocateDR's query, rows
  // only summed): a departure that saves a heap object per sample.
  mMeterDb->readEachDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE, [&](KxDBDataRowView<_vorak_Meter_Data>& row) {
    ionKgslSum += row.blob().ionKgsl;
    rssSwapSum += row.blob().rssSwap;
  });
  // Divided by the stored count, also when a read is capped below it.
  if (!writeToActionDataBase(name, static_cast<long>(ionKgslSum / count), static_cast<long>(rssSwapSum / count)))
    return false;  // the samples stay for another try
  mMeterDb->deleteAllDR(key);
  return true;
}

// Only a committed row counts as stored: the caller deletes the samples it
// was learnt from. A row whose write-back failed stays in the table's cache
// for the next write-back, which is why rows still pending are written
// before the name's rows are read: a cached row is invisible to the read,
// and a retry would otherwise add a second row for the name.
bool VorakAlgo::writeToActionDataBase(std::string& name, long ionKgsl, long rssSwap) {
  if (!writePending(name)) return false;
  KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
  VorakRowGuard<_vorak_Feature_Action_Data> learnt(
      mActionDb, mActionDb->readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE));
  auto& rows = learnt.rows();

  if (rows.empty()) {
    VorakRowGuard<_vorak_Feature_Action_Data> fresh(mActionDb, mActionDb->allocateDR(1));
    if (fresh.rows().size() != 1 || fresh.rows().front() == nullptr) {
      fresh.release();
      mFeatureState.writeState(name, APP_STATE_LEARN_FAILED);
      // Read back, so that the line shows what the framework really holds.
      KXLOGE(kTag, "could not write for the app %s hence setting state to %d", name.c_str(),
             static_cast<int>(mFeatureState.readState(name)));
      return false;
    }
    auto* row = fresh.rows().front();
    row->appName = name;
    row->blob.ionKgsl = ionKgsl;
    row->blob.rssSwap = rssSwap;
    mActionDb->cacheRow(fresh.rows());
    return writePending(name);
  }

  if (rows.size() == 1 && rows.front() != nullptr) {
    rows.front()->blob.ionKgsl = ionKgsl;
    rows.front()->blob.rssSwap = rssSwap;
    mActionDb->cacheRow(rows);  // an update by rowid
    return writePending(name);
  }

  // Which of several rows would be right is unknown: leave them all as they are.
  learnt.release();
  mFeatureState.writeState(name, APP_STATE_LEARN_FAILED);
  KXLOGE(kTag, "could not update database as multiple entries for an %s present hence setting state to %d \n",
         name.c_str(), static_cast<int>(mFeatureState.readState(name)));
  return false;
}

// Writes the rows cached in the learnt table. A failure is transient (a lock
// held elsewhere, a full disk): the name keeps its state and its samples.
// With nothing cached there is nothing to write, and no transaction is
// begun for it.
bool VorakAlgo::writePending(const std::string& name) {
  if (!mActionDb->hasCachedRows()) return true;
  if (mActionDb->KxDatabaseWriteCachedToDisk() == KXDB_SUCCESS) return true;
  const char* reason = *kxdb::lastError() != '\0' ? kxdb::lastError() : "write-back failed";
  VORAK_LOGE_IN(kTag, "writeToActionDataBase", "could not store the learnt row of %s: %s", name.c_str(), reason);
  return false;
}

// The dumps read what they show whether or not it is shown; with the trace
// switch on, each line goes to the debug log.
void VorakAlgo::printFsm() {
  for (const std::string& name : namesOf(mMeterDb)) dumpState("printFsm", name);
}

void VorakAlgo::dumpState(const char* dump, const std::string& name) {
  const AppState state = mFeatureState.readState(name);
  if (traceOn()) KXLOG(ANDROID_LOG_DEBUG, kTag, "%s: %s state %d", dump, name.c_str(), static_cast<int>(state));
}

// The walk reads every name's samples as views, readAllocateDR's query
// without allocating and freeing the rows: it runs once per learnt name
// over the whole table, and keeps nothing.
void VorakAlgo::printDB() {
  for (const std::string& name : namesOf(mMeterDb)) {
    KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
    const size_t rows =
        mMeterDb->readEachDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE, [](KxDBDataRowView<_vorak_Meter_Data>&) {});
    if (traceOn()) KXLOG(ANDROID_LOG_DEBUG, kTag, "printDB: %s %zu samples", name.c_str(), rows);
  }
}

void VorakAlgo::printActionDB() {
  for (const std::string& name : namesOf(mActionDb)) dumpState("printActionDB", name);
}
