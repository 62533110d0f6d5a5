#include "Scenario.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "Text.h"
#include "features/vorak/VorakAppName.h"

namespace vsim {
namespace {

using nlohmann::json;

[[noreturn]] void fail(const std::string& where, const std::string& what) {
  throw ScenarioError(where.empty() ? what : where + ": " + what);
}

// Members of `obj` must all be in `known`: a misspelt key would otherwise be
// silently ignored and the scenario would not do what its author meant.
void checkKeys(const json& obj, const std::string& where, std::initializer_list<const char*> known) {
  if (!obj.is_object()) fail(where, "expected an object");
  for (auto it = obj.begin(); it != obj.end(); ++it) {
    if (std::none_of(known.begin(), known.end(), [&](const char* k) { return it.key() == k; }))
      fail(where, "unknown member '" + it.key() + "'");
  }
}

std::string stringAt(const json& obj, const char* key, const std::string& where, bool required = true) {
  if (!obj.contains(key)) {
    if (required) fail(where, std::string("missing '") + key + "'");
    return "";
  }
  const json& v = obj[key];
  if (!v.is_string() || v.get<std::string>().empty()) fail(where + "." + key, "expected a non-empty string");
  return v.get<std::string>();
}

uint64_t kbAt(const json& obj, const char* key, const std::string& where, uint64_t def, bool required = false) {
  if (!obj.contains(key)) {
    if (required) fail(where, std::string("missing '") + key + "'");
    return def;
  }
  const json& v = obj[key];
  if (!v.is_number_unsigned() && !(v.is_number_integer() && v.get<int64_t>() >= 0))
    fail(where + "." + key, "expected a whole number of KB >= 0");
  const uint64_t kb = v.get<uint64_t>();
  // Far beyond any device: guards the sums of the model against overflow.
  if (kb > (uint64_t{1} << 40)) fail(where + "." + key, "implausibly large");
  return kb;
}

double numberAt(const json& obj, const char* key, const std::string& where, double def, double lo, double hi) {
  if (!obj.contains(key)) return def;
  const json& v = obj[key];
  if (!v.is_number()) fail(where + "." + key, "expected a number");
  const double d = v.get<double>();
  if (!(d >= lo && d <= hi)) {
    std::ostringstream s;
    s << "must lie in " << lo << ".." << hi;
    fail(where + "." + key, s.str());
  }
  return d;
}

// Times lie below this, in either form: a scenario written out (whole
// seconds as "HH:MM:SS", hours past 99 included) loads back as it was.
constexpr double kEndSec = 1e7;

double parseTime(const json& v, const std::string& where) {
  if (v.is_number()) {
    const double t = v.get<double>();
    if (!(t >= 0 && t < kEndSec)) fail(where, "time must be seconds in [0, 10000000)");
    return t;
  }
  if (v.is_string()) {
    unsigned h = 0, m = 0, s = 0;
    char tail = 0;
    const std::string text = v.get<std::string>();
    const int n = std::sscanf(text.c_str(), "%u:%u:%u%c", &h, &m, &s, &tail);
    const double t = h * 3600.0 + m * 60.0 + s;
    if ((n == 2 || n == 3) && m < 60 && s < 60 && t < kEndSec) return t;
    fail(where, "time '" + text + "' is not HH:MM or HH:MM:SS before 2777:46:40");
  }
  fail(where, "expected seconds or \"HH:MM[:SS]\"");
}

// A day of waiting is beyond any launch.
constexpr double kMaxLaunchMs = 86400000.0;

void parseCosts(const json& d, LaunchCosts& c) {
  c.coldLaunchMs = numberAt(d, "coldLaunchMs", "device", c.coldLaunchMs, 0, kMaxLaunchMs);
  c.warmLaunchMs = numberAt(d, "warmLaunchMs", "device", c.warmLaunchMs, 0, kMaxLaunchMs);
  c.cacheRefaultMsPerMB = numberAt(d, "cacheRefaultMsPerMB", "device", c.cacheRefaultMsPerMB, 0, 1e4);
  c.zramCompressMsPerMB = numberAt(d, "zramCompressMsPerMB", "device", c.zramCompressMsPerMB, 0, 1e4);
  c.zramDecompressMsPerMB = numberAt(d, "zramDecompressMsPerMB", "device", c.zramDecompressMsPerMB, 0, 1e4);
  c.lmkWaitMsPerMB = numberAt(d, "lmkWaitMsPerMB", "device", c.lmkWaitMsPerMB, 0, 1e4);
}

std::optional<double> optionalMs(const json& obj, const char* key, const std::string& where) {
  if (!obj.contains(key)) return std::nullopt;
  return numberAt(obj, key, where, 0, 0, kMaxLaunchMs);
}

// Names enter the plug-in as keys of its rows: they pass its one check.
std::string nameAt(const json& obj, const std::string& where) {
  const std::string name = stringAt(obj, "name", where);
  if (const char* problem = vorak::appNameProblem(name))
    fail(where + ".name", "'" + printable(name) + "' is not a valid name: " + problem);
  return name;
}

void checkCount(size_t n, size_t max, const char* what) {
  if (n > max) fail(what, "more than " + std::to_string(max) + " (the simulator's bound)");
}

DeviceProfile parseDevice(const json& d) {
  checkKeys(d, "device",
            {"class", "totalKB", "zramSizeKB", "zramRatio", "systemAnonKB", "systemGpuKB", "cacheKB", "minCacheKB",
             "lowWatermarkKB", "coldLaunchMs", "warmLaunchMs", "cacheRefaultMsPerMB", "zramCompressMsPerMB",
             "zramDecompressMsPerMB", "lmkWaitMsPerMB"});
  int gb = 4;
  if (d.contains("class")) {
    const std::string c = stringAt(d, "class", "device");
    if (c == "2GB") gb = 2;
    else if (c == "4GB") gb = 4;
    else if (c == "6GB") gb = 6;
    else fail("device.class", "expected \"2GB\", \"4GB\" or \"6GB\"");
  } else if (d.contains("totalKB")) {
    const uint64_t t = kbAt(d, "totalKB", "device", 0);
    gb = t <= 2097152 ? 2 : t <= 4194304 ? 4 : 6;
  }
  DeviceProfile p = *DeviceProfile::forClass(gb);
  const bool scaled = d.contains("totalKB");
  p.totalKB = kbAt(d, "totalKB", "device", p.totalKB);
  if (scaled && !d.contains("class")) p.zramSizeKB = p.totalKB / 2;
  p.zramSizeKB = kbAt(d, "zramSizeKB", "device", p.zramSizeKB);
  p.zramRatio = numberAt(d, "zramRatio", "device", p.zramRatio, 1.0, 10.0);
  p.systemAnonKB = kbAt(d, "systemAnonKB", "device", p.systemAnonKB);
  p.systemGpuKB = kbAt(d, "systemGpuKB", "device", p.systemGpuKB);
  p.cacheKB = kbAt(d, "cacheKB", "device", p.cacheKB);
  p.minCacheKB = kbAt(d, "minCacheKB", "device", std::min(p.minCacheKB, p.cacheKB));
  p.lowWatermarkKB = kbAt(d, "lowWatermarkKB", "device", p.lowWatermarkKB);
  parseCosts(d, p.costs);
  if (p.memClass().empty())
    fail("device.totalKB", std::to_string(p.totalKB) + " KB is outside the plug-in's range (1048577..8388608)");
  if (p.minCacheKB > p.cacheKB) fail("device.minCacheKB", "exceeds cacheKB");
  // The fixed kernel share of the model is about 13 % of memory.
  const uint64_t fixedKB = p.totalKB * 13 / 100;
  if (p.systemAnonKB + p.systemGpuKB + p.cacheKB + fixedKB >= p.totalKB)
    fail("device", "system memory and cache leave nothing free for applications");
  return p;
}

EventType eventTypeByName(const std::string& name, const std::string& where) {
  static const std::pair<const char*, EventType> kTypes[] = {
      {"prepare", EventType::Prepare}, {"launch", EventType::Launch}, {"complete", EventType::Complete},
      {"remove", EventType::Remove},   {"service", EventType::Service}, {"learn", EventType::Learn},
      {"grow", EventType::Grow}};
  for (const auto& [n, t] : kTypes)
    if (name == n) return t;
  fail(where, "unknown event type '" + name +
                  "' (open, prepare, launch, complete, remove, service, learn, grow)");
}

}  // namespace

const char* eventTypeName(EventType type) {
  switch (type) {
    case EventType::Prepare: return "prepare";
    case EventType::Launch: return "launch";
    case EventType::Complete: return "complete";
    case EventType::Remove: return "remove";
    case EventType::Service: return "service";
    case EventType::Learn: return "learn";
    case EventType::Grow: return "grow";
  }
  return "?";
}

const AppProfile* Scenario::app(const std::string& n) const {
  for (const auto& a : apps)
    if (a.name == n) return &a;
  return nullptr;
}

const ServiceProfile* Scenario::service(const std::string& n) const {
  for (const auto& s : services)
    if (s.name == n) return &s;
  return nullptr;
}

size_t Scenario::launchCount() const {
  return static_cast<size_t>(
      std::count_if(events.begin(), events.end(), [](const Event& e) { return e.type == EventType::Launch; }));
}

Scenario parseScenario(const std::string& text) {
  json root;
  try {
    root = json::parse(text);
  } catch (const json::exception& e) {
    // A syntax error, or a number beyond double range (1e400). nlohmann's
    // message carries the byte offset; keep it on one line.
    std::string what = e.what();
    const auto colon = what.find("] ");
    fail("", "not valid JSON: " + printable(colon == std::string::npos ? what : what.substr(colon + 2)));
  }
  checkKeys(root, "scenario", {"name", "device", "samplesThreshold", "seed", "services", "apps", "events", "expect"});

  Scenario sc;
  sc.name = root.contains("name") ? stringAt(root, "name", "scenario") : "unnamed";
  sc.device = parseDevice(root.value("device", json::object()));
  sc.samplesThreshold = static_cast<uint32_t>(numberAt(root, "samplesThreshold", "scenario", 3, 1, 1000));
  sc.seed = static_cast<uint32_t>(numberAt(root, "seed", "scenario", 1, 0, 4294967295.0));

  std::set<std::string> names;
  if (root.contains("services")) {
    if (!root["services"].is_array()) fail("services", "expected an array");
    checkCount(root["services"].size(), kMaxServices, "services");
    for (size_t i = 0; i < root["services"].size(); ++i) {
      const std::string where = "services[" + std::to_string(i) + "]";
      const json& s = root["services"][i];
      checkKeys(s, where, {"name", "rssSwapKB", "ionKgslKB", "fileKB", "oomAdj"});
      ServiceProfile profile;
      profile.name = nameAt(s, where);
      if (!names.insert(profile.name).second) fail(where + ".name", "'" + profile.name + "' is defined twice");
      profile.rssSwapKB = kbAt(s, "rssSwapKB", where, 0, true);
      profile.ionKgslKB = kbAt(s, "ionKgslKB", where, 0);
      profile.fileKB = kbAt(s, "fileKB", where, 0);
      profile.oomAdj = static_cast<int>(numberAt(s, "oomAdj", where, 800, -1000, 1000));
      sc.services.push_back(profile);
    }
  }

  if (!root.contains("apps") || !root["apps"].is_array() || root["apps"].empty())
    fail("apps", "expected a non-empty array");
  checkCount(root["apps"].size(), kMaxApps, "apps");
  for (size_t i = 0; i < root["apps"].size(); ++i) {
    const std::string where = "apps[" + std::to_string(i) + "]";
    const json& a = root["apps"][i];
    checkKeys(a, where,
              {"name", "rssSwapKB", "ionKgslKB", "fileKB", "services", "growKB", "jitter", "coldLaunchMs",
               "warmLaunchMs"});
    AppProfile profile;
    profile.name = nameAt(a, where);
    if (!names.insert(profile.name).second) fail(where + ".name", "'" + profile.name + "' is defined twice");
    profile.rssSwapKB = kbAt(a, "rssSwapKB", where, 0, true);
    if (profile.rssSwapKB == 0) fail(where + ".rssSwapKB", "must be above 0 (a launch without memory is never sampled)");
    profile.ionKgslKB = kbAt(a, "ionKgslKB", where, 0);
    profile.fileKB = kbAt(a, "fileKB", where, 0);
    profile.growKB = kbAt(a, "growKB", where, 0);
    profile.jitter = numberAt(a, "jitter", where, 0.0, 0.0, 0.5);
    profile.coldLaunchMs = optionalMs(a, "coldLaunchMs", where);
    profile.warmLaunchMs = optionalMs(a, "warmLaunchMs", where);
    if (a.contains("services")) {
      if (!a["services"].is_array()) fail(where + ".services", "expected an array of service names");
      for (const auto& s : a["services"]) {
        if (!s.is_string()) fail(where + ".services", "expected an array of service names");
        profile.services.push_back(s.get<std::string>());
      }
    }
    sc.apps.push_back(profile);
  }
  for (size_t i = 0; i < sc.apps.size(); ++i)
    for (const auto& s : sc.apps[i].services)
      if (sc.service(s) == nullptr) fail("apps[" + std::to_string(i) + "].services", "unknown service '" + s + "'");

  if (!root.contains("events") || !root["events"].is_array()) fail("events", "expected an array");
  checkCount(root["events"].size(), kMaxEvents, "events");
  for (size_t i = 0; i < root["events"].size(); ++i) {
    const std::string where = "events[" + std::to_string(i) + "]";
    const json& e = root["events"][i];
    checkKeys(e, where, {"at", "type", "app", "service", "hintType", "kb"});
    if (!e.contains("at")) fail(where, "missing 'at'");
    const double at = parseTime(e["at"], where + ".at");
    const std::string type = stringAt(e, "type", where);
    auto needApp = [&](bool required) {
      const std::string a = stringAt(e, "app", where, required);
      if (!a.empty() && sc.app(a) == nullptr) fail(where + ".app", "unknown app '" + a + "'");
      return a;
    };
    if (type == "open") {
      const std::string a = needApp(true);
      if (at + 2 >= kEndSec) fail(where + ".at", "an open completes 2 seconds later, past the last time");
      sc.events.push_back({at, EventType::Prepare, "", 101, 0});
      sc.events.push_back({at, EventType::Launch, a, 101, 0});
      sc.events.push_back({at + 2, EventType::Complete, a, 101, 0});
      continue;
    }
    Event ev;
    ev.at = at;
    ev.type = eventTypeByName(type, where + ".type");
    switch (ev.type) {
      case EventType::Prepare:
        ev.target = needApp(false);
        break;
      case EventType::Launch:
      case EventType::Remove:
        ev.target = needApp(true);
        break;
      case EventType::Complete:
        ev.target = needApp(true);
        ev.hintType = static_cast<int>(numberAt(e, "hintType", where, 101, 101, 102));
        break;
      case EventType::Grow:
        ev.target = needApp(true);
        ev.kb = kbAt(e, "kb", where, 0, true);
        break;
      case EventType::Service:
        ev.target = stringAt(e, "service", where);
        if (sc.service(ev.target) == nullptr) fail(where + ".service", "unknown service '" + ev.target + "'");
        break;
      case EventType::Learn:
        break;
    }
    sc.events.push_back(ev);
  }
  checkCount(sc.events.size(), kMaxEvents, "events (an open is three)");
  std::stable_sort(sc.events.begin(), sc.events.end(), [](const Event& a, const Event& b) { return a.at < b.at; });

  if (root.contains("expect")) {
    if (!root["expect"].is_array()) fail("expect", "expected an array");
    const size_t launches = sc.launchCount();
    for (size_t i = 0; i < root["expect"].size(); ++i) {
      const std::string where = "expect[" + std::to_string(i) + "]";
      const json& x = root["expect"][i];
      checkKeys(x, where, {"launch", "victims"});
      Expectation ex;
      ex.launch = static_cast<int>(numberAt(x, "launch", where, 0, 1, 1e6));
      if (ex.launch == 0) fail(where, "missing 'launch'");
      if (static_cast<size_t>(ex.launch) > launches)
        fail(where + ".launch", "the scenario has only " + std::to_string(launches) + " launches");
      if (!x.contains("victims") || !x["victims"].is_array()) fail(where + ".victims", "expected an array of names");
      for (const auto& v : x["victims"]) {
        if (!v.is_string()) fail(where + ".victims", "expected an array of names");
        ex.victims.push_back(v.get<std::string>());
      }
      sc.expectations.push_back(ex);
    }
  }
  return sc;
}

Scenario loadScenario(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) fail(path, "is a directory, not a scenario file");
  std::ifstream in(path, std::ios::binary);
  if (!in) fail(path, "cannot read");
  // Read one byte past the bound: an endless input (/dev/zero) stops there.
  std::string text(kMaxScenarioBytes + 1, '\0');
  in.read(&text[0], static_cast<std::streamsize>(text.size()));
  if (in.bad()) fail(path, "cannot read");
  text.resize(static_cast<size_t>(in.gcount()));
  if (text.size() > kMaxScenarioBytes)
    fail(path, "larger than " + std::to_string(kMaxScenarioBytes >> 20) + " MiB, the simulator's bound");
  try {
    return parseScenario(text);
  } catch (const ScenarioError& e) {
    fail(path, e.what());
  }
}

