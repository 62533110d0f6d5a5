// Every parser of the kernel's memory reports on the same bytes: whatever a
// file holds, a parser fills what it can, and a refusal says why in one line.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/src/ProcParsers.h"

namespace {

void check(const char* parser, bool ok, const std::string& error) {
  if (ok ? error.empty() : !error.empty() && error.find('\n') == std::string::npos) return;
  std::fprintf(stderr, "fuzz: %s returned %s with error '%s'\n", parser, ok ? "true" : "false", error.c_str());
  std::abort();
}

template <typename Out, typename Parse>
void run(const char* parser, Parse parse, const std::string& text) {
  Out out{};
  std::string error;
  const bool ok = parse(text, &out, &error);
  check(parser, ok, error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  run<kxhost::MemInfo>("parseMeminfo", kxhost::parseMeminfo, text);
  run<kxhost::ZoneInfo>("parseZoneinfo", kxhost::parseZoneinfo, text);
  run<kxhost::ZramStat>("parseZramMmStat", kxhost::parseZramMmStat, text);
  run<kxhost::ProcStatus>("parseProcStatus", kxhost::parseProcStatus, text);
  run<uint64_t>("parseProcStatStartTime", kxhost::parseProcStatStartTime, text);
  run<int64_t>("parseSingleInt", kxhost::parseSingleInt, text);
  return 0;
}
