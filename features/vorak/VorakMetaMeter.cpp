#include "VorakMetaMeter.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <unordered_set>

#include "DependentServices.h"
#include "Hidl.h"
#include "StatsProvider.h"
#include "VorakAppName.h"
#include "VorakLog.h"
#include "VorakLoggedName.h"
#include "VorakRowGuard.h"

namespace {

constexpr const char* kTag = "VorakMetaMeter";
constexpr int32_t kLaunchHint = 4225;  // 0x1081
constexpr const char* kMemoryMeter = "Memory";
constexpr const char* kIonKgsl = "ion_kgsl";
constexpr const char* kRssSwap = "rss_swap";

// A field's reading: -1 when the sample lacks the field, 0 when it has no value.
int64_t reading(const Field* field) {
  if (field == nullptr) return -1;
  if (field->getValueCount() < 1 || field->getValues().empty()) return 0;
  return field->getValues().front();
}

}  // namespace

VorakMetaMeter::VorakMetaMeter(const FeatureInfo& info, KxDatabase<_vorak_Meter_Data>* meterDb, FeatureState& state,
                               KxDatabase<_vorak_App_Service_In>* serviceInDb, std::mutex* samplesMutex)
    : MetaMeter(info, state), mVorakDb(meterDb), mAppServiceInDb(serviceInDb), mSamplesMutex(samplesMutex) {
  mLaunchPayload.hintType = -1;
  // One meter is configured; should there be several, the last one's count holds.
  for (const MeterInfo& meter : info.meterInfo) mVorakMeterSamples = static_cast<uint32_t>(meter.samplesPerMeter);
}

VorakMetaMeter::~VorakMetaMeter() {
  // The metering thread must be done with us before any member goes away.
  stopMetering();
}

bool VorakMetaMeter::validateAndSetMeters(std::vector<Meter*>& meters) {
  Meter* meter = meters.empty() ? nullptr : meters.front();
  if (meter == nullptr) {
    KXLOGE(kTag, "Found an unknown Meter type : %s ", "");
    return false;
  }
  if (meter->getName() != kMemoryMeter) {
    KXLOGE(kTag, "Found an unknown Meter type : %s ", meter->getName().c_str());
    return false;
  }
  mStartProcMmFields = meter->getFields();

  // Only a launch record names the application a sample is filed under;
  // the sampled trigger's own app is kept to check that they agree.
  std::vector<AsyncTriggerPayload> triggers;
  meter->getTriggerPayloads(triggers);
  mSampledApp = triggers.empty() ? std::nullopt : std::optional<std::string>(triggers.front().appName);
  if (!triggers.empty() && triggers.front().hintID == kLaunchHint) mLaunchPayload = triggers.front();
  return true;
}

bool VorakMetaMeter::isValidFieldList(std::vector<Field*>& fields) {
  if (fields.empty()) return false;
  bool haveIon = false;
  bool haveRss = false;
  for (Field* field : fields) {
    if (field == nullptr) {
      KXLOGE(kTag, "Found an unknown Field type : %s ", "");
      return false;
    }
    if (field->getName() == kIonKgsl) {
      haveIon = true;
    } else if (field->getName() == kRssSwap) {
      haveRss = true;
    } else {
      KXLOGE(kTag, "Found an unknown Field type : %s ", field->getName().c_str());
      return false;
    }
  }
  return haveIon && haveRss && fields.size() == 2;
}

Field* VorakMetaMeter::getMemoryField(std::vector<Field*>& fields, const char* name) {
  if (name == nullptr) return nullptr;
  for (Field* field : fields) {
    if (field != nullptr && field->getName() == name) return field;
  }
  return nullptr;
}

