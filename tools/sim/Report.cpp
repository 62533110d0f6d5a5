#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace vsim {



const char* killByName(KillBy by) {
  switch (by) {
    case KillBy::Background: return "background";
    case KillBy::Favourite: return "favourite";
    case KillBy::User: return "user-launched";
    case KillBy::Device: return "low-memory killer";
  }
  return "?";
}

std::string formatMB(double kb) {
  char buf[32];
  const double mb = kb / 1024.0;
  if (std::fabs(mb) >= 1024.0) std::snprintf(buf, sizeof buf, "%.2f GB", mb / 1024.0);
  else std::snprintf(buf, sizeof buf, "%.0f MB", mb);
  return buf;
}

namespace {

const char* shortBy(KillBy by) {
  switch (by) {
    case KillBy::Background: return "bg";
    case KillBy::Favourite: return "fav";
    case KillBy::User: return "user";
    case KillBy::Device: return "lmk";
  }
  return "?";
}

std::string pad(const std::string& s, size_t w) { return s.size() >= w ? s : s + std::string(w - s.size(), ' '); }
std::string rpad(const std::string& s, size_t w) { return s.size() >= w ? s : std::string(w - s.size(), ' ') + s; }

double pluginFreed(const LaunchRecord& r) {
  double kb = 0;
  for (const auto& v : r.victims)
    if (v.by != KillBy::Device) kb += static_cast<double>(v.kb);
  return kb;
}

}  // namespace

void Report::addDeviceKill(double at, Victim v) {
  v.by = KillBy::Device;
  mDeviceKills.emplace_back(at, std::move(v));
}

Summary Report::summary() const {
  Summary s;
  s.launches = mLaunches.size();
  for (const auto& r : mLaunches) {
    s.coldLaunches += r.cold;
    for (const auto& v : r.victims) {
      ++s.kills;
      switch (v.by) {
        case KillBy::Background: ++s.killsBackground; break;
        case KillBy::Favourite: ++s.killsFavourite; break;
        case KillBy::User: ++s.killsUser; break;
        case KillBy::Device: ++s.killsDevice; break;
      }
    }
    const double freed = pluginFreed(r);
    const double asked = std::max(0.0, r.amountKB) + std::max(0.0, r.serviceAmountKB);
    s.freedKB += freed;
    if (asked > 0) {
      // The kill action acts only on amounts in its window.
      if (r.amountKB <= kKillWindowMinKB || r.amountKB > kKillWindowMaxKB) {
        ++s.outsideWindow;
      } else {
        s.askedKB += asked;
        ++s.askingLaunches;
        if (freed >= asked) ++s.coveredLaunches;
      }
    }
    s.overKillKB += std::max(0.0, freed - asked);
    if (r.lackedKB > 0) {
      ++s.lackingLaunches;
      if (!r.learntKB) ++s.lackingUnlearnt;
      s.lackedKB += r.lackedKB;
    }
  }
  s.kills += mDeviceKills.size();
  s.killsDevice += mDeviceKills.size();
  double errSum = 0;
  for (const auto& a : mApps) {
    if (!a.learntRssKB) continue;
    ++s.appsLearnt;
    const double truth = static_cast<double>(a.trueIonKB + a.trueRssKB);
    const double learnt = static_cast<double>(*a.learntIonKB + *a.learntRssKB);
    if (truth > 0) errSum += std::fabs(learnt - truth) / truth * 100.0;
  }
  if (s.appsLearnt > 0) s.meanLearntErrorPct = errSum / static_cast<double>(s.appsLearnt);
  return s;
}

std::vector<ExpectationResult> Report::check(const std::vector<Expectation>& expectations) const {
  std::vector<ExpectationResult> out;
  for (const auto& x : expectations) {
    ExpectationResult r{x.launch, x.victims, {}, false};
    for (const auto& l : mLaunches) {
      if (l.index != x.launch) continue;
      for (const auto& v : l.victims)
        if (v.by != KillBy::Device) r.actual.push_back(v.name);
    }
    // Order within a pass follows the plug-in's candidate order; the set is what is promised.
    auto a = r.actual, e = r.expected;
    std::sort(a.begin(), a.end());
    std::sort(e.begin(), e.end());
    r.ok = a == e;
    out.push_back(std::move(r));
  }
  return out;
}

