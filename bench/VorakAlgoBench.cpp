// The learning run beside its raw twin, as the number of names grows.
//
// learning/N: one run over N names, each due for learning with two samples
// and a learnt row from an earlier run (so each learns by an update), and
// ten service lists already copied. The raw twin makes the same statements
// in the same order through SQLite's C interface and the same calls to the
// host (favourites, learning states).
//
// The run must walk the whole sample table once per handled name (a dump
// that reads every name's samples) and once more at its end: a cost that
// grows with the square of the names and is the same on both sides. The raw
// twin reports the share of its time spent in that walk as "walk_share", so
// that any cost of our own stands out beside it.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "FeatureInfo.h"
#include "FeatureState.h"
#include "FetchPreferredApps.h"
#include "FsRoot.h"
#include "Properties.h"
#include "VorakAlgo.h"
#include "VorakFeature.h"
#include "kxhost/LogCapture.h"
#include "support/PutRows.h"
#include "support/TempDir.h"

namespace {

constexpr int kSamples = 2;
constexpr int kServices = 10;

std::string nameOf(int i) { return "com.bench.app" + std::to_string(i); }

// The raw twin of VorakAlgo::runAlgo over the same files.
class RawLearning {
 public:
  RawLearning(const std::string& dir, FeatureState& state, std::mutex& samples, KxDatabase<_vorak_User_Launched_Data>* user,
              KxDatabase<_vorak_User_Launched_Data>* user2, KxDatabase<_vorak_Favorite_Time_Slot_Data>* favSlot)
      : mState(state), mSamples(samples), mUser(user), mUser2(user2), mFavSlot(favSlot) {
    for (auto [db, file] : {std::pair(&mMeter, "VorakMeter.db"), std::pair(&mAction, "Vorakaction.db"),
                            std::pair(&mServiceIn, "VorakServiceIP.db"), std::pair(&mServiceOut, "VorakServiceOP.db")})
      sqlite3_open_v2((dir + file).c_str(), db, SQLITE_OPEN_READWRITE, nullptr);
  }
  ~RawLearning() {
    for (sqlite3* db : {mMeter, mAction, mServiceIn, mServiceOut}) sqlite3_close(db);
  }

  void run() {
    mWalk = std::chrono::steady_clock::duration::zero();
    FetchPreferredApps().populateFavoriteApps(mUser, mUser2, mFavSlot);
    serviceOutput();
    for (const std::string& name : names(mMeter)) mState.readState(name);
    for (const std::string& name : names(mMeter)) {
      const AppState state = mState.readState(name);
      if (state == APP_STATE_LEARNING_DUE || state == APP_STATE_RELEARN_DUE) learn(name);
      walk();
    }
    for (const std::string& name : names(mMeter)) mState.readState(name);
    walk();
    for (const std::string& name : names(mAction)) mState.readState(name);
  }

  std::chrono::steady_clock::duration walkTime() const { return mWalk; }