std::string clockTime(double seconds) {
  const long s = static_cast<long>(seconds);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02ld:%02ld:%02ld", s / 3600, (s / 60) % 60, s % 60);
  return buf;
}

std::string dayTime(double seconds) {
  static const char* const kDays[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
  const long day = static_cast<long>(seconds) / 86400;
  return std::string(kDays[day % 7]) + " " + clockTime(seconds - static_cast<double>(day) * 86400.0);
}

json Scenario::toJson() const {
  json j;
  j["name"] = name;
  j["device"] = {{"totalKB", device.totalKB},           {"zramSizeKB", device.zramSizeKB},
                 {"zramRatio", device.zramRatio},       {"systemAnonKB", device.systemAnonKB},
                 {"systemGpuKB", device.systemGpuKB},   {"cacheKB", device.cacheKB},
                 {"minCacheKB", device.minCacheKB},     {"lowWatermarkKB", device.lowWatermarkKB},
                 {"coldLaunchMs", device.costs.coldLaunchMs},
                 {"warmLaunchMs", device.costs.warmLaunchMs},
                 {"cacheRefaultMsPerMB", device.costs.cacheRefaultMsPerMB},
                 {"zramCompressMsPerMB", device.costs.zramCompressMsPerMB},
                 {"zramDecompressMsPerMB", device.costs.zramDecompressMsPerMB},
                 {"lmkWaitMsPerMB", device.costs.lmkWaitMsPerMB}};
  j["samplesThreshold"] = samplesThreshold;
  j["seed"] = seed;
  j["services"] = json::array();
  for (const auto& s : services)
    j["services"].push_back({{"name", s.name}, {"rssSwapKB", s.rssSwapKB}, {"ionKgslKB", s.ionKgslKB},
                             {"fileKB", s.fileKB}, {"oomAdj", s.oomAdj}});
  j["apps"] = json::array();
  for (const auto& a : apps) {
    json app{{"name", a.name},         {"rssSwapKB", a.rssSwapKB}, {"ionKgslKB", a.ionKgslKB}, {"fileKB", a.fileKB},
             {"services", a.services}, {"growKB", a.growKB},       {"jitter", a.jitter}};
    if (a.coldLaunchMs) app["coldLaunchMs"] = *a.coldLaunchMs;
    if (a.warmLaunchMs) app["warmLaunchMs"] = *a.warmLaunchMs;
    j["apps"].push_back(app);
  }
  j["events"] = json::array();
  for (const auto& e : events) {
    json ev{{"type", eventTypeName(e.type)}};
    if (e.at == std::floor(e.at)) ev["at"] = clockTime(e.at);
    else ev["at"] = e.at;
    if (e.type == EventType::Service) ev["service"] = e.target;
    else if (!e.target.empty()) ev["app"] = e.target;
    if (e.type == EventType::Complete && e.hintType != 101) ev["hintType"] = e.hintType;
    if (e.type == EventType::Grow) ev["kb"] = e.kb;
    j["events"].push_back(ev);
  }
  if (!expectations.empty()) {
    j["expect"] = json::array();
    for (const auto& x : expectations) j["expect"].push_back({{"launch", x.launch}, {"victims", x.victims}});
  }
  return j;
}

}  // namespace vsim
