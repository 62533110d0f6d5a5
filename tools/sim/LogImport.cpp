#include "LogImport.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <regex>
#include <set>
#include <sstream>

#include "Text.h"
#include "features/vorak/VorakAppName.h"

namespace vsim {
namespace {

// logcat's threadtime line, with the year of "-v threadtime,year" and the
// uid of "-v threadtime,uid" when present: date, time, [uid,] pid, tid,
// priority, tag (padded to eight columns), message.
const std::regex& threadtimeLine() {
  static const std::regex re(
      R"(^(?:(\d{4})-)?(\d{2})-(\d{2})\s+(\d{2}):(\d{2}):(\d{2})\.(\d{3,6})\s+(?:\S+\s+)?\d+\s+\d+\s+[VDIWEFSA]\s+([^\s:]+)\s*:\s*(.*)$)");
  return re;
}

constexpr double kLearnEverySec = 7200;
// The simulator's clock runs to 1e7 s; a log is at most this long.
constexpr double kMaxSpanSec = 100 * 86400.0;

struct Timed {
  double at;  // seconds since 1970 of the log's own clock
  double end; // launches: when the launch completed
  std::string app;
  bool launch;
};

// "[a,b,c]" split into at most `max` fields, the last taking the rest.
std::optional<std::vector<std::string>> fields(const std::string& msg, size_t min, size_t max) {
  if (msg.size() < 2 || msg.front() != '[' || msg.back() != ']') return std::nullopt;
  const std::string body = msg.substr(1, msg.size() - 2);
  std::vector<std::string> out;
  size_t start = 0;
  while (out.size() + 1 < max) {
    const size_t comma = body.find(',', start);
    if (comma == std::string::npos) break;
    out.push_back(body.substr(start, comma - start));
    start = comma + 1;
  }
  out.push_back(body.substr(start));
  if (out.size() < min) return std::nullopt;
  return out;
}

std::optional<long> wholeNumber(const std::string& s) {
  if (s.empty() || s.size() > 12 || !std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return std::nullopt;
  return std::stol(s);
}

// Seconds since 1970 of a date and time taken as UTC: only differences and
// weekdays matter here, and the log's local time is what the user lived.
std::optional<double> epochSeconds(int year, int month, int day, int h, int m, int s, const std::string& frac) {
  if (month < 1 || month > 12 || day < 1 || day > 31 || h > 23 || m > 59 || s > 60) return std::nullopt;
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = h;
  tm.tm_min = m;
  tm.tm_sec = s;
  const time_t t = timegm(&tm);
  if (tm.tm_mday != day) return std::nullopt;  // 02-30 and the like
  return static_cast<double>(t) + std::stod("0." + frac);
}

// The app of "com.example/.Main" or "com.example/com.example.Main".
std::string appOfComponent(const std::string& component) {
  std::string c = component;
  if (!c.empty() && c.front() == '{') c.erase(0, 1);
  return c.substr(0, c.find('/'));
}

bool userRemoval(const std::string& reason) { return reason.rfind("remove task", 0) == 0 || reason.rfind("stop ", 0) == 0; }

AppFigures classDefaults(int gb) {
  // A mid-size app of the class, scaled as the generator scales its apps.
  const double scale = gb == 2 ? 0.7 : gb == 6 ? 1.2 : 1.0;
  const auto rss = static_cast<uint64_t>(256000 * scale);
  return {rss, rss / 4, rss / 4};
}

std::string lineList(const std::vector<size_t>& lines) {
  constexpr size_t kShown = 20;
  std::string s;
  for (size_t i = 0; i < lines.size() && i < kShown; ++i) s += (i == 0 ? "" : ", ") + std::to_string(lines[i]);
  if (lines.size() > kShown) s += " and " + std::to_string(lines.size() - kShown) + " more";
  return s;
}

// Reads the log into launches and removals, counting the rest.
class LogReader {
 public:
  LogReader(ImportResult& r, const ImportOptions& o) : mResult(r), mYear(o.year) {}

  void line(size_t number, std::string text) {
    if (!text.empty() && text.back() == '\r') text.pop_back();
    if (text.find_first_not_of(" \t") == std::string::npos || text.rfind("--------- ", 0) == 0) return;
    std::smatch m;
    if (!std::regex_match(text, m, threadtimeLine())) return bad(number);
    const auto at = when(number, m);
    if (!at) return bad(number);
    if (!mFirst) mFirst = *at;
    mLast = std::max(mLast, *at);
    const std::string tag = m[8], msg = m[9];
    if (tag == "wm_activity_launch_time" || tag == "am_activity_launch_time") {
      const auto f = fields(msg, 4, 5);
      const auto ms = f ? wholeNumber((*f)[3]) : std::nullopt;
      const std::string app = f ? appOfComponent((*f)[2]) : "";
      if (!ms || !vorak::isValidAppName(app)) return bad(number);
      mTimed.push_back({*at - static_cast<double>(*ms) / 1000.0, *at, app, true});
      ++mResult.launches;
    } else if (tag == "am_kill") {
      const auto f = fields(msg, 5, 5);
      if (!f) return bad(number);
      if (userRemoval((*f)[4])) mTimed.push_back({*at, *at, (*f)[2], false});
      else ++mResult.deviceKills;
    } else if (tag == "am_proc_start") {
      if (!fields(msg, 5, 6)) return bad(number);
      ++mResult.processStarts;
    } else if (tag == "am_proc_died") {
      if (!fields(msg, 3, 5)) return bad(number);
      ++mResult.processDeaths;
    } else {
      ++mResult.otherLines;
    }
  }

  std::vector<Timed>& timed() { return mTimed; }
  std::optional<double> first() const { return mFirst; }
  double last() const { return mLast; }

 private:
  void bad(size_t number) { mResult.badLines.push_back(number); }

  std::optional<double> when(size_t number, const std::smatch& m) {
    const int month = std::stoi(m[2]);
    // A month that does not exist must not turn the year either.
    if (month < 1 || month > 12) return std::nullopt;
    int year;
    if (m[1].matched) {
      year = std::stoi(m[1]);
    } else if (mYear) {
      // A log without years runs on into January of the next one.
      if (mLastMonth && month < *mLastMonth) ++*mYear;
      year = *mYear;
    } else {
      throw ScenarioError("line " + std::to_string(number) +
                          ": the log's dates carry no year, so their weekdays are unknown: give --year (or capture "
                          "with -v threadtime,year)");
    }
    mLastMonth = month;
    return epochSeconds(year, month, std::stoi(m[3]), std::stoi(m[4]), std::stoi(m[5]), std::stoi(m[6]), m[7]);
  }

  ImportResult& mResult;
  std::optional<int> mYear;
  std::optional<int> mLastMonth;
  std::optional<double> mFirst;
  double mLast = 0;
  std::vector<Timed> mTimed;
};

}  // namespace

std::map<std::string, AppFigures> parseFigures(const std::string& csv) {
  std::map<std::string, AppFigures> out;
  std::istringstream in(csv);
  size_t number = 0;
  bool seenRow = false;
  for (std::string line; std::getline(in, line);) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos || line[0] == '#') continue;
    std::vector<std::string> cells;
    std::istringstream row(line);
    for (std::string cell; std::getline(row, cell, ',');) {
      const auto a = cell.find_first_not_of(" \t"), b = cell.find_last_not_of(" \t");
      cells.push_back(a == std::string::npos ? "" : cell.substr(a, b - a + 1));
    }
    const std::string where = "figures line " + std::to_string(number);
    if (cells.size() != 4) throw ScenarioError(where + ": expected 4 columns (app, rss_swap KB, graphics KB, file KB)");
    const auto rss = wholeNumber(cells[1]), gpu = wholeNumber(cells[2]), file = wholeNumber(cells[3]);
    const bool first = !seenRow;
    seenRow = true;
    if (!rss || !gpu || !file) {
      if (first && !rss && !gpu && !file) continue;  // column names
      throw ScenarioError(where + ": the three figures must be whole numbers of KB");
    }
    if (const char* problem = vorak::appNameProblem(cells[0]))
      throw ScenarioError(where + ": '" + printable(cells[0]) + "' is not a valid name: " + problem);
    if (*rss == 0) throw ScenarioError(where + ": rss_swap must be above 0");
    if (!out.emplace(cells[0], AppFigures{static_cast<uint64_t>(*rss), static_cast<uint64_t>(*gpu), static_cast<uint64_t>(*file)}).second)
      throw ScenarioError(where + ": '" + cells[0] + "' is listed twice");
  }
  return out;
}