 private:
  template <typename OnRow>
  static int select(sqlite3* db, const char* sql, OnRow onRow) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) return 0;
    int rows = 0;
    for (; rows < 10000 && sqlite3_step(stmt) == SQLITE_ROW; ++rows) onRow(stmt);
    if (rows < 10000) sqlite3_reset(stmt);
    sqlite3_finalize(stmt);
    return rows;
  }
  static int count(sqlite3* db, const char* sql) {
    int n = 0;
    select(db, sql, [&](sqlite3_stmt* s) { n = sqlite3_column_int(s, 0); });
    return n;
  }
  static const char* keyed(char (&sql)[512], const char* head, const std::string& name) {
    std::snprintf(sql, sizeof sql, "%sVorak WHERE (appName) = ('%s') ", head, name.c_str());
    return sql;
  }
  static std::vector<std::string> names(sqlite3* db) {
    std::vector<std::string> out;
    const int n = count(db, "SELECT COUNT(DISTINCT appName) FROM Vorak");
    if (n == 0) return out;
    out.reserve(static_cast<size_t>(n));
    select(db, "SELECT DISTINCT appName FROM Vorak ", [&](sqlite3_stmt* s) {
      out.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)));
    });
    return out;
  }

  void serviceOutput() {
    char sql[512];
    select(mServiceIn, "SELECT *, rowid FROM Vorak ", [&](sqlite3_stmt* s) {
      const std::string name = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
      if (count(mServiceOut, keyed(sql, "SELECT COUNT(*) FROM ", name)) >= 1) return;
      writeRow(mServiceOut, name, sqlite3_column_blob(s, 3), sizeof(_vorak_App_Service_Out), 0);
    });
  }

  // One row written as the store's write-back writes it: both statements
  // prepared, one transaction.
  static void writeRow(sqlite3* db, const std::string& name, const void* blob, size_t size, int64_t rowid) {
    sqlite3_stmt* insert = nullptr;
    sqlite3_stmt* update = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO Vorak(intcol1, appName, rsvdName, blob) VALUES (?,?,?,?)", -1, &insert, nullptr);
    sqlite3_prepare_v2(db, "UPDATE Vorak SET (intcol1, appName, rsvdName, blob) = (?,?,?,?) WHERE (rowid) = (?)", -1,
                       &update, nullptr);
    sqlite3_exec(db, "BEGIN IMMEDIATE TRANSACTION;", nullptr, nullptr, nullptr);
    sqlite3_stmt* stmt = rowid != 0 ? update : insert;
    sqlite3_bind_text(stmt, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    sqlite3_bind_blob(stmt, 4, blob, static_cast<int>(size), SQLITE_STATIC);
    if (rowid != 0) sqlite3_bind_int64(stmt, 5, rowid);
    sqlite3_step(stmt);
    sqlite3_reset(stmt);
    sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr);
    sqlite3_finalize(update);
    sqlite3_finalize(insert);
  }

  void learn(const std::string& name) {
    if (mState.readState(name) != APP_STATE_LEARNING_DUE) {
      mState.readState(name);
      return;
    }
    std::lock_guard<std::mutex> lock(mSamples);
    char sql[512];
    const int64_t n = count(mMeter, keyed(sql, "SELECT COUNT(*) FROM ", name));
    if (n < 1) return;
    _vorak_Meter_Data sum{};
    select(mMeter, keyed(sql, "SELECT *, rowid FROM ", name), [&](sqlite3_stmt* s) {
      _vorak_Meter_Data d;
      std::memcpy(&d, sqlite3_column_blob(s, 3), sizeof d);
      sum.ionKgsl += d.ionKgsl;
      sum.rssSwap += d.rssSwap;
    });
    const _vorak_Feature_Action_Data learnt{sum.ionKgsl / n, sum.rssSwap / n};
    int64_t rowid = 0;
    const int rows = select(mAction, keyed(sql, "SELECT *, rowid FROM ", name),
                            [&](sqlite3_stmt* s) { rowid = sqlite3_column_int64(s, 4); });
    if (rows > 1) return;
    writeRow(mAction, name, &learnt, sizeof learnt, rowid);
    select(mMeter, keyed(sql, "DELETE FROM ", name), [](sqlite3_stmt*) {});
  }

  // Every name's samples, read and let go.
  void walk() {
    const auto start = std::chrono::steady_clock::now();
    char sql[512];
    for (const std::string& name : names(mMeter))
      select(mMeter, keyed(sql, "SELECT *, rowid FROM ", name), [](sqlite3_stmt* s) {
        benchmark::DoNotOptimize(sqlite3_column_blob(s, 3));
      });
    mWalk += std::chrono::steady_clock::now() - start;
  }

  FeatureState& mState;
  std::mutex& mSamples;
  KxDatabase<_vorak_User_Launched_Data>* mUser;
  KxDatabase<_vorak_User_Launched_Data>* mUser2;
  KxDatabase<_vorak_Favorite_Time_Slot_Data>* mFavSlot;
  sqlite3* mMeter = nullptr;
  sqlite3* mAction = nullptr;
  sqlite3* mServiceIn = nullptr;
  sqlite3* mServiceOut = nullptr;
  std::chrono::steady_clock::duration mWalk{};
};

