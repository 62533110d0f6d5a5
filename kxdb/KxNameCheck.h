// Checks on the names a store is built with. A table name goes into SQL text
// unquoted and a file name is joined to the data directory, so only names
// that stay what they look like there are accepted: a table name of letters,
// digits and '_', and a file name that stays inside the directory.
#pragma once

#include <string_view>

namespace kxdb {

// Null when `name` can be used as the table's name, else the reason.
inline const char* tableNameProblem(std::string_view name) {
  if (name.empty()) return "empty name";
  if (name.front() >= '0' && name.front() <= '9') return "begins with a digit";
  for (char c : name) {
    const bool word = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    if (!word) return "holds a character other than a letter, digit or '_'";
  }
  return nullptr;
}

// Null when `name` can be used as the file's name inside the data
// directory, else the reason. Empty is fine: it means a database in memory.
inline const char* fileNameProblem(std::string_view name) {
  if (name.find('\0') != std::string_view::npos) return "holds a NUL byte";
  if (name.find('/') != std::string_view::npos) return "holds '/'";
  if (name == "." || name == "..") return "names a directory";
  return nullptr;
}

}  // namespace kxdb
