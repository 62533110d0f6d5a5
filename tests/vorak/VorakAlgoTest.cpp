// The learning run: means of the recorded samples into one learnt row per
// name, which names it learns, cancellation, and the service-output copy.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "AndroidLog.h"
#include "FeatureInfo.h"
#include "FeatureState.h"
#include "FetchPreferredApps.h"
#include "FsRoot.h"
#include "Properties.h"
#include "VorakAlgo.h"
#include "VorakFeature.h"
#include "WallClock.h"
#include "VorakDevice.h"
#include "kxhost/LogCapture.h"
#include "support/FailingAllocation.h"
#include "support/FailingWrites.h"
#include "kxdb/KxFailFast.h"
#include "support/PutRows.h"
#include "support/TempDir.h"

namespace {

using Learnt = std::pair<int64_t, int64_t>;  // ionKgsl, rssSwap

class VorakAlgoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Learning states persist under the device root, in a data directory
    // this root lacks: they stay in memory, which keeps a thousand state
    // writes cheap and nothing is written outside our directory.
    kxhost::setFsRoot(mDir.path());
    kxhost::clearFeatureStates();
    // The algorithm only asks its feature for the trace switch: a disabled
    // feature, which opens nothing, is enough.
    kxhost::setProperty("ro.vendor.perf.enable.vorak", "false");
    FeatureInfo info;
    info.name = "VorakAlgoTest";
    mFeature = std::make_unique<VorakFeature>(info);
    kxhost::clearProperty("ro.vendor.perf.enable.vorak");

    ASSERT_EQ(mMeterDb.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mActionDb.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mServiceInDb.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mServiceOutDb.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mFavPidDb.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mStartProcDb.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mFavSlotDb.KxDatabaseInit(), KXDB_SUCCESS);
    mAlgo = std::make_unique<VorakAlgo>(*mFeature, &mServiceInDb, &mServiceOutDb, &mMeterDb, &mActionDb,
                                        &mFavPidDb, &mFavSlotDb, &mStartProcDb, mState);
  }

  void TearDown() override {
    mAlgo.reset();
    mFeature.reset();
    kxhost::clearFeatureStates();
    kxhost::setFsRoot("");
  }

  template <typename T, typename Fill>
  static void put(KxDatabase<T>& db, const std::string& name, int copies, Fill fill) {
    ASSERT_TRUE(kxtest::putRows(db, name, copies, fill));
  }
  void sample(const std::string& name, int64_t ion, int64_t rss, int copies = 1) {
    put(mMeterDb, name, copies, [&](_vorak_Meter_Data& b) { b.ionKgsl = ion, b.rssSwap = rss; });
  }
  void due(const std::string& name, AppState state = APP_STATE_LEARNING_DUE) { mState.writeState(name, state); }

  int samples(const std::string& name) {
    KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
    return mMeterDb.getCountDR(key);
  }
  // The learnt rows of `name`, with their rowids.
  std::vector<std::pair<Learnt, int64_t>> learnt(const std::string& name) { return learntIn(mActionDb, name); }
  static std::vector<std::pair<Learnt, int64_t>> learntIn(KxDatabase<_vorak_Feature_Action_Data>& db,
                                                          const std::string& name) {
    return kxtest::readRows(db, KxDBDataRowKey(name, KXDB_INTCOL_UNSET), [](const auto& row) {
      return std::pair(Learnt{row.blob.ionKgsl, row.blob.rssSwap}, row.rowid);
    });
  }
  void run(bool cancelled = false) {
    std::atomic<bool> cancel{cancelled};
    mAlgo->runAlgo(cancel);
  }

  kxtest::TempDir mDir;
  std::unique_ptr<VorakFeature> mFeature;
  FeatureState mState{"VorakAlgoTest"};
  KxDatabase<_vorak_Meter_Data> mMeterDb{100, "", "Vorak"};
  KxDatabase<_vorak_Feature_Action_Data> mActionDb{100, "", "Vorak"};
  KxDatabase<_vorak_App_Service_In> mServiceInDb{100, "", "Vorak"};
  KxDatabase<_vorak_App_Service_Out> mServiceOutDb{100, "", "Vorak"};
  KxDatabase<_vorak_User_Launched_Data> mFavPidDb{100, "", "Vorak"};
  KxDatabase<_vorak_User_Launched_Data> mStartProcDb{100, "", "Vorak"};
  KxDatabase<_vorak_Favorite_Time_Slot_Data> mFavSlotDb{100, "", "Vorak"};
  std::unique_ptr<VorakAlgo> mAlgo;
};

