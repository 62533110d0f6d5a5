// The store under faults of its file: locks held elsewhere, a full
// database, a failing disk, rows that cannot be stored.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <functional>
#include <optional>
#include <stdexcept>

#include "KxdbTestSupport.h"
#include "kxdb/KxFailFast.h"
#include "kxdb/KxLastError.h"
#include "kxhost/LogCapture.h"
#include "support/FailingAllocation.h"

using namespace kxtest;

namespace {

std::vector<std::string> numbered(const std::string& prefix, size_t n) {
  std::vector<std::string> names;
  for (size_t i = 0; i < n; ++i) names.push_back(prefix + std::to_string(i));
  return names;
}

// Public, for the fault table's functions.
class KxDatabaseFaultTest : public ::testing::Test {
 public:
  void SetUp() override { ASSERT_EQ(mDb.KxDatabaseInit(), KXDB_SUCCESS); }

  void cache(const std::vector<std::string>& names) {
    for (size_t done = 0; done < names.size();) {
      auto rows = mDb.allocateDR(names.size() - done);
      for (auto* r : rows) r->appName = names[done++], r->blob = {1, 2};
      mDb.cacheRow(rows);
    }
  }
  int count() {
    KxDBDataRowKey any;
    return mDb.getCountDR(any);
  }

  DeviceRoot mRoot;
  StoreConnection mStore;  // before the store, which it catches opening
  MeterDb mDb{0, "Vorak.db", "Vorak"};
  OtherConnection mOther{mRoot.dataFile("Vorak.db")};
  kxhost::LogCapture mLog;
};

struct WriteFault {
  const char* name;
  std::function<void(KxDatabaseFaultTest&)> inject, repair;
  bool failFast;
  const char* error;  // in the thread's last error while the fault lasts
};

// A file written beyond its current end fails, as on a full file system.
void limitFileSize(rlim_t bytes) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = bytes;
  setrlimit(RLIMIT_FSIZE, &limit);
}

void PrintTo(const WriteFault& fault, std::ostream* os) { *os << fault.name; }

class KxDatabaseWriteFaultTest : public KxDatabaseFaultTest, public ::testing::WithParamInterface<WriteFault> {};

