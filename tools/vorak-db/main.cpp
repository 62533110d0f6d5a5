// vorak-db: dump a database file of the plug-in as a table or as JSON,
// decoding each row's blob by the row type.
//
// Exit status: 0 success; 1 some rows have a blob that does not fit the row
// type; 2 unreadable file, not a database of this system, or bad usage.

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "VorakDbFile.h"

namespace {

using nlohmann::json;
using vorakdb::RowType;

constexpr const char* kProg = "vorak-db";
constexpr int kExitOk = 0;
constexpr int kExitBadRows = 1;
constexpr int kExitBadInput = 2;

std::string oneLine(std::string s) {
  std::replace(s.begin(), s.end(), '\n', ' ');
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

std::string joined(const json& list, const char* sep) {
  std::string out;
  for (const auto& v : list) out += (out.empty() ? "" : sep) + v.get<std::string>();
  return out;
}

// The decoded columns of one row, in display order.
// A null `d` gives the column names with empty cells.
std::vector<std::pair<std::string, std::string>> fieldCells(RowType type, const json& d) {
  if (d.is_null()) {
    switch (type) {
      case RowType::Samples: return {{"ion_kgsl", ""}, {"rss_swap", ""}};
      case RowType::Needs: return {{"ion_kgsl", ""}, {"rss_swap", ""}, {"total", ""}};
      case RowType::Services: return {{"services", ""}};
      case RowType::User: return {{"value", ""}};
      case RowType::Favourites: return {{"apps", ""}};
      case RowType::States: return {{"state", ""}};
    }
  }
  if (d.contains("error")) return {{"error", d["error"].get<std::string>()}};
  switch (type) {
    case RowType::Samples:
      return {{"ion_kgsl", std::to_string(d["ionKgsl"].get<int64_t>())},
              {"rss_swap", std::to_string(d["rssSwap"].get<int64_t>())}};
    case RowType::Needs:
      return {{"ion_kgsl", std::to_string(d["ionKgsl"].get<int64_t>())},
              {"rss_swap", std::to_string(d["rssSwap"].get<int64_t>())},
              {"total", std::to_string(d["ionKgsl"].get<int64_t>() + d["rssSwap"].get<int64_t>())}};
    case RowType::Services:
      return {{"services", joined(d["services"], ", ")}};
    case RowType::User:
      return {{"value", std::to_string(d["value"].get<int32_t>())}};
    case RowType::Favourites:
      return {{"apps", joined(d["apps"], ", ")}};
    case RowType::States: {
      const std::string name = d["stateName"].get<std::string>();
      return {{"state", std::to_string(d["state"].get<int32_t>()) + (name.empty() ? "" : " (" + name + ")")}};
    }
  }
  return {};
}

void printTable(const std::string& path, const std::string& table, RowType type,
                const std::vector<vorakdb::Row>& rows, const std::vector<json>& decoded) {
  const bool anyInt = std::any_of(rows.begin(), rows.end(), [](const auto& r) { return r.intcol1.has_value(); });
  const bool anyRsvd = std::any_of(rows.begin(), rows.end(), [](const auto& r) { return r.rsvdName.has_value(); });
  const char* nameHeader = type == RowType::Favourites ? "slot" : "name";

  std::vector<std::vector<std::string>> cells;
  std::vector<std::string> header = {"rowid", nameHeader};
  if (anyInt) header.push_back("intcol1");
  if (anyRsvd) header.push_back("rsvdName");
  for (const auto& c : fieldCells(type, json())) header.push_back(c.first);
  cells.push_back(header);

  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& r = rows[i];
    std::vector<std::string> line = {std::to_string(r.rowid), r.appName};
    if (anyInt) line.push_back(r.intcol1 ? std::to_string(*r.intcol1) : "");
    if (anyRsvd) line.push_back(r.rsvdName.value_or(""));
    for (const auto& c : fieldCells(type, decoded[i])) line.push_back(c.first == "error" ? "!! " + c.second : c.second);
    cells.push_back(std::move(line));
  }

  std::vector<size_t> width;
  for (const auto& line : cells) {
    if (width.size() < line.size()) width.resize(line.size(), 0);
    for (size_t c = 0; c < line.size(); ++c) width[c] = std::max(width[c], line[c].size());
  }
  std::cout << path << ": " << vorakdb::info(type).what << ", table " << table << ", " << rows.size()
            << (rows.size() == 1 ? " row\n" : " rows\n");
  for (const auto& line : cells) {
    std::string out;
    for (size_t c = 0; c < line.size(); ++c) {
      const bool last = c + 1 == line.size();
      // Numbers right-aligned, text left-aligned; the last column is not padded.
      const bool numeric = !line[c].empty() && line[c].find_first_not_of("-0123456789") == std::string::npos;
      std::string cell = line[c];
      if (!last || numeric) {
        const std::string pad(width[c] - cell.size(), ' ');
        cell = numeric ? pad + cell : cell + pad;
      }
      out += (c == 0 ? "" : "  ") + cell;
    }
    std::cout << out << "\n";
  }
}

json rowsJson(const std::string& path, const std::string& table, RowType type, const std::vector<vorakdb::Row>& rows,
              const std::vector<json>& decoded) {
  json out{{"file", path}, {"table", table}, {"type", vorakdb::info(type).name}, {"rows", json::array()}};
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& r = rows[i];
    json row{{"rowid", r.rowid}, {"appName", r.appName}};
    if (r.intcol1) row["intcol1"] = *r.intcol1;
    if (r.rsvdName) row["rsvdName"] = *r.rsvdName;
    row.update(decoded[i]);
    out["rows"].push_back(std::move(row));
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Dump a database file of the plug-in, decoding each row's blob.", kProg};
  std::string path;
  std::string typeName;
  std::string table;
  bool asJson = false;
  bool listTypes = false;

  std::vector<std::string> typeNames;
  std::string typeHelp = "row type:";
  for (const auto& t : vorakdb::rowTypes()) {
    typeNames.push_back(t.name);
    typeHelp += std::string(" ") + t.name + " (" + t.what + ");";
  }
  typeHelp += " default: from the file name";
  app.add_option("FILE", path, "database file (opened read-only)");
  app.add_option("-t,--type", typeName, typeHelp)->check(CLI::IsMember(typeNames));
  app.add_option("--table", table, "table to read (default: \"Vorak\", or the file's only table)");
  app.add_flag("--json", asJson, "print JSON instead of a table");
  app.add_flag("--list-types", listTypes, "list the row types and the file names they are taken from");
  app.footer(
      "File names: Vorak.db samples; Vorakaction.db needs; VorakServiceIP.db, VorakServiceOP.db services; "
      "*AppState.db states. The user and favourites tables live in memory on the device; dump copies of them "
      "with --type.\nExit status: 0 success, 1 rows whose blob does not fit the row type, 2 unreadable file, "
      "not a database of this system, or bad usage.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << kProg << ": " << oneLine(e.what()) << " (see --help)\n";
    return kExitBadInput;
  }

  if (listTypes) {
    for (const auto& t : vorakdb::rowTypes())
      std::cout << t.name << "\t" << t.blobSize << " bytes\t" << t.what << "\n";
    return kExitOk;
  }
  if (path.empty()) {
    std::cerr << kProg << ": FILE is required (see --help)\n";
    return kExitBadInput;
  }

  std::optional<RowType> type =
      typeName.empty() ? vorakdb::rowTypeFromFileName(path) : vorakdb::rowTypeByName(typeName);
  if (!type) {
    std::cerr << kProg << ": " << path << ": cannot tell the row type from the file name (use --type)\n";
    return kExitBadInput;
  }

  try {
    vorakdb::DbFile db(path);
    const std::string t = db.resolveTable(table);
    const std::vector<vorakdb::Row> rows = db.rows(t);
    std::vector<json> decoded;
    size_t bad = 0;
    for (const auto& r : rows) {
      decoded.push_back(vorakdb::decodeBlob(*type, r.blob));
      if (decoded.back().contains("error")) ++bad;
    }
    if (asJson) {
      std::cout << rowsJson(path, t, *type, rows, decoded).dump(2) << "\n";
    } else {
      printTable(path, t, *type, rows, decoded);
    }
    if (bad > 0) {
      std::cerr << kProg << ": " << path << ": " << bad << " of " << rows.size() << " rows do not hold a "
                << vorakdb::info(*type).name << " blob of " << vorakdb::info(*type).blobSize << " bytes\n";
      return kExitBadRows;
    }
    return kExitOk;
  } catch (const std::exception& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return kExitBadInput;
  }
}
