// Arbitrary bytes as a scenario file: a bad one is refused with a
// ScenarioError and nothing else, and a scenario that loads is written out
// (as every run keeps it) in a form that loads again to the same scenario.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Scenario.h"
#include "Text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vsim::Scenario scenario;
  try {
    scenario = vsim::parseScenario(std::string(reinterpret_cast<const char*>(data), size));
  } catch (const vsim::ScenarioError&) {
    return 0;
  }
  const std::string written = vsim::dumpJson(scenario.toJson());
  try {
    if (vsim::dumpJson(vsim::parseScenario(written).toJson()) == written) return 0;
    std::fprintf(stderr, "fuzz: the scenario changed on its way through its file:\n%s\n", written.c_str());
  } catch (const vsim::ScenarioError& e) {
    std::fprintf(stderr, "fuzz: the scenario as written does not load: %s\n%s\n", e.what(), written.c_str());
  }
  std::abort();
}
