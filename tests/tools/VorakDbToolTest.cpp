// vorak-db run as a subprocess on database files made here the way the
// plug-in's table store makes them, and on broken files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "support/TempDir.h"
#include "support/ToolRun.h"

namespace {

using kxtest::slurp;
using kxtest::ToolRun;
using testing::HasSubstr;

class VorakDbTool : public ::testing::Test {
 protected:
  ToolRun tool(std::vector<std::string> args) {
    args.insert(args.begin(), VORAK_DB_TOOL);
    return kxtest::runTool(mDir, std::string("timeout 20 ") + VORAK_TOOL_LAUNCHER, args);
  }

  // Runs `sql` on a new database at `rel`.
  std::string exec(const std::string& rel, const std::string& sql) {
    const std::string path = mDir.write(rel, "");
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return path;
  }

  // A table with the store's schema; each row is (appName, blob).
  std::string makeDb(const std::string& rel, const std::vector<std::pair<std::string, std::string>>& rows) {
    std::string sql = "PRAGMA journal_mode=WAL;"
                      "CREATE TABLE Vorak(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB);";
    for (const auto& [app, blob] : rows) {
      sql += "INSERT INTO Vorak(appName, blob) VALUES ('" + app + "', x'";
      for (unsigned char c : blob) (sql += "0123456789abcdef"[c >> 4]) += "0123456789abcdef"[c & 15];
      sql += "');";
    }
    return exec(rel, sql);
  }

  static std::string pair64(int64_t a, int64_t b) {
    const int64_t v[] = {a, b};
    return std::string(reinterpret_cast<const char*>(v), sizeof v);
  }
  static std::string int32(int32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

  kxtest::TempDir mDir;
};

// Paths and contents of everything in the directory: what a run left.
std::string listing(const std::string& dir) {
  std::string out;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir)) {
    if (e.path().filename() == "tool.out" || e.path().filename() == "tool.err") continue;
    out += e.path().string() + (e.is_regular_file() ? " " + slurp(e.path().string()) : " dir") + "\n";
  }
  return out;
}

TEST_F(VorakDbTool, DecodesEveryRowTypeTakenFromTheFileName) {
  const auto samples = makeDb("Vorak.db", {{"com.a", pair64(40960, 204800)}, {"com.a", pair64(-1, 0)}});
  // A file in WAL mode, closed: reading it creates no -wal or -shm beside it.
  const std::string before = listing(mDir.path());
  EXPECT_EQ(tool({samples}).code, 0);
  EXPECT_EQ(listing(mDir.path()), before);

  const auto needs =
      makeDb("Vorakaction.db", {{"com.maps", pair64(150000, 380000)}, {"com.huge", pair64(INT64_MAX, 1)}});
  std::string services(12 * 256, '\0');  // twelve names of 256 bytes each
  services.replace(0, 10, "svc.camera").replace(256, 9, "svc.codec");
  const auto svc = makeDb("VorakServiceOP.db", {{"com.cam", services}});
  const auto states = makeDb("VorakAppState.db", {{"com.a", int32(2)}, {"com.b", int32(99)}});
  const auto unfit = makeDb("unfit/Vorak.db", {{"com.ok", pair64(1, 2)}, {"com.short", std::string(3, 'x')}});
  const struct {
    std::vector<std::string> args, says;
    int code = 0;
    const char* err = "";
  } cases[] = {
      {{samples}, {"2 rows", "com.a     40960    204800", "com.a        -1         0"}},
      {{needs}, {"150000    380000    530000\n", "1  overflow"}},
      {{needs, "--json"}, {R"("rssSwap":380000)"}},
      {{svc, "--json"}, {R"("services":["svc.camera","svc.codec"])"}},
      {{states}, {"2 (learnt)", "99 (learn failed)"}},
      // A row that does not fit the type is marked and fails the run.
      {{unfit}, {"!! blob of 3 bytes"}, 1, "1 of 2 rows"},
  };
  for (const auto& c : cases) {
    const ToolRun r = tool(c.args);
    EXPECT_EQ(r.code, c.code) << r.err;
    EXPECT_THAT(r.err, HasSubstr(c.err));
    const std::string out = c.args.back() == "--json" ? nlohmann::json::parse(r.out)["rows"].dump() : r.out;
    for (const std::string& s : c.says) EXPECT_THAT(out, HasSubstr(s));
  }
}