bool VorakMetaMeter::writeToDataBase(std::vector<Meter*> meters) {
  try {
    if (mVorakDb == nullptr) {
      KXLOGE(kTag, "writeToDataBase() end. Failed @ DBhandle mVorakDb");
      return false;
    }
    if (!validateAndSetMeters(meters)) {
      KXLOGE(kTag, "writeToDataBase() end. Failed @  validateAndSetMeters ");
      return false;
    }
    if (!isValidFieldList(mStartProcMmFields)) {
      KXLOGE(kTag, "writeToDataBase() end. Failed @  isValidFieldList - mStartProcMmFields");
      return false;
    }
    // Samples and service lists are filed under the launched app's name.
    // Deliberately, a name that cannot key its own rows (none before the
    // first launch; an empty key selects every row) gets neither, and the
    // call counts as rejected.
    std::string app = mLaunchPayload.appName;
    if (const char* problem = vorak::appNameProblem(app)) {
      KXLOGE(kTag, "writeToDataBase() end. Nothing recorded for the launched app \"%s\": %s",
             vorak::loggedName(app).c_str(), problem);
      return false;
    }
    // Deliberately stricter than crediting every sample to the last launch:
    // a sample taken for another app holds that app's figures, and filed
    // under the launched one it would skew its learnt need. It is dropped.
    if (mSampledApp && *mSampledApp != app) {
      KXLOGE(kTag, "Sample of app \"%s\" dropped: the launch recorded last is of \"%s\"",
             vorak::loggedName(*mSampledApp).c_str(), vorak::loggedName(app).c_str());
    } else if (!recordLaunchSample(app)) {
      KXLOGE(kTag, "writeToDataBase() end. Failed @  allocSize != mVorakMeterSamples  ");
    }
    // The services are recorded and sampled whatever became of the app's own sample.
    recordServices(app);
    return true;
  } catch (const std::exception& e) {
    KXLOGE(kTag, "Caught exception: %s in %s", e.what(), __func__);
  } catch (...) {
    KXLOGE(kTag, "Error in std::string operations in %s", __func__);
  }
  return false;
}

// False only when the configured number of rows could not be had.
bool VorakMetaMeter::recordLaunchSample(std::string& app) {
  VorakRowGuard<_vorak_Meter_Data> samples(mVorakDb, mVorakDb->allocateDR(mVorakMeterSamples));
  // No configured sample count means nothing can be recorded for the app.
  if (samples.rows().empty() || samples.rows().size() != mVorakMeterSamples) return false;
  // Only the first row carries the readings. Any further rows get the
  // no-value marker 0 in both figures: the store does not clear a fresh
  // row, and nothing of the heap may reach the table.
  for (auto* extra : samples.rows()) std::memset(&extra->blob, 0, sizeof(extra->blob));
  auto* row = samples.rows().front();
  row->appName = app;
  row->blob.ionKgsl = reading(getMemoryField(mStartProcMmFields, kIonKgsl));
  row->blob.rssSwap = reading(getMemoryField(mStartProcMmFields, kRssSwap));
  // Without resident memory the launch was not really observed: such a
  // sample would only drag the mean down.
  if (row->blob.rssSwap < 1) return true;
  writeSample(samples.rows());
  updateStateIfNeeded(app);
  return true;
}

// Stores the app's first service list and samples, by position, the live
// services that are still being learnt.
void VorakMetaMeter::recordServices(std::string& app) {
  std::vector<std::string> serviceNames = acceptedServices(app);
  if (serviceNames.empty()) return;
  writeToAppServiceInputDb(app, serviceNames);
  if (mAppServiceInDb == nullptr) return;

  hidl_vec<hidl_string> slotNames(kServiceSlots);
  {
    KxDBDataRowKey key(app, KXDB_INTCOL_UNSET);
    VorakRowGuard<_vorak_App_Service_In> stored(
        mAppServiceInDb, mAppServiceInDb->readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE));
    if (stored.rows().empty()) return;
    const auto& slots = stored.rows().front()->blob.serviceNames;
    for (size_t i = 0; i < kServiceSlots; ++i) {
      slotNames[i] = hidl_string(std::string(slots[i], strnlen(slots[i], kServiceSlotSize)));
    }
  }

  DependentServices services;
  hidl_vec<int> pids;
  services.getServicePIDs(slotNames, pids);
  std::unordered_set<int> livePids;
  for (int pid : pids) {
    if (pid != -1) livePids.insert(pid);
  }

  // Names and pids are deliberately paired by position: the names in the
  // order of the query above, the pids in the set's order. No pid is looked
  // up by name, and the walk ends with the shorter of the two.
  FeatureState serviceStates("Vorak");
  auto pid = livePids.begin();
  for (size_t i = 0; i < serviceNames.size() && pid != livePids.end(); ++i, ++pid) {
    std::string& service = serviceNames[i];
    AppState state = serviceStates.readState(service);
    if (state != APP_STATE_COLLECTING && state != APP_STATE_LEARNT) continue;
    if (*pid == mLaunchPayload.pid) continue;
    PIDStats stats = StatsProvider::getPIDStats(*pid);
    writeToInputDb(service, static_cast<long>(stats.gpuKB), static_cast<long>(stats.rssAnonSwapKB));
  }
}

