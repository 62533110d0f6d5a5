// Selection by key, counting, deletion by key and distinct values.
#include <gtest/gtest.h>

#include "KxdbTestSupport.h"
#include "kxdb/KxLastError.h"
#include "kxhost/LogCapture.h"

using namespace kxtest;

namespace {

class KxDatabaseQueryTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(mDb.KxDatabaseInit(), KXDB_SUCCESS); }

  std::string where(const KxDBDataRowKey& k) {
    KxDBDataRowKey key = k;
    std::string q;
    mDb.build_query_for_where_clause(key, q);
    return q;
  }
  std::vector<std::string> names(KxDBDataRowKey key, unsigned long n, kxdbOrderByCol col, kxdbOrderByDir dir) {
    auto rows = mDb.readAllocateDR(key, n, col, dir);
    std::vector<std::string> out;
    for (auto* r : rows) out.push_back(r->appName);
    mDb.deallocateDR(rows);
    return out;
  }

  MeterDb mDb{0, "", "Vorak"};
};

TEST_F(KxDatabaseQueryTest, WhereClauseNamesTheSetFieldsInFixedOrder) {
  KxDBDataRowKey key;
  EXPECT_EQ(where(key), "");
  key.appName = "com.a.b";
  EXPECT_EQ(where(key), "WHERE (appName) = ('com.a.b') ");
  key.intcol1 = 3;
  EXPECT_EQ(where(key), "WHERE (appName,intcol1) = ('com.a.b',3) ");
  key.rsvdName = "r";
  key.intcol1 = -4;
  EXPECT_EQ(where(key), "WHERE (appName,rsvdName,intcol1) = ('com.a.b','r',-4) ");
  KxDBDataRowKey onlyRsvd;
  onlyRsvd.rsvdName = "x";
  EXPECT_EQ(where(onlyRsvd), "WHERE (rsvdName) = ('x') ");
  // A key longer than the statement around it selects its row like any other.
  onlyRsvd.rsvdName = std::string(300, 'r');
  EXPECT_EQ(where(onlyRsvd), "WHERE (rsvdName) = ('" + onlyRsvd.rsvdName + "') ");
  auto rows = mDb.allocateDR(1);
  rows[0]->appName = "com.long";
  rows[0]->rsvdName = onlyRsvd.rsvdName;
  rows[0]->blob = {1, 1};
  mDb.writeDeallocateDR(rows);
  EXPECT_EQ(mDb.getCountDR(onlyRsvd), 1);
}

TEST_F(KxDatabaseQueryTest, OrderingWithAndWithoutDirection) {
  putSample(mDb, "b", 0, 0, 2);
  putSample(mDb, "c", 0, 0, 1);
  putSample(mDb, "a", 0, 0, 3);
  KxDBDataRowKey any;
  EXPECT_EQ(names(any, 0, KXDB_ORDER_BY_APPNAME, KXDB_DIR_DESC), (std::vector<std::string>{"c", "b", "a"}));
  EXPECT_EQ(names(any, 0, KXDB_ORDER_BY_INTCOL1, KXDB_DIR_NONE), (std::vector<std::string>{"c", "b", "a"}));
  EXPECT_EQ(names(any, 2, KXDB_ORDER_BY_APPNAME, KXDB_DIR_ASC), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(mDb.getTxtColUniqList(KXDB_TXTCOL_APPNAME, KXDB_ORDER_BY_APPNAME, KXDB_DIR_DESC),
            (std::vector<std::string>{"c", "b", "a"}));
  EXPECT_STREQ(kxdb::lastError(), "");
}

TEST_F(KxDatabaseQueryTest, NullColumnsComeBackUnset) {
  putSample(mDb, "n", 1, 2);
  KxDBDataRowKey key("n", 0);
  auto rows = mDb.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]->intcol1, KXDB_INTCOL_UNSET);
  EXPECT_EQ(rows[0]->rsvdName, "");
  EXPECT_EQ(rows[0]->blob.ionKgsl, 1);
  mDb.deallocateDR(rows);
}

TEST_F(KxDatabaseQueryTest, ReadsAreCappedAtTenThousandRows) {
  for (int batch = 0; batch < 101; ++batch) {
    auto rows = mDb.allocateDR(100);
    for (auto* r : rows) r->appName = "many", r->blob = {batch, batch};
    mDb.cacheRow(rows);
  }
  mDb.KxDatabaseWriteCachedToDisk();
  KxDBDataRowKey key("many", 0);
  EXPECT_EQ(mDb.getCountDR(key), 10100);
  kxhost::LogCapture log;
  auto rows = mDb.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  EXPECT_EQ(rows.size(), 10000u);
  EXPECT_EQ(log.count("Restrict"), 0u);
  mDb.deallocateDR(rows);
  rows = mDb.readAllocateDR(key, 20000, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  EXPECT_EQ(rows.size(), 10000u);
  EXPECT_EQ(log.count("Dbt=Vorak Restrict reqCnt to 10000\n", ANDROID_LOG_WARN), 1u);
  mDb.deallocateDR(rows);
  EXPECT_EQ(mDb.deleteAllDR(key), 10100);
}

TEST_F(KxDatabaseQueryTest, DistinctValuesAreCappedAtOneThousand) {
  for (int batch = 0; batch < 11; ++batch) {
    auto rows = mDb.allocateDR(100);
    for (size_t i = 0; i < rows.size(); ++i) rows[i]->appName = std::to_string(batch * 100 + i), rows[i]->blob = {0, 0};
    mDb.writeDeallocateDR(rows);
  }
  kxhost::LogCapture log;
  EXPECT_EQ(mDb.getTxtColUniqList(KXDB_TXTCOL_APPNAME, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE).size(), 1000u);
  EXPECT_EQ(log.count("Dbt=Vorak Restrict Cnt to 1000\n", ANDROID_LOG_WARN), 1u);
}

}  // namespace
