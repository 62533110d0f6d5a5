#include "VorakDbFile.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstddef>
#include <cstring>

#include "FeatureState.h"
#include "kxdb/VorakRecords.h"

namespace vorakdb {
namespace {

// The blobs are the plug-in's records stored byte for byte: decode them by
// copying into the same records.
template <typename T>
T record(const std::string& blob) {
  T v;
  std::memcpy(&v, blob.data(), sizeof v);
  return v;
}

std::string baseName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A C string inside a fixed field; a field without a terminator ends at its size.
std::string fixedString(const char* p, size_t size) { return std::string(p, strnlen(p, size)); }

constexpr int kMaxValueBytes = 1 << 20;

std::string oneLine(std::string s) {
  std::replace(s.begin(), s.end(), '\n', ' ');
  return s;
}

bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// Read-only is not enough to leave the directory as it was: opening a file
// in WAL mode creates its -wal and -shm files. Without a -wal (or a rollback
// journal) beside it, every committed row is in the file itself, which is
// then read as immutable: no lock, no file created. A -wal or journal that
// is there belongs to a writer that may still be at work and is respected.
std::string openUri(const std::string& path) {
  std::string uri = "file:";
  for (unsigned char c : path) {
    if (std::isalnum(c) || std::strchr("/._-~", c) != nullptr) {
      uri += static_cast<char>(c);
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", c);
      uri += hex;
    }
  }
  const bool quiet = !exists(path + "-wal") && !exists(path + "-journal");
  return uri + (quiet ? "?immutable=1" : "?mode=ro");
}

}  // namespace

const std::vector<RowTypeInfo>& rowTypes() {
  static const std::vector<RowTypeInfo> kTypes = {
      {RowType::Samples, "samples", "meter samples (ion_kgsl, rss_swap KB)", sizeof(_vorak_Meter_Data)},
      {RowType::Needs, "needs", "learnt launch needs (mean ion_kgsl, rss_swap KB)",
       sizeof(_vorak_Feature_Action_Data)},
      {RowType::Services, "services", "dependent service lists", sizeof(_vorak_App_Service_In)},
      {RowType::User, "user", "user-launched values (process ids)", sizeof(_vorak_User_Launched_Data)},
      {RowType::Favourites, "favourites", "favourite applications per time slot",
       sizeof(_vorak_Favorite_Time_Slot_Data)},
      {RowType::States, "states", "learning states", sizeof(AppState)},
  };
  return kTypes;
}

const RowTypeInfo& info(RowType type) {
  for (const auto& t : rowTypes())
    if (t.type == type) return t;
  return rowTypes().front();
}

std::optional<RowType> rowTypeByName(const std::string& name) {
  for (const auto& t : rowTypes())
    if (name == t.name) return t.type;
  return std::nullopt;
}

std::optional<RowType> rowTypeFromFileName(const std::string& path) {
  const std::string name = baseName(path);
  if (name == "Vorak.db") return RowType::Samples;
  if (name == "Vorakaction.db") return RowType::Needs;
  if (name == "VorakServiceIP.db" || name == "VorakServiceOP.db") return RowType::Services;
  if (endsWith(name, "AppState.db")) return RowType::States;
  return std::nullopt;
}

const char* stateName(int32_t state) {
  switch (state) {
    case 0: return "collecting";
    case 1: return "learning due";
    case 2: return "learnt";
    case 3: return "relearn due";
    case 99: return "learn failed";
    default: return "";
  }
}

nlohmann::json decodeBlob(RowType type, const std::string& blob) {
  using nlohmann::json;
  const RowTypeInfo& t = info(type);
  if (blob.size() != t.blobSize) {
    return json{{"error", "blob of " + std::to_string(blob.size()) + " bytes, a " + t.name + " row has " +
                              std::to_string(t.blobSize)}};
  }
  switch (type) {
    case RowType::Samples: {
      const auto r = record<_vorak_Meter_Data>(blob);
      return json{{"ionKgsl", r.ionKgsl}, {"rssSwap", r.rssSwap}};
    }
    case RowType::Needs: {
      const auto r = record<_vorak_Feature_Action_Data>(blob);
      return json{{"ionKgsl", r.ionKgsl}, {"rssSwap", r.rssSwap}};
    }
    case RowType::Services: {
      const auto r = record<_vorak_App_Service_In>(blob);
      json names = json::array();
      for (const auto& slot : r.serviceNames) {
        std::string s = fixedString(slot, sizeof slot);
        if (!s.empty()) names.push_back(std::move(s));
      }
      return json{{"services", names}};
    }
    case RowType::User:
      return json{{"value", record<_vorak_User_Launched_Data>(blob).value}};
    case RowType::Favourites: {
      // "/"-separated package names; an empty last token is allowed.
      const auto r = record<_vorak_Favorite_Time_Slot_Data>(blob);
      const std::string text = fixedString(r.favoriteApps, sizeof r.favoriteApps);
      json apps = json::array();
      size_t start = 0;
      while (start < text.size()) {
        size_t end = text.find('/', start);
        if (end == std::string::npos) end = text.size();
        if (end > start) apps.push_back(text.substr(start, end - start));
        start = end + 1;
      }
      return json{{"apps", apps}};
    }
    case RowType::States: {
      const int32_t state = record<int32_t>(blob);
      return json{{"state", state}, {"stateName", stateName(state)}};
    }
  }
  return json::object();
}

DbFile::DbFile(const std::string& path) : mPath(path) {
  // SQLite opens a directory or a missing file lazily, and would read a
  // device or a pipe without end: say what is wrong up front.
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) throw DbError(path + ": " + std::strerror(errno));
  if (S_ISDIR(st.st_mode)) throw DbError(path + ": is a directory, not a database file");
  if (!S_ISREG(st.st_mode)) throw DbError(path + ": not a regular file (a device, pipe or socket)");
  try {
    open();
  } catch (...) {
    // No destructor runs for a constructor that throws.
    sqlite3_close(mDb);
    throw;
  }
}

