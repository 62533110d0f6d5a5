// The table store beside raw SQLite doing the same required work.
//
// writeback: n rows allocated, filled, handed to the store and written back
// in one transaction, then freed. The raw twin allocates the same rows one
// by one, prepares both the INSERT and the UPDATE before it writes (the
// write-back must, whether or not a row needs the UPDATE), binds as the
// store binds (no copies, unset columns skipped) and frees the rows after
// the commit. Each iteration starts from a fresh in-memory table, untimed.
//
// read: the rows of one name read into row objects of the caller's; the
// raw twin fills the same row objects from the same columns.
//
// open: opening a file of 10 000 rows as the feature does at start-up; the
// store checks the file before use, the raw twin only opens it with the
// same pragma and table creation.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "FsRoot.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"
#include "kxhost/LogCapture.h"
#include "support/TempDir.h"

namespace {

using MeterDb = KxDatabase<_vorak_Meter_Data>;
using MeterRow = KxDBDataRow<_vorak_Meter_Data>;

// Longer than the short-string limit, as package names usually are.
constexpr char kName[] = "com.example.mediaplayer";
constexpr char kCreate[] = "CREATE TABLE IF NOT EXISTS Vorak(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB)";

void fillStore(MeterDb& db, int n) {
  for (int done = 0; done < n;) {
    auto rows = db.allocateDR(static_cast<unsigned long>(std::min(100, n - done)));
    for (auto* r : rows) r->appName = kName, r->blob = {done, done}, ++done;
    db.cacheRow(rows);
  }
}

sqlite3* openRaw(const char* name = ":memory:") {
  sqlite3* db = nullptr;
  sqlite3_open_v2(name, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  sqlite3_exec(db, kCreate, nullptr, nullptr, nullptr);
  return db;
}

void BM_WriteBackOurs(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::unique_ptr<MeterDb> db;
  kxbench::timeEach(
      state,
      [&] {
        db = std::make_unique<MeterDb>(0, "", "Vorak");
        db->KxDatabaseInit();
      },
      [&] {
        fillStore(*db, n);
        db->KxDatabaseWriteCachedToDisk();
      });
  state.SetItemsProcessed(state.iterations() * n);
}

// Binds like the store: text and blob without a copy, an unset intcol1 and
// an empty rsvdName left unbound; the rowid only for an UPDATE.
void rawWriteBack(sqlite3* db, std::vector<MeterRow*>& rows) {
  sqlite3_stmt* insert = nullptr;
  sqlite3_stmt* update = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO Vorak(intcol1, appName, rsvdName, blob) VALUES (?,?,?,?)", -1, &insert,
                     nullptr);
  sqlite3_prepare_v2(db, "UPDATE Vorak SET (intcol1, appName, rsvdName, blob) = (?,?,?,?) WHERE (rowid) = (?)", -1,
                     &update, nullptr);
  sqlite3_exec(db, "BEGIN IMMEDIATE TRANSACTION;", nullptr, nullptr, nullptr);
  for (const MeterRow* r : rows) {
    sqlite3_stmt* stmt = r->rowid != 0 ? update : insert;
    if (r->intcol1 != KXDB_INTCOL_UNSET) sqlite3_bind_int(stmt, 1, r->intcol1);
    sqlite3_bind_text(stmt, 2, r->appName.data(), static_cast<int>(r->appName.size()), SQLITE_STATIC);
    sqlite3_bind_blob(stmt, 4, &r->blob, sizeof r->blob, SQLITE_STATIC);
    if (stmt == update) sqlite3_bind_int64(stmt, 5, r->rowid);
    sqlite3_step(stmt);
    sqlite3_reset(stmt);
  }
  sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr);
  sqlite3_finalize(update);
  sqlite3_finalize(insert);
  for (auto* r : rows) delete r;
  rows.clear();
}

