// Opening, the write-back cache, deletion and the on-disk format.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "FeatureState.h"
#include "KxdbTestSupport.h"
#include "kxdb/KxLastError.h"
#include "kxhost/LogCapture.h"

using namespace kxtest;

static_assert(sizeof(AppState) == 4, "the learning state is a 4-byte blob");

namespace {

class KxDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(mDb.KxDatabaseInit(), KXDB_SUCCESS); }

  MeterDb mDb{1000, "", "Vorak"};
};

TEST_F(KxDatabaseTest, SkippedParametersKeepThePreviousRowsBinding) {
  auto rows = mDb.allocateDR(2);
  rows[0]->appName = "first";
  rows[0]->intcol1 = 7;
  rows[0]->rsvdName = "r";
  rows[0]->blob = {1, 1};
  rows[1]->appName = "second";
  rows[1]->blob = {2, 2};
  EXPECT_EQ(mDb.writeDeallocateDR(rows), 2);

  KxDBDataRowKey key("second", 0);
  auto back = mDb.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back[0]->intcol1, 7);
  EXPECT_EQ(back[0]->rsvdName, "r");
  mDb.deallocateDR(back);
}

TEST_F(KxDatabaseTest, AllocationIsCappedAtOneHundredRowsWithAWarning) {
  kxhost::LogCapture log;
  auto rows = mDb.allocateDR(150);
  EXPECT_EQ(rows.size(), 100u);
  EXPECT_EQ(log.count("Dbt=Vorak Restrict reqCnt to 100\n", ANDROID_LOG_WARN), 1u);
  EXPECT_EQ(mDb.deallocateDR(rows), 100);
  rows = mDb.allocateDR(100);
  EXPECT_EQ(mDb.deallocateDR(rows), 100);
  EXPECT_EQ(log.count("Restrict reqCnt"), 1u) << "a hundred rows are no restriction";
  EXPECT_TRUE(mDb.allocateDR(0).empty());
}

// Rows cached in a store that is not open are kept, and a write-back
// reports them as not written.
TEST(KxDatabaseClosed, OperationsOnAStoreNotOpenDoNothingAndKeepTheCache) {
  kxhost::LogCapture log;
  {
    MeterDb db(10, "", "Vorak");
    EXPECT_EQ(db.writeCachedDRToDisk(), KXDB_SUCCESS);
    auto rows = db.allocateDR(2);
    for (auto* r : rows) r->appName = "x", r->blob = {0, 0};
    EXPECT_EQ(db.cacheRow(rows), 2u);
    EXPECT_EQ(db.writeCachedDRToDisk(), KXDB_FAILURE);
    EXPECT_STREQ(kxdb::lastError(), "writeCachedDRToDisk: database not open (21)");
    KxDBDataRowKey key;
    EXPECT_TRUE(db.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE).empty());
    EXPECT_EQ(db.getCountDR(key), 0);
    EXPECT_EQ(db.deleteAllDR(key), 0);
    EXPECT_TRUE(db.getTxtColUniqList(KXDB_TXTCOL_APPNAME, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE).empty());
    EXPECT_EQ(db.closeKxdb(), KXDB_SUCCESS);
    for (size_t i = 0; i < MeterDb::kMaxCachedRows; ++i) putSample(db, "y", 0, 0);  // held to its bound
  }
  // The cache survived every write-back and is reported when the store goes.
  EXPECT_EQ(log.count("cache full while writes fail: dropped 1 oldest rows, 1 in all\n"), 1u);
  EXPECT_EQ(log.count("clstSz=" + std::to_string(MeterDb::kMaxCachedRows) + "\n", ANDROID_LOG_ERROR), 1u);
}