std::string Report::launchHeader() const {
  return "   #  time      " + pad("app", 32) + rpad("learnt", 8) + rpad("to free", 9) + rpad("freed", 9) + "  victims";
}

std::string Report::launchLine(const LaunchRecord& r) const {
  char idx[16];
  std::snprintf(idx, sizeof idx, "%4d", r.index);
  std::string line = std::string(idx) + "  " + clockTime(r.at) + "  " + pad(r.app + (r.cold ? "" : " (warm)"), 32);
  line += rpad(r.learntKB ? formatMB(static_cast<double>(*r.learntKB)) : "-", 8);
  const double asked = std::max(0.0, r.amountKB) + std::max(0.0, r.serviceAmountKB);
  line += rpad(r.answered ? formatMB(asked) : "?", 9);
  line += rpad(formatMB(pluginFreed(r)), 9);
  std::string victims;
  for (const auto& v : r.victims) {
    victims += (victims.empty() ? "" : ", ") + v.name + " (" + shortBy(v.by) + (v.servicePass ? ", svc" : "") + " " +
               formatMB(static_cast<double>(v.kb)) + ")";
  }
  line += "  " + (victims.empty() ? std::string("-") : victims);
  if (r.lackedKB > 0) line += "  [short of " + formatMB(static_cast<double>(r.lackedKB)) + "]";
  return line;
}

std::string Report::toText(const std::vector<Expectation>& expectations) const {
  std::ostringstream o;
  o << "Scenario: " << scenarioName << " (" << deviceClass << " class, MemTotal " << totalKB << " KB)\n";
  if (!runDir.empty()) o << "Run directory: " << runDir << "\n";
  for (const auto& p : problems) o << "Note: " << p << "\n";
  o << "\n" << launchHeader() << "\n";
  for (const auto& r : mLaunches) o << launchLine(r) << "\n";

  const Summary s = summary();
  auto pctOf = [](double part, double whole) {
    char b[16];
    std::snprintf(b, sizeof b, "%.0f %%", whole > 0 ? part / whole * 100.0 : 0.0);
    return std::string(b);
  };
  o << "\nSummary\n";
  o << "  launches                    " << s.launches << " (" << s.coldLaunches << " cold)\n";
  o << "  kills                       " << s.kills << ": " << s.killsBackground << " background, " << s.killsFavourite
    << " favourite, " << s.killsUser << " user-launched by the plug-in; " << s.killsDevice
    << " by the device's low-memory killer\n";
  o << "  memory freed                " << formatMB(s.freedKB) << " by the plug-in, for " << formatMB(s.askedKB)
    << " asked\n";
  o << "  over-kill beyond the need   " << formatMB(s.overKillKB) << " (" << pctOf(s.overKillKB, s.freedKB)
    << " of freed)\n";
  o << "  amounts covered by kills    " << s.coveredLaunches << " of " << s.askingLaunches
    << " launches that asked to free " << formatMB(kKillWindowMinKB) << " .. " << formatMB(kKillWindowMaxKB)
    << "; " << s.outsideWindow << " asked for amounts outside that window, which it does not act on\n";
  o << "  launches short of memory    " << s.lackingLaunches << " (" << s.lackingUnlearnt
    << " before the app's need was learnt), " << formatMB(static_cast<double>(s.lackedKB))
    << " to swap out or kill for in all\n";
  o << "  learnt needs                " << s.appsLearnt << " of " << mApps.size() << " apps, mean error ";
  char err[16];
  std::snprintf(err, sizeof err, "%.1f %%", s.meanLearntErrorPct);
  o << err << "\n";

  o << "\nLearnt vs true needs (ion_kgsl + rss_swap)\n";
  o << "  " << pad("app", 26) << rpad("true", 9) << rpad("learnt", 9) << rpad("error", 8) << rpad("launches", 10)
    << rpad("killed", 8) << "  state\n";
  for (const auto& a : mApps) {
    const double truth = static_cast<double>(a.trueIonKB + a.trueRssKB);
    std::string learnt = "-", e = "-";
    if (a.learntRssKB) {
      const double l = static_cast<double>(*a.learntIonKB + *a.learntRssKB);
      learnt = formatMB(l);
      char b[16];
      std::snprintf(b, sizeof b, "%+.1f %%", truth > 0 ? (l - truth) / truth * 100.0 : 0.0);
      e = b;
    }
    o << "  " << pad(a.name, 26) << rpad(formatMB(truth), 9) << rpad(learnt, 9) << rpad(e, 8)
      << rpad(std::to_string(a.launches), 10) << rpad(std::to_string(a.killed), 8) << "  " << a.state << "\n";
  }

  const auto results = check(expectations);
  if (!results.empty()) {
    o << "\nExpected victims\n";
    for (const auto& r : results) {
      auto list = [](const std::vector<std::string>& v) {
        std::string s;
        for (const auto& x : v) s += (s.empty() ? "" : ", ") + x;
        return s.empty() ? std::string("none") : s;
      };
      o << "  launch " << r.launch << ": " << (r.ok ? "ok" : "MISMATCH") << " (expected " << list(r.expected)
        << "; got " << list(r.actual) << ")\n";
    }
  }
  return o.str();
}

