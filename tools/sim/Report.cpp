#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "Text.h"

namespace vsim {

const char* killByName(KillBy by) {
  switch (by) {
    case KillBy::Background: return "background";
    case KillBy::Favourite: return "favourite";
    case KillBy::User: return "user-launched";
    case KillBy::Device: return "low-memory killer";
    case KillBy::Oracle: return "oracle";
  }
  return "?";
}

const char* coldCauseName(ColdCause cause) {
  switch (cause) {
    case ColdCause::Warm: return "warm";
    case ColdCause::First: return "first";
    case ColdCause::Removed: return "removed";
    case ColdCause::KilledByPolicy: return "killed by the policy";
    case ColdCause::KilledByDevice: return "killed by the low-memory killer";
    case ColdCause::Other: return "died";
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

std::string formatMs(double ms) {
  char buf[32];
  if (std::fabs(ms) >= 60000.0) std::snprintf(buf, sizeof buf, "%.1f min", ms / 60000.0);
  else if (std::fabs(ms) >= 1000.0) std::snprintf(buf, sizeof buf, "%.2f s", ms / 1000.0);
  else std::snprintf(buf, sizeof buf, "%.0f ms", ms);
  return buf;
}

namespace {

const char* shortBy(KillBy by) {
  switch (by) {
    case KillBy::Background: return "bg";
    case KillBy::Favourite: return "fav";
    case KillBy::User: return "user";
    case KillBy::Device: return "lmk";
    case KillBy::Oracle: return "oracle";
  }
  return "?";
}

std::string pad(const std::string& s, size_t w) { return s.size() >= w ? s : s + std::string(w - s.size(), ' '); }
std::string rpad(const std::string& s, size_t w) { return s.size() >= w ? s : std::string(w - s.size(), ' ') + s; }

std::string percent(double v, const char* format = "%.1f %%") {
  char b[32];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

double policyFreed(const LaunchRecord& r) {
  double kb = 0;
  for (const auto& v : r.victims)
    if (byPolicy(v.by)) kb += static_cast<double>(v.kb);
  return kb;
}

// |learnt - true| / true of each learnt outcome; adds to the count and returns the mean.
double meanLearntError(const std::vector<AppOutcome>& outcomes, size_t& learnt) {
  double sum = 0;
  for (const auto& a : outcomes) {
    if (!a.learntRssKB) continue;
    ++learnt;
    const double truth = static_cast<double>(a.trueIonKB + a.trueRssKB);
    const double l = static_cast<double>(*a.learntIonKB + *a.learntRssKB);
    if (truth > 0) sum += std::fabs(l - truth) / truth * 100.0;
  }
  return learnt > 0 ? sum / static_cast<double>(learnt) : 0.0;
}

void countKill(Summary& s, KillBy by) {
  ++s.kills;
  switch (by) {
    case KillBy::Background: ++s.killsBackground; break;
    case KillBy::Favourite: ++s.killsFavourite; break;
    case KillBy::User: ++s.killsUser; break;
    case KillBy::Device: ++s.killsDevice; break;
    case KillBy::Oracle: ++s.killsOracle; break;
  }
  if (byPolicy(by)) ++s.killsByPolicy;
}

void addLaunchTimes(Summary& s, const std::vector<LaunchRecord>& launches) {
  std::vector<double> ms;
  for (const auto& r : launches) ms.push_back(r.launchMs);
  if (ms.empty()) return;
  std::sort(ms.begin(), ms.end());
  for (double m : ms) s.launchMsTotal += m;
  s.launchMsMean = s.launchMsTotal / static_cast<double>(ms.size());
  // Nearest rank: the smallest time that at least 95 % of launches do not exceed.
  const auto rank = static_cast<size_t>(std::ceil(0.95 * static_cast<double>(ms.size())));
  s.launchMsP95 = ms[std::max<size_t>(rank, 1) - 1];
}

std::string learntColumns(const AppOutcome& a) {
  const double truth = static_cast<double>(a.trueIonKB + a.trueRssKB);
  std::string learnt = "-", e = "-";
  if (a.learntRssKB) {
    const double l = static_cast<double>(*a.learntIonKB + *a.learntRssKB);
    learnt = formatMB(l);
    e = percent(truth > 0 ? (l - truth) / truth * 100.0 : 0.0, "%+.1f %%");
  }
  return "  " + pad(printable(a.name), 26) + rpad(formatMB(truth), 9) + rpad(learnt, 9) + rpad(e, 9);
}

std::string joined(const std::vector<std::string>& names, const char* none = "none") {
  std::string s;
  for (const auto& n : names) s += (s.empty() ? "" : ", ") + printable(n);
  return s.empty() ? std::string(none) : s;
}

}  // namespace

void Report::addDeviceKill(double at, Victim v) {
  v.by = KillBy::Device;
  mDeviceKills.emplace_back(at, std::move(v));
}

Summary Report::summary() const {
  Summary s;
  s.launches = mLaunches.size();
  // Only the plug-in's kill action is bound to its window; the oracle frees any amount.
  const bool windowed = policy.rfind("vorak", 0) == 0;
  for (const auto& r : mLaunches) {
    s.coldLaunches += r.cold;
    s.coldByPolicyKills += r.coldCause == ColdCause::KilledByPolicy;
    s.coldByDeviceKills += r.coldCause == ColdCause::KilledByDevice;
    s.favouriteLaunches += r.favourite;
    for (const auto& v : r.victims) countKill(s, v.by);
    const double freed = policyFreed(r);
    const double asked = std::max(0.0, r.amountKB) + std::max(0.0, r.serviceAmountKB);
    s.freedKB += freed;
    if (asked > 0) {
      // The kill action acts only on amounts in its window.
      if (windowed && (r.amountKB <= kKillWindowMinKB || r.amountKB > kKillWindowMaxKB)) {
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
  for (const auto& k : mDeviceKills) countKill(s, k.second.by);
  s.meanLearntErrorPct = meanLearntError(mApps, s.appsLearnt);
  s.meanServiceErrorPct = meanLearntError(mServices, s.servicesLearnt);
  addLaunchTimes(s, mLaunches);
  s.appsAliveAtEnd = appsAliveAtEnd;
  return s;
}

std::vector<ExpectationResult> Report::check(const std::vector<Expectation>& expectations) const {
  std::vector<ExpectationResult> out;
  for (const auto& x : expectations) {
    ExpectationResult r{x.launch, x.victims, {}, false};
    for (const auto& l : mLaunches) {
      if (l.index != x.launch) continue;
      for (const auto& v : l.victims)
        if (byPolicy(v.by)) r.actual.push_back(v.name);
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
  return "   #  " + pad("time", multiDay ? 14 : 10) + pad("app", 36) + rpad("learnt", 8) + rpad("to free", 9) +
         rpad("freed", 9) + rpad("launch", 9) + "  victims";
}

std::string Report::launchLine(const LaunchRecord& r) const {
  char idx[16];
  std::snprintf(idx, sizeof idx, "%4d", r.index);
  const char* how = r.cold ? (r.coldCause == ColdCause::KilledByPolicy || r.coldCause == ColdCause::KilledByDevice
                                  ? " (killed before)"
                                  : "")
                           : " (warm)";
  std::string line = std::string(idx) + "  " + pad(timeOf(r.at), multiDay ? 14 : 10) + pad(printable(r.app) + how, 36);
  line += rpad(r.learntKB ? formatMB(static_cast<double>(*r.learntKB)) : "-", 8);
  const double asked = std::max(0.0, r.amountKB) + std::max(0.0, r.serviceAmountKB);
  line += rpad(r.answered ? formatMB(asked) : "?", 9);
  line += rpad(formatMB(policyFreed(r)), 9);
  line += rpad(formatMs(r.launchMs), 9);
  std::string victims;
  for (const auto& v : r.victims) {
    victims += (victims.empty() ? "" : ", ") + printable(v.name) + " (" + shortBy(v.by) +
               (v.servicePass ? ", svc" : "") + " " + formatMB(static_cast<double>(v.kb)) + ")";
  }
  line += "  " + (victims.empty() ? std::string("-") : victims);
  if (r.lackedKB > 0) line += "  [short of " + formatMB(static_cast<double>(r.lackedKB)) + "]";
  return line;
}

std::string Report::toText(const std::vector<Expectation>& expectations) const {
  std::ostringstream o;
  o << "Scenario: " << printable(scenarioName) << " (" << printable(deviceClass) << " class, MemTotal " << totalKB
    << " KB), policy " << printable(policy) << "\n";
  if (!runDir.empty()) o << "Run directory: " << printable(runDir) << "\n";
  for (const auto& p : problems) o << "Note: " << printable(p) << "\n";
  o << "\n" << launchHeader() << "\n";
  for (const auto& r : mLaunches) o << launchLine(r) << "\n";
  o << summaryText();
  o << learntText();
  o << slotText();
  o << expectationText(expectations);
  return o.str();
}

std::string Report::summaryText() const {
  const Summary s = summary();
  std::ostringstream o;
  o << "\nSummary\n";
  o << "  launches                    " << s.launches << " (" << s.coldLaunches << " cold, " << s.coldByKills()
    << " of them because a kill took the app: " << s.coldByPolicyKills << " by the policy, " << s.coldByDeviceKills
    << " by the low-memory killer)\n";
  o << "  estimated launch time       mean " << formatMs(s.launchMsMean) << ", p95 " << formatMs(s.launchMsP95)
    << ", total " << formatMs(s.launchMsTotal) << "\n";
  o << "  kills                       " << s.kills << ": " << s.killsBackground << " background, " << s.killsFavourite
    << " favourite, " << s.killsUser << " user-launched by the plug-in; ";
  if (s.killsOracle > 0) o << s.killsOracle << " by the oracle; ";
  o << s.killsDevice << " by the device's low-memory killer\n";
  o << "  memory freed                " << formatMB(s.freedKB) << " by the policy, for " << formatMB(s.askedKB)
    << " asked\n";
  o << "  over-kill beyond the need   " << formatMB(s.overKillKB) << " ("
    << percent(s.freedKB > 0 ? s.overKillKB / s.freedKB * 100.0 : 0.0, "%.0f %%") << " of freed)\n";
  o << "  amounts covered by kills    " << s.coveredLaunches << " of " << s.askingLaunches
    << " launches that asked to free " << formatMB(kKillWindowMinKB) << " .. " << formatMB(kKillWindowMaxKB)
    << "; " << s.outsideWindow << " asked for amounts outside that window, which it does not act on\n";
  o << "  launches short of memory    " << s.lackingLaunches << " (" << s.lackingUnlearnt
    << " before the app's need was learnt), " << formatMB(static_cast<double>(s.lackedKB))
    << " to swap out or kill for in all\n";
  o << "  apps alive at the end       " << s.appsAliveAtEnd << "\n";
  o << "  learnt needs                " << s.appsLearnt << " of " << mApps.size() << " apps, mean error "
    << percent(s.meanLearntErrorPct) << "; " << s.servicesLearnt << " of " << mServices.size()
    << " services, mean error " << percent(s.meanServiceErrorPct) << "\n";
  return o.str();
}

std::string Report::learntText() const {
  std::ostringstream o;
  o << "\nLearnt vs true needs (ion_kgsl + rss_swap)\n";
  o << "  " << pad("app", 26) << rpad("true", 9) << rpad("learnt", 9) << rpad("error", 9) << rpad("launches", 10)
    << rpad("killed", 8) << "  state\n";
  for (const auto& a : mApps)
    o << learntColumns(a) << rpad(std::to_string(a.launches), 10) << rpad(std::to_string(a.killed), 8) << "  "
      << printable(a.state) << "\n";
  if (mServices.empty()) return o.str();
  // A service's samples are taken from the process that the framework lists
  // at the same position as the name, so a service can learn another's size.
  o << "\nServices: learnt vs true needs (names and pids paired by position)\n";
  o << "  " << pad("service", 26) << rpad("true", 9) << rpad("learnt", 9) << rpad("error", 9) << rpad("killed", 8)
    << "\n";
  for (const auto& a : mServices) o << learntColumns(a) << rpad(std::to_string(a.killed), 8) << "\n";
  return o.str();
}

std::string Report::slotText() const {
  struct SlotUse {
    size_t launches = 0, ofFavourites = 0, favouriteKills = 0;
  };
  std::map<std::string, SlotUse> slots;
  for (const auto& r : mLaunches) {
    SlotUse& u = slots[r.slot];
    ++u.launches;
    u.ofFavourites += r.favourite;
    for (const auto& v : r.victims) u.favouriteKills += v.by == KillBy::Favourite;
  }
  for (const auto& f : favourites) slots[f.first];
  std::ostringstream o;
  o << "\nTime slots: launches, those of the slot's favourites (the host's prediction at the time), the plug-in's\n"
       "kills of favourites, and the favourites at the end\n";
  o << "  " << pad("slot", 12) << rpad("launches", 9) << rpad("of favs", 9) << rpad("fav kills", 11)
    << "  favourites at the end\n";
  for (const auto& [slot, u] : slots) {
    auto f = favourites.find(slot);
    o << "  " << pad(printable(slot), 12) << rpad(std::to_string(u.launches), 9)
      << rpad(std::to_string(u.ofFavourites), 9) << rpad(std::to_string(u.favouriteKills), 11) << "  "
      << (f == favourites.end() ? std::string("-") : joined(f->second)) << "\n";
  }
  return o.str();
}

std::string Report::expectationText(const std::vector<Expectation>& expectations) const {
  const auto results = check(expectations);
  if (results.empty()) return "";
  std::ostringstream o;
  o << "\nExpected victims\n";
  for (const auto& r : results)
    o << "  launch " << r.launch << ": " << (r.ok ? "ok" : "MISMATCH") << " (expected " << joined(r.expected)
      << "; got " << joined(r.actual) << ")\n";
  return o.str();
}

namespace {

nlohmann::json optionalJson(const std::optional<int64_t>& v) { return v ? nlohmann::json(*v) : nlohmann::json(); }

nlohmann::json outcomeJson(const AppOutcome& a) {
  return {{"name", a.name},
          {"trueIonKgslKB", a.trueIonKB},
          {"trueRssSwapKB", a.trueRssKB},
          {"learntIonKgslKB", optionalJson(a.learntIonKB)},
          {"learntRssSwapKB", optionalJson(a.learntRssKB)},
          {"launches", a.launches},
          {"killed", a.killed},
          {"state", a.state}};
}

nlohmann::json launchJson(const LaunchRecord& r, const std::string& time) {
  nlohmann::json victims = nlohmann::json::array();
  for (const auto& v : r.victims)
    victims.push_back({{"name", v.name}, {"pid", v.pid}, {"kb", v.kb}, {"by", killByName(v.by)},
                       {"servicePass", v.servicePass}});
  return {{"index", r.index},
          {"at", r.at},
          {"time", time},
          {"app", r.app},
          {"cold", r.cold},
          {"coldCause", coldCauseName(r.coldCause)},
          {"slot", r.slot},
          {"favourite", r.favourite},
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
          {"shortfallKB", r.shortfallKB},
          {"cacheDroppedKB", r.work.cacheDroppedKB},
          {"swappedOutKB", r.work.swappedOutKB},
          {"swappedInKB", r.work.swappedInKB},
          {"lmkWaitKB", r.work.lmkWaitKB},
          {"launchMs", r.launchMs},
          {"victims", victims}};
}

}  // namespace

nlohmann::json summaryJson(const Summary& s) {
  return {{"launches", s.launches},
          {"coldLaunches", s.coldLaunches},
          {"coldCausedByKills", s.coldByKills()},
          {"coldCausedByPolicyKills", s.coldByPolicyKills},
          {"coldCausedByLowMemoryKiller", s.coldByDeviceKills},
          {"kills", s.kills},
          {"killsByPolicy", s.killsByPolicy},
          {"killsBackground", s.killsBackground},
          {"killsFavourite", s.killsFavourite},
          {"killsUser", s.killsUser},
          {"killsOracle", s.killsOracle},
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
          {"launchMsMean", s.launchMsMean},
          {"launchMsP95", s.launchMsP95},
          {"launchMsTotal", s.launchMsTotal},
          {"favouriteLaunches", s.favouriteLaunches},
          {"appsAliveAtEnd", s.appsAliveAtEnd},
          {"appsLearnt", s.appsLearnt},
          {"meanLearntErrorPct", s.meanLearntErrorPct},
          {"servicesLearnt", s.servicesLearnt},
          {"meanServiceLearntErrorPct", s.meanServiceErrorPct}};
}

nlohmann::json Report::toJson(const std::vector<Expectation>& expectations) const {
  nlohmann::json j;
  j["scenario"] = scenarioName;
  j["policy"] = policy;
  j["device"] = {{"class", deviceClass}, {"totalKB", totalKB}};
  j["runDir"] = runDir;
  j["problems"] = problems;
  j["launches"] = nlohmann::json::array();
  for (const auto& r : mLaunches) j["launches"].push_back(launchJson(r, timeOf(r.at)));
  j["summary"] = summaryJson(summary());
  j["apps"] = nlohmann::json::array();
  for (const auto& a : mApps) j["apps"].push_back(outcomeJson(a));
  j["services"] = nlohmann::json::array();
  for (const auto& a : mServices) j["services"].push_back(outcomeJson(a));
  j["favourites"] = favourites;
  j["deviceKills"] = nlohmann::json::array();
  for (const auto& [at, v] : mDeviceKills) j["deviceKills"].push_back({{"at", at}, {"name", v.name}, {"kb", v.kb}});
  j["expectations"] = nlohmann::json::array();
  for (const auto& r : check(expectations))
    j["expectations"].push_back({{"launch", r.launch}, {"expected", r.expected}, {"actual", r.actual}, {"ok", r.ok}});
  return j;
}

}  // namespace vsim
