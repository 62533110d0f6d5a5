// vorak-host: loads a feature plug-in the way the framework does (dlopen, the
// plug-in's static initialiser fills the class registry), then creates each
// registered feature through its factory, reports it and destroys it.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Feature.h"
#include "FeatureInfo.h"
#include "Registry.h"

namespace {

const char* kUsage =
    "usage: vorak-host [--help] [PLUGIN]\n"
    "\n"
    "Loads the feature plug-in PLUGIN (a shared library) as the framework does,\n"
    "prints the feature names it registered, creates each one with the default\n"
    "configuration (name \"Vorak\", a \"Memory\" meter of \"ion_kgsl\" and \"rss_swap\"),\n"
    "prints whether it disabled itself, and destroys it.\n"
#ifdef VORAK_HOST_DEFAULT_PLUGIN
    "\nPLUGIN defaults to " VORAK_HOST_DEFAULT_PLUGIN "\n"
#endif
    "\nEnvironment: KX_PROPERTIES (properties file), KX_FS_ROOT (device root),\n"
    "KX_LOG_FILE (log output instead of standard error).\n";

int fail(const std::string& message, int code = 1) {
  std::fprintf(stderr, "vorak-host: %s\n", message.c_str());
  return code;
}

FeatureInfo defaultFeatureInfo() {
  MeterInfo memory;
  memory.name = "Memory";
  memory.fields = {"ion_kgsl", "rss_swap"};
  FeatureInfo info;
  info.name = "Vorak";
  info.meterInfo = {memory};
  return info;
}

// Creates, reports and destroys one registered feature.
bool exercise(const std::string& name) {
  auto factory = RegistryBase<Feature, FeatureInfo>::lookup(name);
  Feature* feature = factory != nullptr ? factory(defaultFeatureInfo()) : nullptr;
  if (feature == nullptr) {
    fail("the factory of '" + name + "' returned no object");
    return false;
  }
  std::printf("%s: %s\n", name.c_str(), feature->isDisabled() ? "disabled" : "enabled");
  std::fflush(stdout);
  delete feature;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string plugin;
#ifdef VORAK_HOST_DEFAULT_PLUGIN
  plugin = VORAK_HOST_DEFAULT_PLUGIN;
#endif
  int positional = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (argv[i][0] == '-') return fail(std::string("unknown option '") + argv[i] + "' (see --help)", 2);
    if (++positional > 1) return fail("expected one plug-in path (see --help)", 2);
    plugin = argv[i];
  }
  if (plugin.empty()) return fail("no plug-in given (see --help)", 2);

  // The library stays loaded until exit: its static state may be referenced
  // by the host's threads until then.
  if (dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) {
    const char* err = dlerror();
    return fail("cannot load " + plugin + ": " + (err != nullptr ? err : "unknown error"));
  }
  std::vector<std::string> names = RegistryBase<Feature, FeatureInfo>::names();
  if (names.empty()) return fail(plugin + " registered no feature");
  std::printf("plug-in: %s\n", plugin.c_str());
  for (const std::string& name : names) std::printf("registered: %s\n", name.c_str());
  std::fflush(stdout);

  bool ok = true;
  for (const std::string& name : names) ok = exercise(name) && ok;
  return ok ? 0 : 1;
}
