// Random operation sequences against the store and a plain in-memory
// reference, compared after every step.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "KxdbTestSupport.h"
#include "kxdb/KxLastError.h"
#include "kxhost/LogCapture.h"

using namespace kxtest;

namespace {

struct RefRow {
  std::string name;
  int64_t ion;
  int64_t rss;
  bool operator==(const RefRow& o) const { return name == o.name && ion == o.ion && rss == o.rss; }
};

class KxDatabaseModelTest : public ::testing::TestWithParam<unsigned> {
 protected:
  // rowid -> row, as stored; cached rows are kept apart until written back.
  std::map<int64_t, RefRow> mStored;
  std::vector<std::pair<int64_t, RefRow>> mCached;  // (rowid or 0, row)

  void writeBackReference() {
    for (auto& [rowid, row] : mCached) {
      // SQLite gives a new row the largest rowid plus one.
      if (rowid == 0) mStored[mStored.empty() ? 1 : mStored.rbegin()->first + 1] = row;
      else if (mStored.count(rowid)) mStored[rowid] = row;
    }
    mCached.clear();
  }

  std::map<int64_t, RefRow> storeContents(MeterDb& db) {
    KxDBDataRowKey any;
    auto rows = db.readAllocateDR(any, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
    std::map<int64_t, RefRow> out;
    for (auto* r : rows) out[r->rowid] = {r->appName, r->blob.ionKgsl, r->blob.rssSwap};
    db.deallocateDR(rows);
    return out;
  }
};

TEST_P(KxDatabaseModelTest, StoreMatchesReferenceAfterEveryStep) {
  kxhost::LogCapture quiet;
  MeterDb db(0, "", "Vorak");
  ASSERT_EQ(db.KxDatabaseInit(), KXDB_SUCCESS);
  std::mt19937 rng(GetParam());
  const std::vector<std::string> names = {"a", "b", "c", "it's", "x') OR 1=1 --"};
  auto pick = [&](int n) { return static_cast<int>(rng() % n); };

  for (int step = 0; step < 1500; ++step) {
    const std::string& name = names[pick(names.size())];
    KxDBDataRowKey key(name, 0);
    switch (pick(5)) {
      case 0: {  // allocate and cache fresh rows
        auto rows = db.allocateDR(1 + pick(3));
        for (auto* r : rows) {
          r->appName = name;
          r->blob = {pick(1000), pick(1000)};
          mCached.push_back({0, {name, r->blob.ionKgsl, r->blob.rssSwap}});
        }
        db.cacheRow(rows);
        break;
      }
      case 1:  // write back
        db.KxDatabaseWriteCachedToDisk();
        writeBackReference();
        break;
      case 2: {  // read, change, write back in place
        auto rows = db.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
        for (auto* r : rows) {
          r->blob.rssSwap += 1;
          mCached.push_back({r->rowid, {r->appName, r->blob.ionKgsl, r->blob.rssSwap}});
        }
        // Handing over no rows writes nothing back.
        if (db.writeDeallocateDR(rows) > 0) writeBackReference();
        break;
      }
      case 3: {  // delete the rows read
        auto rows = db.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
        for (auto* r : rows) mStored.erase(r->rowid);
        db.deleteDeallocateDR(rows);
        break;
      }
      case 4: {  // delete by key
        int expected = 0;
        for (auto it = mStored.begin(); it != mStored.end();)
          if (it->second.name == name) it = mStored.erase(it), ++expected;
          else ++it;
        EXPECT_EQ(db.deleteAllDR(key), expected);
        break;
      }
    }
    ASSERT_STREQ(kxdb::lastError(), "") << "step " << step;
    ASSERT_EQ(storeContents(db), mStored) << "step " << step;
    int count = 0;
    for (auto& [id, row] : mStored) count += row.name == name;
    ASSERT_EQ(db.getCountDR(key), count) << "step " << step;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, KxDatabaseModelTest, ::testing::Values(1u, 7u, 42u));

}  // namespace