void DbFile::open() {
  if (sqlite3_open_v2(openUri(mPath).c_str(), &mDb, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr) != SQLITE_OK)
    fail("cannot open");
  sqlite3_busy_timeout(mDb, 2000);
  // No value of this system comes near it; a hostile schema (a generated
  // column of randomblob(1e9), say) must not make the reader allocate more.
  sqlite3_limit(mDb, SQLITE_LIMIT_LENGTH, kMaxValueBytes);
  // A cut file can read as rows of zeros without any error: check the
  // structure first, so that damage is reported rather than dumped.
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(mDb, "PRAGMA quick_check(1)", -1, &stmt, nullptr) != SQLITE_OK) fail("not a readable database");
  const int rc = sqlite3_step(stmt);
  std::string verdict;
  if (rc == SQLITE_ROW && sqlite3_column_text(stmt, 0) != nullptr)
    verdict = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
  sqlite3_finalize(stmt);
  if (rc != SQLITE_ROW) fail("not a readable database");
  if (verdict != "ok") throw DbError(mPath + ": damaged database: " + oneLine(verdict));
}

DbFile::~DbFile() { sqlite3_close(mDb); }

void DbFile::fail(const std::string& what) {
  // Rolling the journal back would change the file: say so instead.
  if (mDb != nullptr && sqlite3_extended_errcode(mDb) == SQLITE_READONLY_ROLLBACK) {
    throw DbError(mPath + ": a write was cut short and its journal is not rolled back here; "
                  "open the file once with the plug-in or sqlite3 first");
  }
  std::string msg = mPath + ": " + what;
  if (mDb != nullptr) msg += ": " + std::string(sqlite3_errmsg(mDb));
  throw DbError(msg);
}