// The app's services as the framework lists them, less the names that
// could not key their own rows: those are neither stored nor sampled. This
// includes names longer than a slot, deliberately refused rather than cut,
// since a cut name would be another service's key.
std::vector<std::string> VorakMetaMeter::acceptedServices(std::string& app) {
  std::vector<std::string> names;
  DependentServices().getServices(app, names);
  auto refused = [&app](const std::string& name) {
    const char* problem = vorak::appNameProblem(name);
    if (problem != nullptr)
      VORAK_LOGE_IN(kTag, "writeToDataBase", "Service \"%s\" of %s not recorded: %s",
                    vorak::loggedName(name).c_str(), app.c_str(), problem);
    return problem != nullptr;
  };
  names.erase(std::remove_if(names.begin(), names.end(), refused), names.end());
  return names;
}

// Writes sample rows under the samples lock, so that learning never sees a
// name's samples change between counting and deleting them.
void VorakMetaMeter::writeSample(KxDBDataTable<_vorak_Meter_Data>::vecT& rows) {
  std::unique_lock<std::mutex> lock;
  if (mSamplesMutex != nullptr) lock = std::unique_lock<std::mutex>(*mSamplesMutex);
  mVorakDb->writeDeallocateDR(rows);
}

bool VorakMetaMeter::writeToInputDb(std::string& name, long ionKgsl, long rssSwap) {
  if (mVorakDb == nullptr) return false;
  KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
  mVorakDb->getCountDR(key);

  VorakRowGuard<_vorak_Meter_Data> sample(mVorakDb, mVorakDb->allocateDR(1));
  if (sample.rows().empty()) {
    KXLOGE(kTag, "Could not allocate mVorakDb row");
    return false;
  }
  auto* row = sample.rows().front();
  row->appName = name;
  row->blob.ionKgsl = ionKgsl;
  row->blob.rssSwap = rssSwap;
  writeSample(sample.rows());
  updateStateIfNeeded(name);
  return true;
}

bool VorakMetaMeter::writeToAppServiceInputDb(std::string& app, std::vector<std::string> services) {
  // Names past the slots' number are dropped by convertToCharArray.
  if (mAppServiceInDb == nullptr) {
    KXLOGE(kTag, "Input database does not exist");
    return false;
  }
  char slots[kServiceSlots][kServiceSlotSize] = {};
  convertToCharArray(services, slots);

  // The first list recorded for an app is kept for good.
  KxDBDataRowKey key(app, KXDB_INTCOL_UNSET);
  if (mAppServiceInDb->getCountDR(key) > 0) return true;

  VorakRowGuard<_vorak_App_Service_In> fresh(mAppServiceInDb, mAppServiceInDb->allocateDR(1));
  if (fresh.rows().empty()) {
    KXLOGE(kTag, "Could not allocate AppServiceInput DB row");
    return false;
  }
  auto* row = fresh.rows().front();
  static_assert(sizeof(row->blob.serviceNames) == sizeof(slots), "service row layout");
  row->appName = app;
  std::memcpy(row->blob.serviceNames, slots, sizeof(slots));
  mAppServiceInDb->writeDeallocateDR(fresh.rows());
  return true;
}

void VorakMetaMeter::convertToCharArray(std::vector<std::string> names, char (*slots)[kServiceSlotSize]) {
  const size_t count = std::min(names.size(), kServiceSlots);
  for (size_t i = 0; i < count; ++i) {
    const size_t len = std::min(names[i].size(), kServiceSlotSize - 1);
    std::memcpy(slots[i], names[i].data(), len);
    slots[i][len] = '\0';
  }
}

void VorakMetaMeter::updateStateIfNeeded(std::string& name) {
  KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
  const int64_t count = mVorakDb->getCountDR(key);
  if (count < static_cast<int64_t>(mFeatureInfo->samplesThreshold)) return;
  switch (mFeatureState->readState(name)) {
    case APP_STATE_COLLECTING:
      mFeatureState->writeState(name, APP_STATE_LEARNING_DUE);
      break;
    case APP_STATE_LEARNT:
      mFeatureState->writeState(name, APP_STATE_RELEARN_DUE);
      break;
    default:
      break;
  }
}