void BM_WriteBackRaw(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  sqlite3* db = nullptr;
  std::vector<MeterRow*> rows;
  kxbench::timeEach(
      state,
      [&] {
        sqlite3_close(db);
        db = openRaw();
      },
      [&] {
        rows.reserve(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) {
          auto* r = new MeterRow;
          r->appName = kName;
          r->blob = {i, i};
          rows.push_back(r);
        }
        rawWriteBack(db, rows);
      });
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_ReadOurs(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  MeterDb db(0, "", "Vorak");
  db.KxDatabaseInit();
  fillStore(db, n);
  db.KxDatabaseWriteCachedToDisk();
  KxDBDataRowKey key(kName, 0);
  kxbench::timeEach(
      state, [] {},
      [&] {
        auto rows = db.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
        benchmark::DoNotOptimize(rows.data());
        db.deallocateDR(rows);
      });
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_ReadRaw(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  sqlite3* db = openRaw();
  std::vector<MeterRow*> input;
  for (int i = 0; i < n; ++i) {
    input.push_back(new MeterRow);
    input.back()->appName = kName;
    input.back()->blob = {i, i};
  }
  rawWriteBack(db, input);
  const std::string sql = std::string("SELECT *, rowid FROM Vorak WHERE (appName) = ('") + kName + "') ";
  kxbench::timeEach(
      state, [] {},
      [&] {
        std::vector<MeterRow*> rows;
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
        while (sqlite3_step(stmt) == SQLITE_ROW) {
          auto* row = new MeterRow;
          rows.push_back(row);
          if (sqlite3_column_type(stmt, 0) != SQLITE_NULL) row->intcol1 = sqlite3_column_int(stmt, 0);
          row->appName = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1));
          if (const unsigned char* rsvd = sqlite3_column_text(stmt, 2))
            row->rsvdName = reinterpret_cast<const char*>(rsvd);
          const void* blob = sqlite3_column_blob(stmt, 3);
          const size_t stored = static_cast<size_t>(sqlite3_column_bytes(stmt, 3));
          std::memcpy(&row->blob, blob, std::min(stored, sizeof row->blob));
          row->rowid = sqlite3_column_int64(stmt, 4);
        }
        sqlite3_finalize(stmt);
        benchmark::DoNotOptimize(rows.data());
        for (auto* r : rows) delete r;
      });
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * n);
}

// A device root holding one file of n rows, removed afterwards.
class FileOfRows {
 public:
  explicit FileOfRows(int n) {
    std::filesystem::create_directories(mDir.sub("data/vendor/kx"));
    kxhost::setFsRoot(mDir.path());
    MeterDb db(0, "Vorak.db", "Vorak");
    db.KxDatabaseInit();
    fillStore(db, n);
  }
  ~FileOfRows() { kxhost::setFsRoot(""); }
  std::string path() const { return mDir.sub("data/vendor/kx/Vorak.db"); }

 private:
  kxtest::TempDir mDir{kxbench::deviceBase()};
};

void BM_OpenOurs(benchmark::State& state) {
  FileOfRows file(static_cast<int>(state.range(0)));
  std::unique_ptr<MeterDb> db;
  kxbench::timeEach(
      state, [&] { db.reset(); },
      [&] {
        db = std::make_unique<MeterDb>(0, "Vorak.db", "Vorak");
        benchmark::DoNotOptimize(db->KxDatabaseInit());
      });
}

void BM_OpenRaw(benchmark::State& state) {
  FileOfRows file(static_cast<int>(state.range(0)));
  const std::string path = file.path();
  sqlite3* db = nullptr;
  kxbench::timeEach(
      state,
      [&] {
        sqlite3_close(db);
        db = nullptr;
      },
      [&] {
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
        sqlite3_exec(db, kCreate, nullptr, nullptr, nullptr);
      });
  sqlite3_close(db);
}

}  // namespace

BENCHMARK(BM_WriteBackOurs)->Name("writeback/ours")->Arg(1)->Arg(100)->Arg(10000)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WriteBackRaw)->Name("writeback/raw")->Arg(1)->Arg(100)->Arg(10000)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadOurs)->Name("read/ours")->Arg(100)->Arg(10000)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadRaw)->Name("read/raw")->Arg(100)->Arg(10000)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenOurs)->Name("open/ours")->Arg(10000)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenRaw)->Name("open/raw")->Arg(10000)->Apply(kxbench::countable)->UseManualTime()->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
  kxhost::LogCapture quiet;  // keep the store's lines off the report
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