TEST_F(VorakAlgoTest, LearnsTheTruncatedMeanOfEveryDueNameAndForgetsItsSamples) {
  for (int64_t rss : {100, 101, 103}) sample("com.a", -1, rss);
  sample("com.b", -1, 5, 2);
  sample("svc.c", 7, 9);
  sample("svc.d", 1, 2, 3);
  // Readings whose 64-bit sums would overflow still have a mean.
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max(), kMin = std::numeric_limits<int64_t>::min();
  for (int64_t v : {kMax, kMax - 2}) sample("com.x", v, kMin);
  due("com.a");
  due("com.b");
  due("com.x");
  due("svc.d", APP_STATE_RELEARN_DUE);
  run();
  EXPECT_EQ(learnt("com.a")[0].first, Learnt(-1, 101));
  EXPECT_EQ(learnt("com.b")[0].first, Learnt(-1, 5));
  EXPECT_EQ(learnt("com.x")[0].first, Learnt(kMax - 1, kMin));
  EXPECT_EQ(samples("com.a") + samples("com.b"), 0);
  EXPECT_TRUE(learnt("svc.c").empty()) << "still collecting";
  EXPECT_EQ(samples("svc.c"), 1);
  EXPECT_TRUE(learnt("svc.d").empty()) << "due again: left as it is";
  EXPECT_EQ(samples("svc.d"), 3);
  EXPECT_EQ(mState.readState("svc.d"), APP_STATE_RELEARN_DUE);
  EXPECT_EQ(mState.readState("com.a"), APP_STATE_LEARNING_DUE) << "the host marks it learnt";
}

// A learnt row that the store could not commit is no result: the samples
// stay, the name stays due, and the row waiting in the cache is written
// before the next try reads, so that the try updates it instead of adding
// a second row.
TEST_F(VorakAlgoTest, SamplesGoOnlyOnceTheirLearntRowIsCommitted) {
  std::filesystem::create_directories(mDir.sub("data/vendor/kx"));
  if (!kxtest::storeReportsFailedWrites()) GTEST_SKIP() << "needs the store's failure reporting";
  KxDatabase<_vorak_Feature_Action_Data> actionDb(100, "Vorakaction.db", "Vorak");
  ASSERT_EQ(actionDb.KxDatabaseInit(), KXDB_SUCCESS);
  VorakAlgo algo(*mFeature, &mServiceInDb, &mServiceOutDb, &mMeterDb, &actionDb, &mFavPidDb, &mFavSlotDb,
                 &mStartProcDb, mState);
  std::string name = "com.a";
  sample(name, 4, 40, 2);
  due(name);
  {
    // Another process holds the file: the row stays cached for the next write-back.
    sqlite3* other = nullptr;
    const std::string path = kxhost::devicePath("/data/vendor/kx/Vorakaction.db");
    sqlite3_open_v2(path.c_str(), &other, SQLITE_OPEN_READWRITE, nullptr);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    kxdb::FailFastScope noWaiting;
    kxhost::LogCapture log;
    EXPECT_FALSE(algo.learnPerApp(name)) << "the row's write-back fails";
    EXPECT_FALSE(algo.learnPerApp(name)) << "the row still waiting cannot be written";
    EXPECT_EQ(log.count("could not store the learnt row of com.a: writeCachedDRToDisk: database is locked"), 2u);
    sqlite3_close_v2(other);
  }
  EXPECT_EQ(samples(name), 2);
  EXPECT_EQ(mState.readState(name), APP_STATE_LEARNING_DUE);
  EXPECT_TRUE(learntIn(actionDb, name).empty());

  sample(name, 1, 10);
  EXPECT_TRUE(algo.learnPerApp(name));
  EXPECT_EQ(samples(name), 0);
  auto rows = learntIn(actionDb, name);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].first, Learnt(3, 30));
}

