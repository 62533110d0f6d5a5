// A device in use, for the kill action's benchmarks: the action over tables
// as a day of use leaves them (30 user-launched apps, 10 of them favourites
// of the current slot, 1000 learnt rows, the launching app's two services),
// candidates listed by a statistics source of the benchmark's own, and the
// raw twin over copies of the same tables.
//
// The feature itself is switched off at its enable property: it lends the
// action its trace switch and nothing else, and registers no action of its
// own on the hub.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "FeatureInfo.h"
#include "FsRoot.h"
#include "ProcStatsSource.h"
#include "Properties.h"
#include "RawLaunch.h"
#include "RawProcStats.h"
#include "StatsProvider.h"
#include "Vorak.pb.h"
#include "VorakAction.h"
#include "VorakFeature.h"
#include "kxhost/LogCapture.h"
#include "support/PutRows.h"
#include "support/TempDir.h"

namespace kxbench {

// Candidates with designed memory figures (equal ones among them once more
// than 300 are listed) and their real start times; system statistics as
// designed, or read from a proc tree.
class BenchStats : public kxhost::StatsSource {
 public:
  explicit BenchStats(const std::vector<pid_t>& pids) {
    for (size_t i = 0; i < pids.size(); ++i) {
      PIDStats p{};
      const int k = static_cast<int>(i % 300);
      p.pid = pids[i];
      p.oomScoreAdj = 700 + k;
      p.rssFileKB = 1000 + 37 * k;
      p.rssAnonSwapKB = 5000 + 113 * k;
      p.gpuKB = 300 * (i % 7);
      std::strcpy(p.comm, "bench");
      RawProcStats::startTime("/proc", p.pid, &p.startTime);
      mProcs.push_back(p);
    }
    mByPid = mProcs;
    std::sort(mByPid.begin(), mByPid.end(), [](const PIDStats& a, const PIDStats& b) { return a.pid < b.pid; });
    mListed = mProcs.size();
  }

  static SysStats designed() {
    SysStats s{};
    s.freeKB = 200000;
    s.totalKB = 3900000;
    s.kernelStackKB = 20000;
    s.reclaimableKB = 25000;
    s.zramUsedKB = 150000;
    s.zramOrigKB = 450000;
    s.zramSizeKB = 1000000;
    s.unreclaimableKB = 5000;
    s.buffersKB = 40000;
    s.sReclaimableKB = 70000;
    s.sUnreclaimKB = 60000;
    s.freeCmaKB = 8000;
    s.mappedKB = 120000;
    s.swapCachedKB = 10000;
    s.pageTablesKB = 50000;
    s.shmemKB = 30000;
    s.vmallocUsedKB = 40000;
    s.normalFreeKB = 200000;
    s.normalActiveAnonKB = 800000;
    s.normalInactiveAnonKB = 400000;
    s.normalActiveFileKB = 600000;
    s.normalInactiveFileKB = 500000;
    return s;
  }

  void list(size_t n) { mListed = std::min(n, mProcs.size()); }
  // The candidate at `index` of the host's list is now `pid`.
  void replace(size_t index, pid_t pid) {
    mProcs[index].pid = pid;
    RawProcStats::startTime("/proc", pid, &mProcs[index].startTime);
    mByPid = mProcs;
    std::sort(mByPid.begin(), mByPid.end(), [](const PIDStats& a, const PIDStats& b) { return a.pid < b.pid; });
  }
  // Null sources: the designed figures and the start times listed.
  void useProc(kxhost::StatsSource* sys, kxhost::StatsSource* start) {
    mSys = sys;
    mStart = start;
  }

  SysStats sysStats() override { return mSys != nullptr ? mSys->sysStats() : designed(); }
  PIDStats pidStats(int pid) override {
    const PIDStats* p = find(pid);
    if (p != nullptr) return *p;
    PIDStats none{};
    none.pid = -1;
    return none;
  }
  std::vector<PIDStats> pidStatsRange(int minAdj, int maxAdj) override {
    std::vector<PIDStats> out;
    out.reserve(mListed);
    for (size_t i = 0; i < mListed; ++i)
      if (mProcs[i].oomScoreAdj >= minAdj && mProcs[i].oomScoreAdj <= maxAdj) out.push_back(mProcs[i]);
    return out;
  }
  std::optional<uint64_t> startTime(int pid) override {
    if (mStart != nullptr) return mStart->startTime(pid);
    const PIDStats* p = find(pid);
    return p != nullptr ? std::optional<uint64_t>(p->startTime) : std::nullopt;
  }