TEST_F(VorakDbTool, InMemoryTablesAreDecodedByTheTypeOptionAndUsageIsChecked) {
  const std::string fav = "com.a/com.b//com.c/";
  const auto favs = makeDb("copy-of-favourites.db", {{"week_day_2", fav + std::string(4096 - fav.size(), '\0')}});
  const ToolRun r = tool({favs, "--type", "favourites", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out)["rows"][0]["apps"], (nlohmann::json{"com.a", "com.b", "com.c"}));

  const std::pair<std::vector<std::string>, const char*> usage[] = {
      {{favs}, "cannot tell the row type"}, {{favs, "-t", "bogus"}, ""}, {{}, "FILE is required"},
      {{"--frobnicate"}, ""},
  };
  for (const auto& [args, says] : usage) {
    const ToolRun bad = tool(args);
    EXPECT_EQ(bad.code, 2) << testing::PrintToString(args);
    EXPECT_THAT(bad.err, HasSubstr(says));
  }
  EXPECT_EQ(tool({"--help"}).code, 0);
}

// Every kind of bad input: one line on stderr, status 2, within seconds, and
// the file and its directory exactly as they were (no journal rolled back,
// no -wal or -shm created).
TEST_F(VorakDbTool, RefusesEveryBadInputInOneLineAndLeavesItAlone) {
  const std::string data = slurp(makeDb("valid/Vorak.db", {{"com.a", pair64(1, 2)}}));  // closed and checkpointed
  ASSERT_GT(data.size(), 4096u);
  std::string noise(8192, '\0');
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * i * 40503 >> 7);
  const auto other = exec("other/Vorak.db", "CREATE TABLE Vorak(a, b); CREATE TABLE t(appName, blob)");
  const auto generated = exec("generated/Vorak.db",
                              "CREATE TABLE Vorak(intcol1, appName, rsvdName, blob AS (zeroblob(900000000)));"
                              "INSERT INTO Vorak(appName) VALUES ('com.a')");
  // A write cut short: a copy of the file with the journal that would roll it back.
  const std::string live = mDir.write("hot/live.db", data), hot = mDir.sub("hot/Vorak.db");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(live.c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "PRAGMA journal_mode=DELETE; PRAGMA cache_size=1; BEGIN; UPDATE Vorak SET blob = zeroblob(90000)",
               nullptr, nullptr, nullptr);
  std::filesystem::copy_file(live, hot);
  std::filesystem::copy_file(live + "-journal", hot + "-journal");
  sqlite3_close(db);

  const struct {
    std::string path, says;
  } cases[] = {
      {mDir.write("noise/Vorak.db", noise), "not a database"},
      {mDir.write("empty/Vorak.db", ""), "not a database of this system"},
      {mDir.write("cut/Vorak.db", data.substr(0, 4096 + 100)), "damaged"},
      {other, "not a database of this system"},
      {generated, "not a database of this system"},
      {hot, "journal is not rolled back"},
      {mDir.sub("absent/Vorak.db"), "No such file"},
      {mDir.path(), "is a directory"},
      {"/dev/zero", "not a regular file"},
  };
  for (const auto& c : cases) {
    const std::string before = listing(mDir.path());
    const ToolRun r = tool({"--type", "samples", c.path});
    EXPECT_EQ(r.code, 2) << c.path;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.err.rfind("vorak-db: " + c.path + ": ", 0), 0u) << r.err;
    EXPECT_THAT(r.err, HasSubstr(c.says)) << c.path;
    EXPECT_EQ(listing(mDir.path()), before) << c.path;
  }
}

}  // namespace
