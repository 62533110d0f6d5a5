// A device for one VorakFeature test: a private file-system root with the
// database directory, an injected MemTotal, the enable property set, and
// access to the feature's tables and trigger queue.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FsRoot.h"
#include "Properties.h"
#include "StatsProvider.h"
#include "Vorak.pb.h"
#include "VorakFeature.h"
#include "support/FakeStats.h"
#include "support/PutRows.h"
#include "support/TempDir.h"

class VorakFeatureTestPeer {
 public:
  static VorakFeature::UserDb* userDb(VorakFeature& f) { return f.mUserDb; }
  static VorakFeature::UserDb* startProcDb(VorakFeature& f) { return f.mStartProcDb; }
  static VorakFeature::UserDb* favPidDb(VorakFeature& f) { return f.mFavPidDb; }
  static KxDatabase<_vorak_Meter_Data>* meterDb(VorakFeature& f) { return f.mVorakDb; }
  static KxDatabase<_vorak_Favorite_Time_Slot_Data>* favTimeSlotDb(VorakFeature& f) { return f.mFavTimeSlotDb; }
  static KxDatabase<_vorak_App_Service_In>* serviceInDb(VorakFeature& f) { return f.mServiceInDb; }
  static KxDatabase<_vorak_App_Service_Out>* serviceOutDb(VorakFeature& f) { return f.mServiceOutDb; }
  static size_t queued(VorakFeature& f) { return f.mTriggerQ.size(); }
  // Waits until the worker has dealt with everything queued so far.
  static void drain(VorakFeature& f) { f.mTriggerQ.waitIdle(); }
  // Queues the destructor's stop item, for a test that runs the worker's
  // body itself.
  static void pushStop(VorakFeature& f) { f.mTriggerQ.push(PayloadInfo::stopItem()); }
  // Gives a feature stopped at a gate (no tables, components or worker) a
  // User table; the feature owns `db` from then on.
  static void setUserDb(VorakFeature& f, VorakFeature::UserDb* db) { f.mUserDb = db; }
  // The feature owns `meter` from then on.
  static void setMetaMeter(VorakFeature& f, MetaMeter* meter) {
    delete f.mMetaMeter;
    f.mMetaMeter = meter;
  }
};

namespace vorakdev {

constexpr uint64_t k4GB = 4194304;

// The statistics of a 4 GB device with `freeKB` free.
inline SysStats sysStats4GB(uint64_t freeKB) {
  SysStats s{};
  s.totalKB = 3900000;
  s.freeKB = freeKB;
  return s;
}

// An encoded model; `withWeight` false leaves its one entry incomplete.
inline std::string modelBytes(bool withWeight = true) {
  VorakModel model;
  model.set_bias(-0.5f);
  model.set_safeload(0.3f);
  VorakModel::Feature& entry = (*model.mutable_features())["FreeKB"];
  entry.set_min(0);
  entry.set_max(1048576);
  if (withWeight) entry.set_weight(-1);
  return model.SerializePartialAsString();
}

inline std::string modelPath(const std::string& memClass) { return "vendor/etc/kx/vorak/vorak_" + memClass + ".data"; }

class Device {
 public:
  // The device's root lies under `tempBase` when given.
  explicit Device(uint64_t memTotalKB = k4GB, const std::filesystem::path& tempBase = {}) : mDir(tempBase) {
    kxhost::setFsRoot(mDir.path());
    std::filesystem::create_directories(mDir.sub("data/vendor/kx"));
    kxhost::clearProperties();
    kxhost::setProperty("ro.vendor.perf.enable.vorak", "true");
    setMemTotal(memTotalKB);
    for (const char* memClass : {"2GB", "4GB", "6GB"}) writeModel(memClass, modelBytes());
  }
  ~Device() {
    kxhost::setStatsSource(nullptr);
    kxhost::clearProperties();
    kxhost::setFsRoot("");
  }

  void setMemTotal(uint64_t kb) {
    auto stats = std::make_shared<kxtest::FakeStats>();
    SysStats s{};
    s.totalKB = kb;
    stats->setSys(s);
    kxhost::setStatsSource(stats);
  }
  void writeModel(const std::string& memClass, const std::string& bytes) { mDir.write(modelPath(memClass), bytes); }
  void removeModels() { std::filesystem::remove_all(mDir.sub("vendor")); }
  const kxtest::TempDir& dir() const { return mDir; }

  std::unique_ptr<VorakFeature> create(const FeatureInfo& info = defaultInfo()) {
    return std::make_unique<VorakFeature>(info);
  }
  static FeatureInfo defaultInfo() {
    FeatureInfo info;
    info.name = "Vorak";
    return info;
  }

 private:
  kxtest::TempDir mDir;
};

// Rows of one app in a user-launched table, as (value) list.
inline std::vector<int> values(VorakFeature::UserDb* db, const std::string& app) {
  return kxtest::readRows(*db, KxDBDataRowKey(app, 0), [](const auto& row) { return row.blob.value; });
}

inline void addRow(VorakFeature::UserDb* db, const std::string& app, int value) {
  auto rows = db->allocateDR(1);
  rows[0]->appName = app;
  rows[0]->blob.value = value;
  db->writeDeallocateDR(rows);
}

inline AsyncTriggerPayload trigger(int id, int type, const std::string& app, int pid = 0) {
  AsyncTriggerPayload p;
  p.hintID = id;
  p.hintType = type;
  p.appName = app;
  p.pid = pid;
  return p;
}

}  // namespace vorakdev
