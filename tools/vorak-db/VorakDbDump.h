// The dump tool's outputs of one table: its rows decoded by the row type,
// printed as an aligned text table or as JSON.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "VorakDbFile.h"

namespace vorakdb {

struct Dump {
  std::string path;
  std::string table;
  RowType type = RowType::Samples;
  std::vector<Row> rows;
  std::vector<nlohmann::json> decoded;  // one per row
  size_t badRows = 0;                   // rows whose blob does not fit the type
};

// Reads `table` ("" as DbFile::resolveTable takes it) of the file; throws
// DbError on a file that cannot be dumped.
Dump readDump(const std::string& path, const std::string& table, RowType type);

// Names and texts come from the file as they are: control characters are
// shown escaped (\xNN) in the table, and bytes that are not UTF-8 are
// replaced in the JSON, so that neither breaks the terminal or the parser.
void printTable(std::ostream& out, const Dump& dump);
std::string dumpJson(const Dump& dump);

}  // namespace vorakdb