// With the trace switch on, the dumps show each name with its state or its
// samples: before the per-name loop, after each name, and at its end.
TEST_F(VorakAlgoTest, DumpsShowEveryNameWhenTracing) {
  VorakFeatureTestPeer::setTrace(*mFeature, true);
  sample("com.a", 1, 10, 3);
  sample("com.b", 1, 10, 2);
  due("com.a");
  kxhost::LogCapture log;
  run();
  const std::pair<const char*, size_t> dumps[] = {{"printFsm: com.a state 1", 1},   {"printFsm: com.b state 0", 2},
                                                  {"printDB: com.b 2 samples", 3}, {"printDB: com.a", 0},
                                                  {"printActionDB: com.a state 1", 1}};
  for (const auto& [line, times] : dumps) EXPECT_EQ(log.count(line, ANDROID_LOG_DEBUG), times) << line;
}

TEST_F(VorakAlgoTest, DividesByTheFullCountWhenTheReadIsCapped) {
  sample("com.a", 10005, 10005, 10005);
  due("com.a");
  run();
  // 10000 samples read and summed, divided by all 10005 stored.
  EXPECT_EQ(learnt("com.a")[0].first, Learnt(10000, 10000));
}

int weekdayOf(std::time_t t) {
  std::tm local{};
  localtime_r(&t, &local);
  return local.tm_wday;
}

TEST_F(VorakAlgoTest, CancelledRunRefreshesFavouritesAndServicesHandlesOneNameAndWalksNoMore) {
  // Every listing of a table with more than 1000 names leaves the store's
  // restriction warning, which counts the run's walks over the samples
  // (1001 names are left once the first is learnt).
  for (int i = 0; i < 1002; ++i) {
    sample("com.n" + std::to_string(i), 1, 10);
    due("com.n" + std::to_string(i));
  }
  put(mServiceInDb, "com.a", 1, [](_vorak_App_Service_In& b) { std::strcpy(b.serviceNames[0], "svc.a"); });
  put(mFavPidDb, "com.fav", 1, [](_vorak_User_Launched_Data& b) { b.value = 42; });
  // The host predicts favourites from launches on two days of the same kind.
  FetchPreferredApps::clearHistory();
  const std::time_t now = kxhost::wallTime();
  FetchPreferredApps::noteLaunch("com.fav", now);
  FetchPreferredApps::noteLaunch("com.fav", now - (weekdayOf(now) == 1 ? 3 : weekdayOf(now) == 6 ? 6 : 1) * 86400);
  kxhost::LogCapture log;
  run(true);

  EXPECT_EQ(mActionDb.getTxtColUniqList(KXDB_TXTCOL_APPNAME, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE).size(), 1u);
  KxDBDataRowKey all("", KXDB_INTCOL_UNSET);
  EXPECT_EQ(mMeterDb.getCountDR(all), 1001);
  // The opening state dump and the learning loop; no dumps after the first name.
  EXPECT_EQ(log.count("Dbt=Vorak Restrict Cnt to 1000", ANDROID_LOG_WARN), 2u);
  KxDBDataRowKey key("com.a", KXDB_INTCOL_UNSET);
  EXPECT_EQ(mServiceOutDb.getCountDR(key), 1) << "service lists are copied before the loop";
  KxDBDataRowKey slots("", KXDB_INTCOL_UNSET);
  auto favourites = mFavSlotDb.readAllocateDR(slots, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  ASSERT_EQ(favourites.size(), 1u) << "favourites are refreshed before the loop";
  EXPECT_NE(std::strstr(favourites[0]->blob.favoriteApps, "com.fav"), nullptr);
  mFavSlotDb.deallocateDR(favourites);
}

TEST_F(VorakAlgoTest, CopiesEachServiceListOnce) {
  put(mServiceInDb, "com.a", 1, [](_vorak_App_Service_In& b) {
    std::strcpy(b.serviceNames[0], "svc.a");
    std::strcpy(b.serviceNames[11], "svc.l");
  });
  run();
  run();
  KxDBDataRowKey key("com.a", KXDB_INTCOL_UNSET);
  auto rows = mServiceOutDb.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_STREQ(rows[0]->blob.serviceNames[0], "svc.a");
  EXPECT_STREQ(rows[0]->blob.serviceNames[1], "");
  EXPECT_STREQ(rows[0]->blob.serviceNames[11], "svc.l");
  mServiceOutDb.deallocateDR(rows);
}

TEST_F(VorakAlgoTest, ASecondResultUpdatesTheLearntRowInPlace) {
  std::string name = "com.a";
  EXPECT_TRUE(mAlgo->writeToActionDataBase(name, 1, 2));
  EXPECT_TRUE(mAlgo->writeToActionDataBase(name, 3, 4));
  auto rows = learnt(name);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].first, Learnt(3, 4));

  sample(name, 5, 6);
  due(name);
  run();
  EXPECT_EQ(learnt(name), (std::vector<std::pair<Learnt, int64_t>>{{{5, 6}, rows[0].second}}));
}

