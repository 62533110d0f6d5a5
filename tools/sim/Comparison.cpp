#include "Comparison.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <sstream>

#include "Text.h"

namespace vsim {
namespace {

struct Row {
  const char* label;
  std::function<std::string(const Summary&)> cell;
};

std::string count(size_t n) { return std::to_string(n); }

const std::vector<Row>& rows() {
  static const std::vector<Row> kRows = {
      {"launches", [](const Summary& s) { return count(s.launches); }},
      {"cold launches", [](const Summary& s) { return count(s.coldLaunches); }},
      {"  caused by kills", [](const Summary& s) { return count(s.coldByKills()); }},
      {"    of the policy", [](const Summary& s) { return count(s.coldByPolicyKills); }},
      {"    of the low-memory killer", [](const Summary& s) { return count(s.coldByDeviceKills); }},
      {"kills by the policy", [](const Summary& s) { return count(s.killsByPolicy); }},
      {"  background/favourite/user",
       [](const Summary& s) {
         return count(s.killsBackground) + "/" + count(s.killsFavourite) + "/" + count(s.killsUser);
       }},
      {"kills by the low-memory killer", [](const Summary& s) { return count(s.killsDevice); }},
      {"memory freed by the policy", [](const Summary& s) { return formatMB(s.freedKB); }},
      {"over-kill", [](const Summary& s) { return formatMB(s.overKillKB); }},
      {"launches short of memory", [](const Summary& s) { return count(s.lackingLaunches); }},
      {"launch time, mean", [](const Summary& s) { return formatMs(s.launchMsMean); }},
      {"launch time, p95", [](const Summary& s) { return formatMs(s.launchMsP95); }},
      {"launch time, total", [](const Summary& s) { return formatMs(s.launchMsTotal); }},
      {"apps alive at the end", [](const Summary& s) { return count(s.appsAliveAtEnd); }},
  };
  return kRows;
}

std::string signedMs(double ms) { return (ms >= 0 ? "+" : "-") + formatMs(std::fabs(ms)); }

std::string signedCount(long n) { return (n >= 0 ? "+" : "") + std::to_string(n); }

}  // namespace

void Comparison::add(const Report& report) {
  PolicyOutcome o;
  o.policy = report.policy;
  o.runDir = report.runDir;
  o.summary = report.summary();
  for (const auto& r : report.launches()) o.launchMs.push_back(r.launchMs);
  mOutcomes.push_back(std::move(o));
}

std::string Comparison::toText() const {
  constexpr size_t kLabel = 32, kColumn = 22;
  std::ostringstream o;
  o << "Policies compared on " << printable(scenarioName) << " (" << printable(deviceClass)
    << " class): the same events and seed for each\n\n";
  o << std::string(kLabel, ' ');
  for (const auto& p : mOutcomes) {
    const std::string name = printable(p.policy);
    o << std::string(kColumn > name.size() ? kColumn - name.size() : 1, ' ') << name;
  }
  o << "\n";
  for (const Row& row : rows()) {
    std::string line = row.label;
    line.resize(kLabel, ' ');
    for (const auto& p : mOutcomes) {
      const std::string cell = row.cell(p.summary);
      line += std::string(kColumn > cell.size() ? kColumn - cell.size() : 1, ' ') + cell;
    }
    o << line << "\n";
  }
  o << againstNone();
  o << "\nRun directories:\n";
  for (const auto& p : mOutcomes) o << "  " << printable(p.policy) << ": " << printable(p.runDir) << "\n";
  return o.str();
}

std::string Comparison::againstNone() const {
  auto none = std::find_if(mOutcomes.begin(), mOutcomes.end(), [](const PolicyOutcome& p) { return p.policy == "none"; });
  if (none == mOutcomes.end()) return "";
  const Summary& base = none->summary;
  std::ostringstream o;
  o << "\nAgainst none (the low-memory killer alone):\n";
  for (const auto& p : mOutcomes) {
    if (&p == &*none) continue;
    const Summary& s = p.summary;
    const double dMean = s.launchMsMean - base.launchMsMean;
    const double pct = base.launchMsMean > 0 ? dMean / base.launchMsMean * 100.0 : 0.0;
    char share[32];
    std::snprintf(share, sizeof share, "%+.1f %%", pct);
    o << "  " << printable(p.policy) << ": mean launch time " << signedMs(dMean) << " (" << share << "), p95 "
      << signedMs(s.launchMsP95 - base.launchMsP95) << ", cold launches "
      << signedCount(static_cast<long>(s.coldLaunches) - static_cast<long>(base.coldLaunches))
      << ", apps alive at the end "
      << signedCount(static_cast<long>(s.appsAliveAtEnd) - static_cast<long>(base.appsAliveAtEnd)) << ": "
      << (dMean > 0 ? "slower than none" : dMean < 0 ? "faster than none" : "as fast as none") << "\n";
  }
  return o.str();
}

nlohmann::json Comparison::toJson() const {
  nlohmann::json j;
  j["scenario"] = scenarioName;
  j["device"] = {{"class", deviceClass}};
  j["policies"] = nlohmann::json::array();
  for (const auto& p : mOutcomes)
    j["policies"].push_back({{"policy", p.policy}, {"runDir", p.runDir}, {"summary", summaryJson(p.summary)}});
  return j;
}

}  // namespace vsim
