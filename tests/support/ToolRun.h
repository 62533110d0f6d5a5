// Runs a command-line tool as a subprocess, the way a user's shell would, and
// captures what it printed.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace kxtest {

inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// One shell word, whatever `s` holds.
inline std::string shellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

struct ToolRun {
  int code = -1;  // the exit status, or -1 when the tool did not exit normally
  std::string out, err;
};

// Runs `argv` with standard input from `in`; its outputs go through files in
// `dir`. `prefix` is put before the command unquoted: variable assignments,
// or the emulator that runs cross-built programs (may be empty).
inline ToolRun runTool(const TempDir& dir, const std::string& prefix, const std::vector<std::string>& argv,
                       const std::string& in = "/dev/null") {
  std::string cmd = prefix;
  for (const auto& a : argv) cmd += " " + shellQuote(a);
  cmd += " <" + shellQuote(in) + " >" + shellQuote(dir.sub("tool.out")) + " 2>" + shellQuote(dir.sub("tool.err"));
  const int status = std::system(cmd.c_str());
  ToolRun r;
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = slurp(dir.sub("tool.out"));
  r.err = slurp(dir.sub("tool.err"));
  return r;
}

}  // namespace kxtest