TEST_F(VorakAlgoTest, DuplicatedLearntRowsFailTheNameWithState99) {
  kxhost::LogCapture log;
  put(mActionDb, "com.a", 2, [](_vorak_Feature_Action_Data& b) { b.ionKgsl = 1, b.rssSwap = 2; });
  sample("com.a", 5, 6);
  due("com.a");
  run();
  EXPECT_EQ(mState.readState("com.a"), APP_STATE_LEARN_FAILED);
  EXPECT_TRUE(log.contains(
      "VorakAlgo: writeToActionDataBase() ", ANDROID_LOG_ERROR));
  EXPECT_TRUE(log.contains("could not update database as multiple entries for an com.a present hence setting "
                           "state to 99 \n"));
  auto rows = learnt("com.a");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].first, Learnt(1, 2));
  EXPECT_EQ(rows[1].first, Learnt(1, 2));
  EXPECT_EQ(samples("com.a"), 1) << "samples are kept";
}

// Without memory for a row nothing is half done: the name fails with state
// 99, and a service list stays uncopied for the next run.
TEST_F(VorakAlgoTest, ARowThatCannotBeAllocatedIsReportedAndNothingStored) {
  put(mServiceInDb, "com.a", 1, [](_vorak_App_Service_In& b) { std::strcpy(b.serviceNames[0], "svc.a"); });
  std::string name = "com.a";
  kxhost::LogCapture log;
  {
    kxtest::NothrowFailure noRows;
    mAlgo->populateAppServiceOutputDb();
    EXPECT_FALSE(mAlgo->writeToActionDataBase(name, 1, 2));
  }
  EXPECT_EQ(log.count("populateAppServiceOutputDb() ", ANDROID_LOG_ERROR), 1u);
  EXPECT_EQ(log.count("Could not allocate AppServiceOutput DB row"), 1u);
  EXPECT_EQ(log.count("could not write for the app com.a hence setting state to 99"), 1u);
  EXPECT_EQ(mState.readState(name), APP_STATE_LEARN_FAILED);
  EXPECT_TRUE(learnt(name).empty());
  KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
  EXPECT_EQ(mServiceOutDb.getCountDR(key), 0);
}

}  // namespace