// The feature's tables in a device root of their own; the feature is
// switched off and only lends its trace switch and samples mutex.
class Learning {
 public:
  Learning() {
    kxhost::setLogSink(std::make_shared<kxbench::NullSink>(), true);
    kxhost::setFsRoot(mDir.path());
    std::filesystem::create_directories(mDir.sub("data/vendor/kx"));
    kxhost::setProperty("ro.vendor.perf.enable.vorak", "false");
    FeatureInfo info;
    info.name = "Vorak";
    mFeature = std::make_unique<VorakFeature>(info);
    for (auto* db : {&mUser, &mUser2}) db->KxDatabaseInit();
    mFavSlot.KxDatabaseInit();
    mMeter.KxDatabaseInit();
    mAction.KxDatabaseInit();
    mServiceIn.KxDatabaseInit();
    mServiceOut.KxDatabaseInit();
    for (int i = 0; i < kServices; ++i) {
      kxtest::putRows(mServiceIn, nameOf(i), 1, [](auto& b) { std::strcpy(b.serviceNames[0], "svc"); });
      kxtest::putRows(mServiceOut, nameOf(i), 1, [](auto& b) { std::strcpy(b.serviceNames[0], "svc"); });
    }
    mAlgo = std::make_unique<VorakAlgo>(*mFeature, &mServiceIn, &mServiceOut, &mMeter, &mAction, &mUser, &mFavSlot,
                                        &mUser2, mState);
    mRaw = std::make_unique<RawLearning>(mDir.sub("data/vendor/kx/"), mState, mFeature->samplesMutex(), &mUser, &mUser2,
                                         &mFavSlot);
  }
  ~Learning() {
    mRaw.reset();
    mAlgo.reset();
    mFeature.reset();
    kxhost::clearFeatureStates();
    kxhost::clearProperties();
    kxhost::setFsRoot("");
    kxhost::setLogSink(nullptr);
  }

  // n names due, each with its samples and an earlier learnt row.
  void due(int n) {
    KxDBDataRowKey all;
    mMeter.deleteAllDR(all);
    for (int i = 0; i < n; ++i) {
      kxtest::putRows(mMeter, nameOf(i), kSamples, [i](auto& b) { b = {i, 1000 + i}; });
      mState.writeState(nameOf(i), APP_STATE_LEARNING_DUE);
    }
    if (mLearnt < n) {
      for (int i = mLearnt; i < n; ++i) kxtest::putRows(mAction, nameOf(i), 1, [](auto& b) { b = {0, 0}; });
      mLearnt = n;
    }
  }
  // The samples left and the learnt rows: both sides must leave the same.
  bool learnt() {
    KxDBDataRowKey all;
    return mMeter.getCountDR(all) == 0 && mAction.getCountDR(all) == mLearnt;
  }

  VorakAlgo& algo() { return *mAlgo; }
  RawLearning& raw() { return *mRaw; }

 private:
  kxtest::TempDir mDir{kxbench::deviceBase()};
  std::unique_ptr<VorakFeature> mFeature;
  FeatureState mState{"Vorak"};
  KxDatabase<_vorak_User_Launched_Data> mUser{100, "", "Vorak"};
  KxDatabase<_vorak_User_Launched_Data> mUser2{100, "", "Vorak"};
  KxDatabase<_vorak_Favorite_Time_Slot_Data> mFavSlot{100, "", "Vorak"};
  KxDatabase<_vorak_Meter_Data> mMeter{1000, "VorakMeter.db", "Vorak"};
  KxDatabase<_vorak_Feature_Action_Data> mAction{1000, "Vorakaction.db", "Vorak"};
  KxDatabase<_vorak_App_Service_In> mServiceIn{1000, "VorakServiceIP.db", "Vorak"};
  KxDatabase<_vorak_App_Service_Out> mServiceOut{1000, "VorakServiceOP.db", "Vorak"};
  std::unique_ptr<VorakAlgo> mAlgo;
  std::unique_ptr<RawLearning> mRaw;
  int mLearnt = 0;
};

Learning& learning() {
  static Learning l;
  return l;
}

void BM_LearningOurs(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::atomic<bool> cancel{false};
  kxbench::timeEach(state, [n] { learning().due(n); }, [&] { learning().algo().runAlgo(cancel); });
  if (!learning().learnt()) state.SkipWithError("the run did not learn every name");
}

void BM_LearningRaw(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::chrono::steady_clock::duration walk{};
  std::chrono::steady_clock::duration total{};
  kxbench::timeEach(
      state, [n] { learning().due(n); },
      [&] {
        const auto start = std::chrono::steady_clock::now();
        learning().raw().run();
        total += std::chrono::steady_clock::now() - start;
        walk += learning().raw().walkTime();
      });
  if (!learning().learnt()) state.SkipWithError("the raw twin did not learn every name");
  state.counters["walk_share"] = total.count() > 0 ? static_cast<double>(walk.count()) / total.count() : 0;
}

}  // namespace

BENCHMARK(BM_LearningOurs)->Name("learning/ours")->Arg(10)->Arg(100)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LearningRaw)->Name("learning/raw")->Arg(10)->Arg(100)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMillisecond);
// A run over 1000 names takes about 20 s on either side: three of each.
BENCHMARK(BM_LearningOurs)->Name("learning/ours")->Arg(1000)->Iterations(1)->Repetitions(3)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LearningRaw)->Name("learning/raw")->Arg(1000)->Iterations(1)->Repetitions(3)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