std::vector<std::string> DbFile::tables() {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(mDb, "SELECT name FROM sqlite_master WHERE type='table' ORDER BY name", -1, &stmt,
                         nullptr) != SQLITE_OK) {
    fail("not a readable database");
  }
  std::vector<std::string> names;
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(stmt, 0);
    names.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
  }
  sqlite3_finalize(stmt);
  if (rc != SQLITE_DONE) fail("reading the table list failed");
  return names;
}

std::string DbFile::resolveTable(const std::string& table) {
  const std::vector<std::string> names = tables();
  if (!table.empty()) {
    if (std::find(names.begin(), names.end(), table) == names.end())
      throw DbError(mPath + ": no table '" + table + "'");
    return table;
  }
  std::vector<std::string> ours;
  for (const auto& name : names)
    if (missingColumn(name) == nullptr) ours.push_back(name);
  if (std::find(ours.begin(), ours.end(), "Vorak") != ours.end()) return "Vorak";
  if (ours.size() == 1) return ours.front();
  if (ours.empty())
    throw DbError(mPath + ": not a database of this system (no table with the columns intcol1, appName, rsvdName, blob)");
  throw DbError(mPath + ": no table 'Vorak' and several others (choose one with --table)");
}

// The first of the system's four columns that `table` lacks, or null. A
// generated column counts as missing: the store writes none, and one would
// compute values on every read that no file holds.
const char* DbFile::missingColumn(const std::string& table) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(mDb, "SELECT name FROM pragma_table_xinfo(?) WHERE hidden = 0", -1, &stmt, nullptr) !=
      SQLITE_OK)
    fail("not a readable database");
  sqlite3_bind_text(stmt, 1, table.c_str(), -1, SQLITE_TRANSIENT);
  std::vector<std::string> have;
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(stmt, 0);
    have.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
  }
  sqlite3_finalize(stmt);
  if (rc != SQLITE_DONE) fail("reading table '" + table + "' failed");
  for (const char* want : {"intcol1", "appName", "rsvdName", "blob"})
    if (std::find(have.begin(), have.end(), want) == have.end()) return want;
  return nullptr;
}

std::vector<Row> DbFile::rows(const std::string& table) {
  if (const char* want = missingColumn(table))
    throw DbError(mPath + ": table '" + table + "' has no column '" + want + "' (not a table of this system)");
  // The name is quoted for SQL; a table name cannot be bound as a parameter.
  std::string quoted = "\"";
  for (char c : table) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  quoted += "\"";

  sqlite3_stmt* stmt = nullptr;
  int rc;
  const std::string sql = "SELECT rowid, intcol1, appName, rsvdName, blob FROM " + quoted + " ORDER BY rowid";
  if (sqlite3_prepare_v2(mDb, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) fail("reading table '" + table + "' failed");
  std::vector<Row> out;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    Row r;
    r.rowid = sqlite3_column_int64(stmt, 0);
    if (sqlite3_column_type(stmt, 1) != SQLITE_NULL) r.intcol1 = sqlite3_column_int(stmt, 1);
    if (const unsigned char* t = sqlite3_column_text(stmt, 2)) r.appName = reinterpret_cast<const char*>(t);
    if (sqlite3_column_type(stmt, 3) != SQLITE_NULL) {
      const unsigned char* t = sqlite3_column_text(stmt, 3);
      r.rsvdName = t != nullptr ? reinterpret_cast<const char*>(t) : "";
    }
    const void* b = sqlite3_column_blob(stmt, 4);
    const int n = sqlite3_column_bytes(stmt, 4);
    if (b != nullptr && n > 0) r.blob.assign(static_cast<const char*>(b), static_cast<size_t>(n));
    out.push_back(std::move(r));
  }
  sqlite3_finalize(stmt);
  if (rc != SQLITE_DONE) fail("reading table '" + table + "' failed");
  return out;
}

}  // namespace vorakdb
