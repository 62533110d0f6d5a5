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

#include "VorakDbDump.h"

namespace {

using vorakdb::RowType;

constexpr const char* kProg = "vorak-db";
constexpr int kExitOk = 0;
constexpr int kExitBadRows = 1;
constexpr int kExitBadInput = 2;

// Messages may quote names from the file: no control character gets through.
std::string oneLine(std::string s) {
  std::replace_if(s.begin(), s.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
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
    const vorakdb::Dump dump = vorakdb::readDump(path, table, *type);
    if (asJson) {
      std::cout << vorakdb::dumpJson(dump) << "\n";
    } else {
      vorakdb::printTable(std::cout, dump);
    }
    if (dump.badRows > 0) {
      std::cerr << kProg << ": " << path << ": " << dump.badRows << " of " << dump.rows.size() << " rows do not hold a "
                << vorakdb::info(*type).name << " blob of " << vorakdb::info(*type).blobSize << " bytes\n";
      return kExitBadRows;
    }
    return kExitOk;
  } catch (const std::exception& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return kExitBadInput;
  }
}