TEST(KxDatabaseConcurrency, TwoThreadsCachingAndWritingBackWriteEveryRowOnce) {
  MeterDb db(0, "", "Vorak");
  ASSERT_EQ(db.KxDatabaseInit(), KXDB_SUCCESS);
  constexpr int kPerThread = 500;
  auto worker = [&db](const std::string& prefix) {
    for (int i = 0; i < kPerThread; ++i) {
      auto rows = db.allocateDR(1);
      rows[0]->appName = prefix + std::to_string(i);
      rows[0]->blob = {i, i};
      if (i % 3 == 0) {
        db.writeDeallocateDR(rows);
      } else {
        db.cacheRow(rows);
        if (i % 7 == 0) db.KxDatabaseWriteCachedToDisk();
      }
    }
  };
  std::thread a(worker, "a"), b(worker, "b");
  a.join();
  b.join();
  db.KxDatabaseWriteCachedToDisk();
  KxDBDataRowKey any;
  EXPECT_EQ(db.getCountDR(any), 2 * kPerThread);
  auto names = db.getTxtColUniqList(KXDB_TXTCOL_APPNAME, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  EXPECT_EQ(names.size(), 1000u);
}

class KxDatabaseFileTest : public ::testing::Test {
 protected:
  DeviceRoot mRoot;
};

// Rows are found by their rowid, all 64 bits of it: an update or deletion
// never touches the row that shares its low 32 bits. A row that comes back
// with rowid 0 is taken for one never stored, even when the table does hold
// a row under rowid 0: deleting it must not touch that row.
TEST_F(KxDatabaseFileTest, RowidsSelectTheirOwnRowAndZeroSelectsNone) {
  MeterDb db(0, "Vorak.db", "Vorak");
  ASSERT_EQ(db.KxDatabaseInit(), KXDB_SUCCESS);
  ASSERT_EQ(OtherConnection(mRoot.dataFile("Vorak.db"))
                .exec("INSERT INTO Vorak(rowid, appName, blob) VALUES "
                      "(0, 'zero', zeroblob(16)), (5, 'low', zeroblob(16)), (4294967301, 'high', zeroblob(16))"),
            SQLITE_OK);
  KxDBDataRowKey high("high", 0), zero("zero", 0);
  auto rows = db.readAllocateDR(high, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  ASSERT_EQ(rows.size(), 1u);
  rows[0]->blob = {7, 7};
  db.writeDeallocateDR(rows);
  EXPECT_EQ(storedNames(db), (std::vector<std::string>{"zero", "low", "high"}));

  rows = db.readAllocateDR(high, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  auto stored0 = db.readAllocateDR(zero, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  ASSERT_EQ(rows.size(), 1u);
  ASSERT_EQ(stored0.size(), 1u);
  EXPECT_EQ(rows[0]->blob.ionKgsl, 7);
  rows.push_back(stored0[0]);
  rows.push_back(db.allocateDR(1)[0]);  // fresh, never stored
  rows.push_back(nullptr);
  EXPECT_EQ(db.deleteDeallocateDR(rows), 4);
  EXPECT_TRUE(rows.empty());
  EXPECT_EQ(storedNames(db), (std::vector<std::string>{"zero", "low"}));
}

TEST_F(KxDatabaseFileTest, RowsSurviveCloseAndReopenInWalMode) {
  {
    MeterDb db(0, "Vorak.db", "Vorak");
    ASSERT_EQ(db.KxDatabaseInit(), KXDB_SUCCESS);
    putSample(db, "com.a", 3, 4);
    auto rows = db.allocateDR(1);
    rows[0]->appName = "cached";
    rows[0]->blob = {5, 6};
    db.cacheRow(rows);  // written by the destructor
  }
  MeterDb db(0, "Vorak.db", "Vorak");
  ASSERT_EQ(db.KxDatabaseInit(), KXDB_SUCCESS);
  KxDBDataRowKey any;
  EXPECT_EQ(db.getCountDR(any), 2);
  std::ifstream wal(mRoot.dataFile("Vorak.db-wal"));
  EXPECT_TRUE(wal.good()) << "a file database runs in WAL mode";
  EXPECT_FALSE(std::filesystem::exists(mRoot.dataFile("Vorak.db.corrupt.1"))) << "a healthy file stays";
}

std::string shell(const std::string& cmd) {
  std::string out;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(cmd.c_str(), "r"), pclose);
  if (!pipe) return out;
  std::array<char, 512> buf;
  while (fgets(buf.data(), buf.size(), pipe.get()) != nullptr) out += buf.data();
  return out;
}

// The file as another program reads it: the store's schema, unset values as
// NULL, blobs of each size in native little-endian fields without a header,
// service names in 256-byte slots.
TEST_F(KxDatabaseFileTest, FileIsAnOrdinarySqliteDatabaseWithTheStoresSchemaAndBlobs) {
  {
    KxDatabase<_vorak_User_Launched_Data> user(0, "Blobs.db", "User");
    ASSERT_EQ(user.KxDatabaseInit(), KXDB_SUCCESS);
    auto rows = user.allocateDR(1);
    rows[0]->appName = "com.a";
    rows[0]->blob.value = 0x11223344;
    user.writeDeallocateDR(rows);

    KxDatabase<_vorak_Feature_Action_Data> action(0, "Blobs.db", "Action");
    ASSERT_EQ(action.KxDatabaseInit(), KXDB_SUCCESS);
    auto needs = action.allocateDR(1);
    needs[0]->appName = "com.a";
    needs[0]->blob = {0x0102030405060708, -2};
    action.writeDeallocateDR(needs);

    KxDatabase<_vorak_App_Service_Out> services(0, "Blobs.db", "Service");
    ASSERT_EQ(services.KxDatabaseInit(), KXDB_SUCCESS);
    auto deps = services.allocateDR(1);
    deps[0]->appName = "com.a";
    std::memset(&deps[0]->blob, 0, sizeof deps[0]->blob);
    std::strcpy(deps[0]->blob.serviceNames[0], "svc.one");
    std::strcpy(deps[0]->blob.serviceNames[1], "b");
    services.writeDeallocateDR(deps);
  }
  const std::string query = std::string(SQLITE3_SHELL) + " " + mRoot.dataFile("Blobs.db") + " ";
  EXPECT_EQ(shell(query + "'.schema User'"),
            "CREATE TABLE User(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB);\n");
  EXPECT_EQ(shell(query + "\"SELECT appName, quote(intcol1), quote(rsvdName) FROM User\""), "com.a|NULL|NULL\n");
  EXPECT_EQ(shell(query + "\"SELECT length(blob), hex(blob) FROM User\""), "4|44332211\n");
  EXPECT_EQ(shell(query + "\"SELECT length(blob), hex(blob) FROM Action\""),
            "16|0807060504030201FEFFFFFFFFFFFFFF\n");
  const std::string firstSlot = "7376632E6F6E65" + std::string(2 * (256 - 7), '0');  // "svc.one", NUL-padded
  EXPECT_EQ(shell(query + "\"SELECT length(blob), hex(substr(blob, 1, 256)), hex(substr(blob, 257, 2)) FROM Service\""),
            "3072|" + firstSlot + "|6200\n");
}

}  // namespace