ImportResult importLog(std::istream& log, const std::map<std::string, AppFigures>& figures, const ImportOptions& options) {
  const auto device = DeviceProfile::forClass(options.deviceGb);
  if (!device) throw ScenarioError("device class must be 2, 4 or 6 (GB)");
  ImportResult r;
  LogReader reader(r, options);
  size_t number = 0;
  for (std::string line; std::getline(log, line);) reader.line(++number, line);
  if (r.launches == 0) throw ScenarioError("no activity launch in the log (tags wm_activity_launch_time, am_activity_launch_time): nothing to replay");

  auto& timed = reader.timed();
  // Monday 00:00 of the first line's week; 1970-01-01 was a Thursday.
  const double firstDay = std::floor(*reader.first() / 86400);
  const double monday = (firstDay - std::fmod(firstDay + 3, 7)) * 86400;
  if (reader.last() - monday > kMaxSpanSec) throw ScenarioError("the log spans more than 100 days from the Monday of its first line");

  Scenario& sc = r.scenario;
  sc.name = options.name.empty() ? "imported event log" : options.name;
  sc.device = *device;
  std::set<std::string> apps;
  for (const auto& t : timed)
    if (t.launch) apps.insert(t.app);
  const AppFigures defaults = classDefaults(options.deviceGb);
  for (const auto& name : apps) {
    auto f = figures.find(name);
    if (f == figures.end()) r.defaulted.push_back(name);
    const AppFigures& a = f == figures.end() ? defaults : f->second;
    AppProfile p;
    p.name = name;
    p.rssSwapKB = a.rssSwapKB;
    p.ionKgslKB = a.ionKgslKB;
    p.fileKB = a.fileKB;
    sc.apps.push_back(p);
  }
  for (const auto& t : timed) {
    const double at = std::max(0.0, t.at - monday);
    if (t.launch) {
      sc.events.push_back({at, EventType::Prepare, "", 101, 0});
      sc.events.push_back({at, EventType::Launch, t.app, 101, 0});
      sc.events.push_back({std::max(at, t.end - monday), EventType::Complete, t.app, 101, 0});
    } else if (apps.count(t.app) != 0) {
      sc.events.push_back({at, EventType::Remove, t.app, 101, 0});
      ++r.removals;
    }
  }
  for (double at = (std::floor((*reader.first() - monday) / kLearnEverySec) + 1) * kLearnEverySec;
       at <= reader.last() - monday; at += kLearnEverySec)
    sc.events.push_back({at, EventType::Learn, "", 101, 0});
  if (sc.events.size() > kMaxEvents) throw ScenarioError("the log makes more than " + std::to_string(kMaxEvents) + " events");
  std::stable_sort(sc.events.begin(), sc.events.end(), [](const Event& a, const Event& b) { return a.at < b.at; });
  return r;
}

std::vector<std::string> ImportResult::warnings() const {
  std::vector<std::string> w;
  if (!badLines.empty())
    w.push_back(std::to_string(badLines.size()) + (badLines.size() == 1 ? " malformed line" : " malformed lines") +
                " skipped: " + lineList(badLines));
  if (!defaulted.empty()) {
    std::string names;
    for (const auto& n : defaulted) names += (names.empty() ? "" : ", ") + n;
    w.push_back(std::to_string(defaulted.size()) + (defaulted.size() == 1 ? " app has" : " apps have") +
                (defaulted.size() == 1 ? " no figures and gets" : " no figures and get") + std::string(" the class defaults: ") + names);
  }
  return w;
}

}  // namespace vsim