 private:
  const PIDStats* find(int pid) const {
    auto it = std::lower_bound(mByPid.begin(), mByPid.end(), pid,
                               [](const PIDStats& p, int wanted) { return p.pid < wanted; });
    return it != mByPid.end() && it->pid == pid ? &*it : nullptr;
  }

  std::vector<PIDStats> mProcs;  // in the host's order
  std::vector<PIDStats> mByPid;
  size_t mListed;
  kxhost::StatsSource* mSys = nullptr;
  kxhost::StatsSource* mStart = nullptr;
};

inline AsyncTriggerPayload hint(int id, int type, const std::string& app) {
  AsyncTriggerPayload p;
  p.hintID = id;
  p.hintType = type;
  p.appName = app;
  return p;
}

class BenchDevice {
 public:
  static constexpr int kLearntRows = 1000;
  static constexpr int kUsers = 30;
  static constexpr int kFavourites = 10;
  static constexpr float kSafeload = 0.18f;  // the shipped model's
  static inline const std::string kApp = "com.bench.app500";

  // `pids`: the candidates the host lists, in its order; user-launched apps
  // are every tenth of them.
  explicit BenchDevice(const std::vector<pid_t>& pids) : mPids(pids) {
    kxhost::setLogSink(std::make_shared<NullSink>(), true);
    kxhost::setFsRoot(mDir.path());
    std::filesystem::create_directories(mDir.sub("data/vendor/kx"));
    std::filesystem::create_directories(mDir.sub("vendor/etc/kx/vorak"));
    std::filesystem::copy_file(std::string(VORAK_DEVICE_ROOT) + "/vendor/etc/kx/vorak/vorak_4GB.data", modelPath());
    writeProcTree();
    kxhost::setProperty("ro.vendor.perf.enable.vorak", "false");
    mStats = std::make_shared<BenchStats>(pids);
    kxhost::setStatsSource(mStats);
    FeatureInfo info;
    info.name = "Vorak";
    mFeature = std::make_unique<VorakFeature>(info);
    for (auto* db : {&mUser, &mFavPid, &mStartProc}) db->KxDatabaseInit();
    mFavSlot.KxDatabaseInit();
    mServiceOut.KxDatabaseInit();
    mAction = std::make_unique<VorakAction>(*mFeature, kSafeload, &mUser, &mFavPid, &mFavSlot, &mServiceOut,
                                            &mStartProc);
    fillTables();
    openRaw();
  }

  ~BenchDevice() {
    mRawLaunch.reset();
    for (sqlite3* db : mRawDbs) sqlite3_close(db);
    mAction.reset();
    mFeature.reset();
    kxhost::setStatsSource(nullptr);
    kxhost::clearProperties();
    kxhost::setFsRoot("");
    kxhost::setLogSink(nullptr);
  }

  VorakAction& action() { return *mAction; }
  RawLaunch& raw() { return *mRawLaunch; }
  BenchStats& stats() { return *mStats; }
  // The same figures as designed(), as files: "<root>/proc" and "<root>/sys".
  std::string procTree() const { return mDir.sub("bench"); }

 private:
  std::string modelPath() const { return mDir.sub("vendor/etc/kx/vorak/vorak_4GB.data"); }
  std::string app(int i) const { return "com.bench.app" + std::to_string(i); }

  void fillTables() {
    auto* learnt = mAction->getActionOutputDb();
    for (int i = 0; i < kLearntRows; ++i) kxtest::putRows(*learnt, app(i), 1, [](auto& b) { b = {100000, 600200}; });
    kxtest::putRows(*learnt, "vendor.bench.media", 1, [](auto& b) { b = {0, 30000}; });
    std::string favourites;
    for (int i = 0; i < kUsers && static_cast<size_t>(10 * i) < mPids.size(); ++i) {
      const int pid = mPids[static_cast<size_t>(10 * i)];
      kxtest::putRows(mUser, app(i), 1, [&](auto& b) { b.value = pid; });
      kxtest::putRows(mStartProc, app(i), 1, [&](auto& b) { b.value = pid; });
      if (i < kFavourites) {
        kxtest::putRows(mFavPid, app(i), 1, [&](auto& b) { b.value = pid; });
        favourites += app(i) + "/";
      }
    }
    mAction->getWeekdayTimeslot(mSlot);
    kxtest::putRows(mFavSlot, mSlot, 1, [&](auto& b) { favourites.copy(b.favoriteApps, sizeof(b.favoriteApps) - 1); });
    kxtest::putRows(mServiceOut, kApp, 1, [](auto& b) {
      std::strcpy(b.serviceNames[0], "vendor.bench.media");
      std::strcpy(b.serviceNames[1], "vendor.bench.camera");
    });
  }

