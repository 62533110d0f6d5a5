// vorak-db run as a subprocess on database files made here the way the
// plug-in's table store makes them, and on broken files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

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
    return kxtest::runTool(mDir, VORAK_TOOL_LAUNCHER, args);
  }

  // A table with the store's schema; each row is (appName, blob).
  std::string makeDb(const std::string& name, const std::vector<std::pair<std::string, std::string>>& rows) {
    const std::string path = mDir.sub(name);
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "CREATE TABLE IF NOT EXISTS Vorak(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB)",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO Vorak(appName, blob) VALUES (?, ?)", -1, &st, nullptr);
    for (const auto& [app, blob] : rows) {
      sqlite3_bind_text(st, 1, app.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_blob(st, 2, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
      EXPECT_EQ(sqlite3_step(st), SQLITE_DONE);
      sqlite3_reset(st);
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return path;
  }

  static std::string pair64(int64_t a, int64_t b) {
    std::string s(16, '\0');
    std::memcpy(&s[0], &a, 8);
    std::memcpy(&s[8], &b, 8);
    return s;
  }
  static std::string int32(int32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
  static std::string services(const std::vector<std::string>& names) {
    std::string s(12 * 256, '\0');
    for (size_t i = 0; i < names.size(); ++i) std::memcpy(&s[i * 256], names[i].data(), names[i].size());
    return s;
  }

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
  const auto svc = makeDb("VorakServiceOP.db", {{"com.cam", services({"svc.camera", "svc.codec"})}});
  const auto states = makeDb("VorakAppState.db", {{"com.a", int32(2)}, {"com.b", int32(99)}});
  const std::pair<std::vector<std::string>, std::vector<std::string>> cases[] = {
      {{samples}, {"2 rows", "com.a     40960    204800", "com.a        -1         0"}},
      {{needs}, {"150000    380000    530000\n", "1  overflow"}},
      {{needs, "--json"}, {R"("rssSwap":380000)"}},
      {{svc, "--json"}, {R"("services":["svc.camera","svc.codec"])"}},
      {{states}, {"2 (learnt)", "99 (learn failed)"}},
  };
  for (const auto& [args, says] : cases) {
    const ToolRun r = tool(args);
    EXPECT_EQ(r.code, 0) << r.err;
    const std::string out = args.back() == "--json" ? nlohmann::json::parse(r.out)["rows"].dump() : r.out;
    for (const std::string& s : says) EXPECT_THAT(out, HasSubstr(s));
  }
}

TEST_F(VorakDbTool, InMemoryTablesAreDecodedByTheTypeOptionAndUsageIsChecked) {
  std::string fav(4096, '\0');
  const std::string text = "com.a/com.b//com.c/";
  std::memcpy(&fav[0], text.data(), text.size());
  const auto favs = makeDb("copy-of-favourites.db", {{"week_day_2", fav}});
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

TEST_F(VorakDbTool, RowsThatDoNotFitTheTypeAreMarkedAndFailTheRun) {
  const auto db = makeDb("Vorak.db", {{"com.ok", pair64(1, 2)}, {"com.short", std::string(3, 'x')}});
  const ToolRun r = tool({db});
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.out, HasSubstr("!! blob of 3 bytes"));
  EXPECT_THAT(r.err, HasSubstr("1 of 2 rows"));
}

// Every kind of bad input: one line on stderr, status 2, within seconds, and
// the file and its directory exactly as they were (no journal rolled back,
// no -wal or -shm created).
TEST_F(VorakDbTool, RefusesEveryBadInputInOneLineAndLeavesItAlone) {
  for (const char* sub : {"valid", "other", "generated"}) std::filesystem::create_directories(mDir.sub(sub));
  const auto valid = makeDb("valid/Vorak.db", {{"com.a", pair64(1, 2)}});
  const std::string data = slurp(valid);  // closed and checkpointed: the rows are in the file
  ASSERT_GT(data.size(), 4096u);
  std::mt19937 rng(3);
  std::string noise(8192, '\0');
  for (char& c : noise) c = static_cast<char>(rng());

  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(mDir.sub("other/Vorak.db").c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "CREATE TABLE Vorak(a, b); CREATE TABLE t(appName, blob)", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  ASSERT_EQ(sqlite3_open(mDir.sub("generated/Vorak.db").c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "CREATE TABLE Vorak(intcol1, appName, rsvdName, blob AS (zeroblob(900000000)));"
               "INSERT INTO Vorak(appName) VALUES ('com.a')", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  // A write cut short: the journal that would roll it back stays beside it.
  const std::string hot = mDir.write("hot/Vorak.db", data);
  ASSERT_EQ(sqlite3_open(hot.c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "PRAGMA journal_mode=DELETE; PRAGMA cache_size=1; BEGIN; UPDATE Vorak SET blob = zeroblob(90000)",
               nullptr, nullptr, nullptr);
  std::filesystem::copy_file(hot, mDir.sub("hot/copy"));
  std::filesystem::copy_file(hot + "-journal", mDir.sub("hot/copy-journal"));
  sqlite3_close(db);
  std::filesystem::remove(hot);
  std::filesystem::rename(mDir.sub("hot/copy"), hot);
  std::filesystem::rename(mDir.sub("hot/copy-journal"), hot + "-journal");

  const struct {
    std::string path, says;
  } cases[] = {
      {mDir.write("noise/Vorak.db", noise), "not a database"},
      {mDir.write("empty/Vorak.db", ""), "not a database of this system"},
      {mDir.write("cut/Vorak.db", data.substr(0, 4096 + 100)), "damaged"},
      {mDir.sub("other/Vorak.db"), "not a database of this system"},
      {mDir.sub("generated/Vorak.db"), "not a database of this system"},
      {hot, "journal is not rolled back"},
      {mDir.sub("absent/Vorak.db"), "No such file"},
      {mDir.path(), "is a directory"},
      {"/dev/zero", "not a regular file"},
  };
  for (const auto& c : cases) {
    const std::string before = listing(mDir.path());
    kxtest::ToolRun r = kxtest::runTool(mDir, std::string("timeout 20 ") + VORAK_TOOL_LAUNCHER,
                                        {VORAK_DB_TOOL, "--type", "samples", c.path});
    EXPECT_EQ(r.code, 2) << c.path;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.err.rfind("vorak-db: " + c.path + ": ", 0), 0u) << r.err;
    EXPECT_THAT(r.err, HasSubstr(c.says)) << c.path;
    EXPECT_EQ(listing(mDir.path()), before) << c.path;
  }
}

}  // namespace