nlohmann::json Report::toJson(const std::vector<Expectation>& expectations) const {
  nlohmann::json j;
  j["scenario"] = scenarioName;
  j["device"] = {{"class", deviceClass}, {"totalKB", totalKB}};
  j["runDir"] = runDir;
  j["problems"] = problems;
  j["launches"] = nlohmann::json::array();
  for (const auto& r : mLaunches) {
    nlohmann::json victims = nlohmann::json::array();
    for (const auto& v : r.victims)
      victims.push_back({{"name", v.name}, {"pid", v.pid}, {"kb", v.kb}, {"by", killByName(v.by)},
                         {"servicePass", v.servicePass}});
    nlohmann::json l = {{"index", r.index},
                        {"at", r.at},
                        {"time", clockTime(r.at)},
                        {"app", r.app},
                        {"cold", r.cold},
                        {"trueKB", r.trueKB},
                        {"learntKB", r.learntKB ? nlohmann::json(*r.learntKB) : nlohmann::json(nullptr)},
                        {"answered", r.answered},
                        {"amountKB", r.amountKB},
                        {"freedKB", r.freedKB},
                        {"serviceAmountKB", r.serviceAmountKB},
                        {"serviceFreedKB", r.serviceFreedKB},
                        {"freeBeforeKB", r.freeBeforeKB},
                        {"freeAfterKB", r.freeAfterKB},
                        {"lackedKB", r.lackedKB},
                        {"victims", victims}};
    j["launches"].push_back(l);
  }
  const Summary s = summary();
  j["summary"] = {{"launches", s.launches},
                  {"coldLaunches", s.coldLaunches},
                  {"kills", s.kills},
                  {"killsBackground", s.killsBackground},
                  {"killsFavourite", s.killsFavourite},
                  {"killsUser", s.killsUser},
                  {"killsDevice", s.killsDevice},
                  {"freedKB", s.freedKB},
                  {"askedKB", s.askedKB},
                  {"overKillKB", s.overKillKB},
                  {"askingLaunches", s.askingLaunches},
                  {"coveredLaunches", s.coveredLaunches},
                  {"outsideKillWindow", s.outsideWindow},
                  {"lackingLaunches", s.lackingLaunches},
                  {"lackingBeforeLearnt", s.lackingUnlearnt},
                  {"lackedKB", s.lackedKB},
                  {"appsLearnt", s.appsLearnt},
                  {"meanLearntErrorPct", s.meanLearntErrorPct}};
  j["apps"] = nlohmann::json::array();
  for (const auto& a : mApps) {
    nlohmann::json x = {{"name", a.name},         {"trueIonKgslKB", a.trueIonKB}, {"trueRssSwapKB", a.trueRssKB},
                        {"launches", a.launches}, {"killed", a.killed},         {"state", a.state}};
    x["learntIonKgslKB"] = a.learntIonKB ? nlohmann::json(*a.learntIonKB) : nlohmann::json(nullptr);
    x["learntRssSwapKB"] = a.learntRssKB ? nlohmann::json(*a.learntRssKB) : nlohmann::json(nullptr);
    j["apps"].push_back(x);
  }
  j["deviceKills"] = nlohmann::json::array();
  for (const auto& [at, v] : mDeviceKills) j["deviceKills"].push_back({{"at", at}, {"name", v.name}, {"kb", v.kb}});
  j["expectations"] = nlohmann::json::array();
  for (const auto& r : check(expectations))
    j["expectations"].push_back({{"launch", r.launch}, {"expected", r.expected}, {"actual", r.actual}, {"ok", r.ok}});
  return j;
}

}  // namespace vsim