// Every row handed over while the fault lasts stays cached, through failed
// write-backs, and all are committed in order by the first one after it.
TEST_P(KxDatabaseWriteFaultTest, FailedWriteBackKeepsEveryRowForTheNext) {
  const WriteFault& fault = GetParam();
  const auto names = numbered("r", 300);
  cache(names);
  fault.inject(*this);
  {
    std::optional<kxdb::FailFastScope> launchPath;
    if (fault.failFast) launchPath.emplace();
    EXPECT_EQ(mDb.KxDatabaseWriteCachedToDisk(), KXDB_FAILURE);
    EXPECT_NE(std::string(kxdb::lastError()).find(std::string("writeCachedDRToDisk: ") + fault.error),
              std::string::npos)
        << kxdb::lastError();
    EXPECT_EQ(mDb.lockWaits() > 0, !fault.failFast && fault.error == std::string("database is locked"));
  }
  cache({"late"});
  EXPECT_EQ(count(), 0);
  fault.repair(*this);
  EXPECT_EQ(mDb.KxDatabaseWriteCachedToDisk(), KXDB_SUCCESS);
  EXPECT_STREQ(kxdb::lastError(), "");
  auto expected = names;
  expected.push_back("late");
  EXPECT_EQ(storedNames(mDb), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, KxDatabaseWriteFaultTest,
    ::testing::Values(
        WriteFault{"LockHeldElsewhere", [](auto& t) { ASSERT_EQ(t.mOther.exec("BEGIN IMMEDIATE"), SQLITE_OK); },
                   [](auto& t) { t.mOther.exec("COMMIT"); }, false, "database is locked"},
        WriteFault{"LockHeldElsewhereOnTheLaunchPath",
                   [](auto& t) { ASSERT_EQ(t.mOther.exec("BEGIN IMMEDIATE"), SQLITE_OK); },
                   [](auto& t) { t.mOther.exec("COMMIT"); }, true, "database is locked"},
        WriteFault{"DatabaseFull", [](auto& t) { t.mStore.exec("PRAGMA max_page_count=1"); },
                   [](auto& t) { t.mStore.exec("PRAGMA max_page_count=1000000"); }, false, "database or disk is full"},
        WriteFault{"TableDroppedElsewhere", [](auto& t) { ASSERT_EQ(t.mOther.exec("DROP TABLE Vorak"), SQLITE_OK); },
                   [](auto& t) { t.mOther.exec("CREATE TABLE Vorak(intcol1, appName TEXT NOT null, rsvdName, blob)"); },
                   false, "SQL logic error"},
        WriteFault{"DiskWriteFails", [](auto&) { limitFileSize(0); }, [](auto&) { limitFileSize(RLIM_INFINITY); },
                   false, "disk I/O error"}),
    [](const auto& info) { return std::string(info.param.name); });

// While the disk stays full, the cache keeps the newest rows up to its bound.
TEST_F(KxDatabaseFaultTest, CacheDropsOldestRowsPastItsBoundWhileTheDiskIsFull) {
  const size_t bound = MeterDb::kMaxCachedRows, megabyte = size_t{1} << 20;
  EXPECT_TRUE(bound * sizeof(MeterRow) <= megabyte && (bound + 1) * sizeof(MeterRow) > megabyte);
  cache(numbered("r", bound));
  mStore.exec("PRAGMA max_page_count=1");
  EXPECT_EQ(mDb.KxDatabaseWriteCachedToDisk(), KXDB_FAILURE);
  EXPECT_EQ(mLog.count("cache full"), 0u) << "a cache at its bound keeps every row";
  cache(numbered("s", 50));
  EXPECT_EQ(mDb.KxDatabaseWriteCachedToDisk(), KXDB_FAILURE);
  EXPECT_EQ(mLog.count("cache full while writes fail: dropped 50 oldest rows, 50 in all\n"), 1u);
  mStore.exec("PRAGMA max_page_count=1000000");
  EXPECT_EQ(mDb.KxDatabaseWriteCachedToDisk(), KXDB_SUCCESS);
  EXPECT_EQ(count(), static_cast<int>(bound));
  EXPECT_EQ(storedNames(mDb).front(), "r50");
}

// Only a row that can never be stored is dropped; the write-back reports
// it, under its own name, and commits the others.
TEST_F(KxDatabaseFaultTest, RowBreakingNotNullIsDroppedAndTheOthersCommitted) {
  cache({"", "a", "b"});  // first row of the write-back: NULL appName
  EXPECT_EQ(mDb.writeCachedDRToDisk(), KXDB_FAILURE);
  EXPECT_STREQ(kxdb::lastError(), "writeCachedDRToDisk: constraint failed (19)");
  EXPECT_EQ(mLog.lines().size(), 1u);
  EXPECT_EQ(mLog.count("KXDB: writeCachedDRToDisk() "), 1u);
  EXPECT_EQ(mLog.count("sql:ERROR:Dbt=Vorak info=19\n", ANDROID_LOG_ERROR), 1u);
  EXPECT_EQ(storedNames(mDb), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(mDb.writeCachedDRToDisk(), KXDB_SUCCESS);  // not retried
}

TEST_F(KxDatabaseFaultTest, DeletionThatCannotCommitLeavesRowsStoredAndWithTheCaller) {
  cache({"a", "b"});
  ASSERT_EQ(mDb.writeCachedDRToDisk(), KXDB_SUCCESS);
  KxDBDataRowKey any;
  auto rows = mDb.readAllocateDR(any, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  ASSERT_EQ(mOther.exec("BEGIN IMMEDIATE"), SQLITE_OK);
  {
    kxdb::FailFastScope launchPath;
    EXPECT_EQ(mDb.deleteDeallocateDR(rows), 0);
  }
  EXPECT_EQ(rows.size(), 2u);
  EXPECT_NE(std::string(kxdb::lastError()).find("deleteDeallocateDR: "), std::string::npos);
  mOther.exec("COMMIT");
  // A row refused after others went is the same: the whole deletion is undone.
  mOther.exec("CREATE TRIGGER keep BEFORE DELETE ON Vorak WHEN old.appName = 'b' BEGIN SELECT RAISE(ABORT, 'kept'); END");
  EXPECT_EQ(mDb.deleteDeallocateDR(rows), 0);
  EXPECT_STREQ(kxdb::lastError(), "deleteDeallocateDR: constraint failed (19)");
  mOther.exec("DROP TRIGGER keep");
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(mDb.deleteDeallocateDR(rows), 2);
  EXPECT_EQ(count(), 0);
}

// Out of memory, the rows that could be had are handed over, and the
// shortfall is reported.
TEST_F(KxDatabaseFaultTest, RefusedAllocationsGiveTheRowsThatCouldBeHad) {
  cache({"a", "b", "c"});  // the read stops at the first refusal
  ASSERT_EQ(mDb.writeCachedDRToDisk(), KXDB_SUCCESS);
  KxDBDataRowKey any;
  MeterDb::vecT allocated, read;
  {
    kxtest::NothrowFailure third(3);
    allocated = mDb.allocateDR(5);
    kxtest::NothrowFailure second(2);
    read = mDb.readAllocateDR(any, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  }
  EXPECT_EQ(allocated.size(), 2u);
  EXPECT_EQ(mLog.count("ERROR:Dbt=Vorak new operator failure, allocated=2\n", ANDROID_LOG_ERROR), 1u);
  ASSERT_EQ(read.size(), 1u);
  EXPECT_EQ(read[0]->appName, "a");
  EXPECT_STREQ(kxdb::lastError(), "readAllocateDR: new operator failure (7)");
  EXPECT_EQ(mLog.count("ERROR:Dbt=Vorak new operator failure, allocated=0\n", ANDROID_LOG_ERROR), 1u);
  mDb.deallocateDR(allocated);
  mDb.deallocateDR(read);
}

// Whatever is thrown inside an operation stays inside it, as its failure.
TEST_F(KxDatabaseFaultTest, AThrowEndsTheOperationAsItsFailure) {
  cache({"a", "b"});
  ASSERT_EQ(mDb.writeCachedDRToDisk(), KXDB_SUCCESS);
  KxDBDataRowKey any;
  auto throwing = [](auto thrown) { return [thrown](auto&) { throw thrown; }; };
  EXPECT_EQ(mDb.readEachDR(any, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE, throwing(std::runtime_error("boom"))), 1u);
  EXPECT_STREQ(kxdb::lastError(), "readAllocateDR: boom (7)");
  EXPECT_EQ(mDb.readEachDR(any, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE, throwing(7)), 1u);
  EXPECT_STREQ(kxdb::lastError(), "readAllocateDR: exception (7)");
  EXPECT_EQ(mLog.count("Caught exception: boom in readAllocateDR", ANDROID_LOG_ERROR), 1u);
  EXPECT_EQ(mLog.count("Error in std::string operations in readAllocateDR", ANDROID_LOG_ERROR), 1u);
}

TEST_F(KxDatabaseFaultTest, ATableDroppedElsewhereHasNothingToCountOrDelete) {
  cache({"a"});
  ASSERT_EQ(mDb.writeCachedDRToDisk(), KXDB_SUCCESS);
  ASSERT_EQ(mOther.exec("DROP TABLE Vorak"), SQLITE_OK);
  EXPECT_EQ(count(), 0);  // the first statement to run learns of the drop
  KxDBDataRowKey any;
  EXPECT_EQ(mDb.deleteAllDR(any), 0);
  EXPECT_STREQ(kxdb::lastError(), "deleteAllDR: no such table: Vorak (1)");
}

// A file that could not switch to WAL at open (a reader held it) blocks
// readers while another connection writes. On the launch path a read then
// returns nothing at once, without a pause, and the refusal is logged once
// until a call succeeds again.
TEST(KxDatabaseFailFast, ReadOnTheLaunchPathNeverWaitsAndLogsOncePerStreak) {
  DeviceRoot root;
  OtherConnection other(root.dataFile("Vorak.db"));
  ASSERT_EQ(other.exec("CREATE TABLE Vorak(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB);"
                       "INSERT INTO Vorak(appName, blob) VALUES ('a', zeroblob(16));"
                       "BEGIN; SELECT * FROM Vorak;"),
            SQLITE_OK);
  kxdb::FailFastScope launchPath;
  MeterDb db(0, "Vorak.db", "Vorak");
  ASSERT_EQ(db.KxDatabaseInit(), KXDB_SUCCESS);
  other.exec("COMMIT");
  kxhost::LogCapture log;
  auto readsOfLockedFile = [&] {
    ASSERT_EQ(other.exec("BEGIN EXCLUSIVE"), SQLITE_OK);
    for (int launch = 0; launch < 3; ++launch) {
      EXPECT_TRUE(storedNames(db).empty());
      EXPECT_NE(std::string(kxdb::lastError()).find("readAllocateDR: "), std::string::npos);
    }
    other.exec("COMMIT");
  };
  readsOfLockedFile();
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.count("KXDB: readAllocateDR() "), 1u);
  EXPECT_EQ(storedNames(db), std::vector<std::string>{"a"});
  readsOfLockedFile();
  EXPECT_EQ(log.count("KXDB: readAllocateDR() "), 2u);
  EXPECT_EQ(db.lockWaits(), 0u);
}

}  // namespace
