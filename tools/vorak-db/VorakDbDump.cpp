#include "VorakDbDump.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace vorakdb {
namespace {

using nlohmann::json;

// Control characters as \xNN: a name read from a file must not move the
// cursor or end a line of the table.
std::string shown(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c != 0x7f) {
      out += static_cast<char>(c);
    } else {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    }
  }
  return out;
}

// The sum of two learnt figures; a damaged or hostile row may hold any two.
std::string total(int64_t a, int64_t b) {
  int64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? "overflow" : std::to_string(sum);
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
              {"total", total(d["ionKgsl"].get<int64_t>(), d["rssSwap"].get<int64_t>())}};
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

}  // namespace

void printTable(std::ostream& out, const Dump& dump) {
  const std::vector<Row>& rows = dump.rows;
  const RowType type = dump.type;
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
    std::vector<std::string> line = {std::to_string(r.rowid), shown(r.appName)};
    if (anyInt) line.push_back(r.intcol1 ? std::to_string(*r.intcol1) : "");
    if (anyRsvd) line.push_back(shown(r.rsvdName.value_or("")));
    for (const auto& c : fieldCells(type, dump.decoded[i]))
      line.push_back(c.first == "error" ? "!! " + c.second : shown(c.second));
    cells.push_back(std::move(line));
  }

  std::vector<size_t> width;
  for (const auto& line : cells) {
    if (width.size() < line.size()) width.resize(line.size(), 0);
    for (size_t c = 0; c < line.size(); ++c) width[c] = std::max(width[c], line[c].size());
  }
  out << dump.path << ": " << info(type).what << ", table " << shown(dump.table) << ", " << rows.size()
      << (rows.size() == 1 ? " row\n" : " rows\n");
  for (const auto& line : cells) {
    std::string text;
    for (size_t c = 0; c < line.size(); ++c) {
      const bool last = c + 1 == line.size();
      // Numbers right-aligned, text left-aligned; the last column is not padded.
      const bool numeric = !line[c].empty() && line[c].find_first_not_of("-0123456789") == std::string::npos;
      std::string cell = line[c];
      if (!last || numeric) {
        const std::string pad(width[c] - cell.size(), ' ');
        cell = numeric ? pad + cell : cell + pad;
      }
      text += (c == 0 ? "" : "  ") + cell;
    }
    out << text << "\n";
  }
}

std::string dumpJson(const Dump& dump) {
  json out{{"file", dump.path}, {"table", dump.table}, {"type", info(dump.type).name}, {"rows", json::array()}};
  for (size_t i = 0; i < dump.rows.size(); ++i) {
    const auto& r = dump.rows[i];
    json row{{"rowid", r.rowid}, {"appName", r.appName}};
    if (r.intcol1) row["intcol1"] = *r.intcol1;
    if (r.rsvdName) row["rsvdName"] = *r.rsvdName;
    row.update(dump.decoded[i]);
    out["rows"].push_back(std::move(row));
  }
  return out.dump(2, ' ', false, json::error_handler_t::replace);
}


Dump readDump(const std::string& path, const std::string& table, RowType type) {
  Dump dump{path, "", type, {}, {}, 0};
  DbFile db(path);
  dump.table = db.resolveTable(table);
  dump.rows = db.rows(dump.table);
  for (const auto& r : dump.rows) {
    dump.decoded.push_back(decodeBlob(type, r.blob));
    if (dump.decoded.back().contains("error")) ++dump.badRows;
  }
  return dump;
}

}  // namespace vorakdb
