// A device for one VorakFeature test: a private file-system root with the
// database directory, an injected MemTotal, the enable property set, and
// access to the feature's tables and trigger queue.
#pragma once

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "FsRoot.h"
#include "Properties.h"
#include "StatsProvider.h"
#include "Vorak.pb.h"
#include "VorakAction.h"
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
  static void setTrace(VorakFeature& f, bool on) { f.mTraceVorak = on; }
  // Waits until the worker has dealt with everything queued so far.
  static void drain(VorakFeature& f) { f.mTriggerQ.waitIdle(); }
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

struct ModelFeature {
  std::string name;
  float min, max, weight;  // a NaN weight leaves the entry incomplete
};

inline std::string modelBytes(float bias = -0.5f, float safeload = 0.3f,
                              const std::vector<ModelFeature>& features = {{"FreeKB", 0, 1048576, -1}}) {
  VorakModel model;
  model.set_bias(bias);
  model.set_safeload(safeload);
  for (const ModelFeature& f : features) {
    VorakModel::Feature& entry = (*model.mutable_features())[f.name];
    entry.set_min(f.min);
    entry.set_max(f.max);
    if (!std::isnan(f.weight)) entry.set_weight(f.weight);
  }
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
    auto stats = std::make_shared<kxtest::FakeStats>();
    SysStats s{};
    s.totalKB = memTotalKB;
    stats->setSys(s);
    kxhost::setStatsSource(stats);
    for (const char* memClass : {"2GB", "4GB", "6GB"}) writeModel(memClass, modelBytes());
  }
  ~Device() {
    kxhost::setStatsSource(nullptr);
    kxhost::clearProperties();
    kxhost::setFsRoot("");
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
  kxtest::putRows(*db, app, 1, [&](auto& b) { b.value = value; });
}

// A kill the action reported in `msg`, as "<list>:<pid>:<KB>" with the list
// "bg", "Fav" or "User"; empty for any other line.
inline std::string killOf(const std::string& msg) {
  int pid = 0;
  long kb = 0;
  char list[8] = "bg";
  const char* at = std::strstr(msg.c_str(), "Killed ");
  if (at == nullptr || (std::sscanf(at, "Killed PID = %d, to Free Memory = %ld KB", &pid, &kb) != 2 &&
                        std::sscanf(at, "Killed %7s PID = %d, to Free Memory = %ld KB", list, &pid, &kb) != 3))
    return "";
  return std::string(list) + ":" + std::to_string(pid) + ":" + std::to_string(kb);
}

// The in-memory tables a kill action borrows.
struct ActionTables {
  ActionTables() {
    for (auto* db : {&mUser, &mFavPid, &mStartProc}) db->KxDatabaseInit();
    mFavSlot.KxDatabaseInit();
    mServiceOut.KxDatabaseInit();
  }
  std::unique_ptr<VorakAction> newAction(VorakFeature& feature, float safeload) {
    return std::make_unique<VorakAction>(feature, safeload, &mUser, &mFavPid, &mFavSlot, &mServiceOut, &mStartProc);
  }
  void putSlot(const std::string& slot, const std::string& apps) {
    kxtest::putRows(mFavSlot, slot, 1, [&](auto& b) { apps.copy(b.favoriteApps, sizeof(b.favoriteApps) - 1); });
  }
  static void learn(VorakAction& a, const std::string& name, int64_t rssSwap, int64_t ionKgsl) {
    kxtest::putRows(*a.getActionOutputDb(), name, 1, [&](auto& b) { b.rssSwap = rssSwap, b.ionKgsl = ionKgsl; });
  }

  VorakFeature::UserDb mUser{100, "", "Vorak"}, mFavPid{100, "", "Vorak"}, mStartProc{100, "", "Vorak"};
  KxDatabase<_vorak_Favorite_Time_Slot_Data> mFavSlot{100, "", "Vorak"};
  KxDatabase<_vorak_App_Service_Out> mServiceOut{100, "", "Vorak"};
};

inline AsyncTriggerPayload trigger(int id, int type, const std::string& app, int pid = 0) {
  AsyncTriggerPayload p;
  p.hintID = id;
  p.hintType = type;
  p.appName = app;
  p.pid = pid;
  return p;
}

}  // namespace vorakdev
