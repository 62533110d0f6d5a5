// Arbitrary bytes as a database file for the dump tool: whatever the file
// holds, the reader returns rows or a DbError, the rows print as a table and
// as JSON under every row type, and the file is left exactly as it was.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <sstream>

#include "VorakDbDump.h"
#include "support/TempDir.h"
#include "support/ToolRun.h"

namespace {

void dump(const std::string& path) {
  vorakdb::Dump dump;
  try {
    dump = vorakdb::readDump(path, "", vorakdb::RowType::Samples);
  } catch (const vorakdb::DbError&) {
    return;
  }
  for (const auto& type : vorakdb::rowTypes()) {
    dump.type = type.type;
    dump.decoded.clear();
    for (const auto& row : dump.rows) dump.decoded.push_back(vorakdb::decodeBlob(type.type, row.blob));
    std::ostringstream table;
    vorakdb::printTable(table, dump);
    vorakdb::dumpJson(dump);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static kxtest::TempDir dir;  // one file for the process, removed at exit
  static const std::string path = dir.sub("Vorak.db");
  for (const char* sidecar : {"-wal", "-shm", "-journal"}) std::filesystem::remove(path + sidecar);
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  dir.write("Vorak.db", bytes);
  dump(path);
  if (kxtest::slurp(path) == bytes) return 0;
  std::fprintf(stderr, "fuzz: reading changed the file\n");
  std::abort();
}