  // The raw twin's in-memory tables are copies of the action's, row for row;
  // the file tables are the action's own files.
  template <typename T>
  sqlite3* copyOf(KxDatabase<T>& db) {
    sqlite3* raw = open(":memory:");
    sqlite3_exec(raw, "CREATE TABLE Vorak(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB)", nullptr,
                 nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(raw, "INSERT INTO Vorak(appName, blob) VALUES (?,?)", -1, &insert, nullptr);
    KxDBDataRowKey all;
    db.readEachDR(all, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE, [&](KxDBDataRowView<T>& row) {
      sqlite3_bind_text(insert, 1, row.appName().data(), static_cast<int>(row.appName().size()), SQLITE_TRANSIENT);
      sqlite3_bind_blob(insert, 2, &row.blob(), sizeof(T), SQLITE_TRANSIENT);
      sqlite3_step(insert);
      sqlite3_reset(insert);
    });
    sqlite3_finalize(insert);
    return raw;
  }
  sqlite3* open(const std::string& name) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(name.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    mRawDbs.push_back(db);
    return db;
  }

  void openRaw() {
    RawLaunch::Tables t{copyOf(mUser), copyOf(mFavPid), copyOf(mStartProc), copyOf(mFavSlot),
                        open(mDir.sub("data/vendor/kx/Vorakaction.db")),
                        open(mDir.sub("data/vendor/kx/BenchServiceOP.db"))};
    // The score's terms in the order the action walks them.
    std::vector<RawLaunch::Term> terms;
    for (const auto& [name, f] : mAction->modelFeatures()) {
      if (f.min == f.max) continue;
      const auto at = std::find(kVorakFeatureNames.begin(), kVorakFeatureNames.end(), name);
      const int input = at != kVorakFeatureNames.end() ? static_cast<int>(at - kVorakFeatureNames.begin()) : -1;
      terms.push_back({f.min, f.max, f.weight, input});
    }
    VorakModel model;
    std::ifstream in(modelPath(), std::ios::binary);
    model.ParseFromIstream(&in);
    mRawLaunch = std::make_unique<RawLaunch>(t, kSafeload, std::move(terms), model.bias());
  }

  // designed() as a kernel of today writes it.
  void writeProcTree() {
    const SysStats s = BenchStats::designed();
    std::string meminfo;
    auto kb = [&](const char* key, uint64_t v) {
      char line[64];
      std::snprintf(line, sizeof line, "%-16s%8llu kB\n", key, static_cast<unsigned long long>(v));
      meminfo += line;
    };
    kb("MemTotal:", s.totalKB), kb("MemFree:", s.freeKB), kb("MemAvailable:", 1500000), kb("Buffers:", s.buffersKB);
    kb("Cached:", 900000), kb("SwapCached:", s.swapCachedKB), kb("Active:", 1400000), kb("Inactive:", 900000);
    kb("Active(anon):", s.normalActiveAnonKB), kb("Inactive(anon):", s.normalInactiveAnonKB);
    kb("Active(file):", s.normalActiveFileKB), kb("Inactive(file):", s.normalInactiveFileKB);
    kb("Unevictable:", s.unreclaimableKB), kb("Mlocked:", 5000), kb("SwapTotal:", 1000000), kb("SwapFree:", 600000);
    kb("Zswap:", 0), kb("Zswapped:", 0), kb("Dirty:", 300), kb("Writeback:", 0), kb("AnonPages:", 1150000);
    kb("Mapped:", s.mappedKB), kb("Shmem:", s.shmemKB), kb("KReclaimable:", s.reclaimableKB + s.sReclaimableKB);
    kb("Slab:", s.sReclaimableKB + s.sUnreclaimKB), kb("SReclaimable:", s.sReclaimableKB);
    kb("SUnreclaim:", s.sUnreclaimKB), kb("KernelStack:", s.kernelStackKB), kb("PageTables:", s.pageTablesKB);
    kb("SecPageTables:", 0), kb("NFS_Unstable:", 0), kb("Bounce:", 0), kb("WritebackTmp:", 0);
    kb("CommitLimit:", 2950000), kb("Committed_AS:", 6000000), kb("VmallocTotal:", 263061440);
    kb("VmallocUsed:", s.vmallocUsedKB), kb("VmallocChunk:", 0), kb("Percpu:", 3000), kb("AnonHugePages:", 0);
    kb("ShmemHugePages:", 0), kb("ShmemPmdMapped:", 0), kb("FileHugePages:", 0), kb("FilePmdMapped:", 0);
    kb("CmaTotal:", 200000), kb("CmaFree:", s.freeCmaKB);
    std::string zoneinfo;
    auto zone = [&](const char* name, uint64_t freeKB, uint64_t aa, uint64_t ia, uint64_t af, uint64_t inf,
                    bool nodeStats) {
      zoneinfo += std::string("Node 0, zone ") + name + "\n";
      if (nodeStats)
        zoneinfo += "  per-node stats\n      nr_inactive_anon 100000\n      nr_active_anon 200000\n"
                    "      nr_inactive_file 125000\n      nr_active_file 150000\n      nr_unevictable 1250\n"
                    "      nr_slab_reclaimable 17500\n      nr_slab_unreclaimable 15000\n      nr_isolated_anon 0\n"
                    "      nr_anon_pages 287500\n      nr_mapped 30000\n      nr_file_pages 225000\n";
      auto n = [](uint64_t kb) { return std::to_string(kb / 4); };
      zoneinfo += "  pages free     " + n(freeKB) + "\n        boost    0\n        min      1024\n        low      4096\n"
                  "        high     5120\n        spanned  1048576\n        present  1000000\n        managed  975000\n"
                  "        cma      50000\n        protection: (0, 0, 0, 0)\n      nr_free_pages " + n(freeKB) +
                  "\n      nr_zone_inactive_anon " + n(ia) + "\n      nr_zone_active_anon " + n(aa) +
                  "\n      nr_zone_inactive_file " + n(inf) + "\n      nr_zone_active_file " + n(af) +
                  "\n      nr_zone_unevictable 1250\n      nr_zone_write_pending 0\n      nr_mlock 1250\n"
                  "      nr_bounce    0\n      nr_zspages   3000\n      nr_free_cma  2000\n  pagesets\n";
      for (int cpu = 0; cpu < 8; ++cpu)
        zoneinfo += "    cpu: " + std::to_string(cpu) +
                    "\n              count: 42\n              high:  378\n              batch: 63\n"
                    "  vm stats threshold: 24\n";
      zoneinfo += "  node_unreclaimable:  0\n  start_pfn:           262144\n";
    };
    zone("DMA", 0, 0, 0, 0, 0, true);
    zone("Normal", s.normalFreeKB, s.normalActiveAnonKB, s.normalInactiveAnonKB, s.normalActiveFileKB,
         s.normalInactiveFileKB, false);
    zone("Movable", 0, 0, 0, 0, 0, false);
    mDir.write("bench/proc/meminfo", meminfo);
    mDir.write("bench/proc/zoneinfo", zoneinfo);
    mDir.write("bench/sys/block/zram0/mm_stat",
                           std::to_string(s.zramOrigKB * 1024) + " 120000000 " + std::to_string(s.zramUsedKB * 1024) +
                               " 0 160000000 100 0 0 0\n");
    mDir.write("bench/sys/block/zram0/disksize", std::to_string(s.zramSizeKB * 1024) + "\n");
  }

  kxtest::TempDir mDir{deviceBase()};
  std::vector<pid_t> mPids;
  std::shared_ptr<BenchStats> mStats;
  std::unique_ptr<VorakFeature> mFeature;
  KxDatabase<_vorak_User_Launched_Data> mUser{100, "", "Vorak"};
  KxDatabase<_vorak_User_Launched_Data> mFavPid{100, "", "Vorak"};
  KxDatabase<_vorak_User_Launched_Data> mStartProc{100, "", "Vorak"};
  KxDatabase<_vorak_Favorite_Time_Slot_Data> mFavSlot{100, "", "Vorak"};
  KxDatabase<_vorak_App_Service_Out> mServiceOut{100, "BenchServiceOP.db", "Vorak"};
  std::unique_ptr<VorakAction> mAction;
  std::string mSlot;
  std::vector<sqlite3*> mRawDbs;
  std::unique_ptr<RawLaunch> mRawLaunch;
};

}  // namespace kxbench
