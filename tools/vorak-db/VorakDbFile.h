// Read-only access to the system's database files: every table has the same
// four columns plus a blob whose layout depends on the row type, so a reader
// needs the type (from the file name or the caller) to decode it.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct sqlite3;

namespace vorakdb {

enum class RowType { Samples, Needs, Services, User, Favourites, States };

struct RowTypeInfo {
  RowType type;
  const char* name;     // option value and JSON "type"
  const char* what;     // one-line description for --help and the table title
  size_t blobSize;      // fixed blob length of the record
};

const std::vector<RowTypeInfo>& rowTypes();
const RowTypeInfo& info(RowType type);
std::optional<RowType> rowTypeByName(const std::string& name);
// Vorak.db samples, Vorakaction.db learnt needs, VorakServiceIP.db and
// VorakServiceOP.db service lists, *AppState.db learning states.
std::optional<RowType> rowTypeFromFileName(const std::string& path);

// Name of a learning state value ("collecting", "learnt", ...), or "" when unknown.
const char* stateName(int32_t state);

struct Row {
  int64_t rowid = 0;
  std::optional<int32_t> intcol1;
  std::string appName;
  std::optional<std::string> rsvdName;
  std::string blob;
};

// Decodes a blob of `type`. A blob of the wrong length yields an object with
// an "error" member instead of fields; nothing here throws on bad data.
nlohmann::json decodeBlob(RowType type, const std::string& blob);

class DbError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One database file opened read-only. Every failure, including a file that is
// not a database or is damaged, is reported as a DbError with a one-line text.
class DbFile {
 public:
  explicit DbFile(const std::string& path);
  ~DbFile();
  DbFile(const DbFile&) = delete;
  DbFile& operator=(const DbFile&) = delete;

  std::vector<std::string> tables();
  // `table` empty: the system's table "Vorak", or the file's only table with
  // the system's columns.
  std::string resolveTable(const std::string& table);
  // Every row of `table` in rowid order; checks the table has the system's columns.
  std::vector<Row> rows(const std::string& table);

 private:
  void open();
  const char* missingColumn(const std::string& table);
  [[noreturn]] void fail(const std::string& what);
  std::string mPath;
  sqlite3* mDb = nullptr;
};

}  // namespace vorakdb
