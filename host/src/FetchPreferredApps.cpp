#include "FetchPreferredApps.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <tuple>

#include "Properties.h"
#include "WallClock.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"

namespace {

using UserTable = KxDatabase<_vorak_User_Launched_Data>;
using SlotTable = KxDatabase<_vorak_Favorite_Time_Slot_Data>;

constexpr long kKeptDays = 35;

const std::vector<std::string>& allSlots() {
  static const std::vector<std::string> kSlots = {"week_day_1", "week_day_2", "week_day_3", "week_day_4",
                                                  "week_end_1", "week_end_2", "week_end_3", "week_end_4"};
  return kSlots;
}

// A local calendar day as a number that orders days and gives their weekday.
long dayNumber(const std::tm& local) {
  std::tm date{};
  date.tm_year = local.tm_year;
  date.tm_mon = local.tm_mon;
  date.tm_mday = local.tm_mday;
  return static_cast<long>(timegm(&date) / 86400);
}

// 1970-01-01, day 0, was a Thursday.
bool isWeekend(long day) {
  const long wday = ((day % 7) + 7 + 4) % 7;
  return wday == 0 || wday == 6;
}

int intProperty(const char* key, int def, int lo, int hi) {
  char value[PROPERTY_VALUE_MAX];
  if (property_get(key, value, nullptr) <= 0) return def;
  char* end = nullptr;
  const long v = std::strtol(value, &end, 10);
  if (end == value || *end != '\0' || v < lo || v > hi) return def;
  return static_cast<int>(v);
}

struct Figures {
  int days, minDays, maxApps;
};

Figures readFigures() {
  Figures f;
  f.days = intProperty(FetchPreferredApps::kDaysProperty, FetchPreferredApps::kDefaultDays, 1, 28);
  f.minDays = intProperty(FetchPreferredApps::kMinDaysProperty, FetchPreferredApps::kDefaultMinDays, 1, f.days);
  f.maxApps = intProperty(FetchPreferredApps::kMaxAppsProperty, FetchPreferredApps::kDefaultMaxApps, 1, 64);
  return f;
}

// Launches per app, per day, per slot key.
class LaunchHistory {
 public:
  // Never destroyed: feature threads may still ask for favourites at exit.
  static LaunchHistory& instance() {
    static LaunchHistory* history = new LaunchHistory();
    return *history;
  }

  void note(const std::string& app, std::time_t when) {
    std::tm local;
    if (app.empty() || localtime_r(&when, &local) == nullptr) return;
    const long day = dayNumber(local);
    std::lock_guard<std::mutex> lock(mMutex);
    ++mLaunches[app][day][FetchPreferredApps::timeSlotKey(local)];
    for (auto& entry : mLaunches) entry.second.erase(entry.second.begin(), entry.second.lower_bound(day - kKeptDays));
  }

  void clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mLaunches.clear();
  }

  std::map<std::string, std::vector<std::string>> predict(std::time_t now, const Figures& f) {
    std::tm local;
    if (localtime_r(&now, &local) == nullptr) return {};
    const long today = dayNumber(local);
    std::map<std::string, std::vector<std::string>> out;
    for (const std::string& slot : allSlots()) {
      const bool weekend = slot.rfind("week_end_", 0) == 0;
      std::vector<std::string> apps = favourites(slot, oldestDay(today, weekend, f.days), today, f);
      if (!apps.empty()) out[slot] = std::move(apps);
    }
    return out;
  }

 private:
  // The first of the last `days` days of the kind up to today.
  static long oldestDay(long today, bool weekend, int days) {
    long day = today;
    for (int seen = 0; day > today - kKeptDays; --day)
      if (isWeekend(day) == weekend && ++seen == days) break;
    return day;
  }

  std::vector<std::string> favourites(const std::string& slot, long oldest, long today, const Figures& f) {
    std::lock_guard<std::mutex> lock(mMutex);
    // (days launched in the slot, launches, name), most regular first.
    std::vector<std::tuple<int, int, std::string>> ranked;
    for (const auto& [app, days] : mLaunches) {
      int onDays = 0, launches = 0;
      for (auto it = days.lower_bound(oldest); it != days.end() && it->first <= today; ++it) {
        auto n = it->second.find(slot);
        if (n == it->second.end()) continue;
        ++onDays;
        launches += n->second;
      }
      if (onDays >= f.minDays) ranked.emplace_back(onDays, launches, app);
    }
    std::sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
      return std::tie(std::get<0>(b), std::get<1>(b), std::get<2>(a)) <
             std::tie(std::get<0>(a), std::get<1>(a), std::get<2>(b));
    });
    std::vector<std::string> out;
    for (size_t i = 0; i < ranked.size() && i < static_cast<size_t>(f.maxApps); ++i)
      out.push_back(std::get<2>(ranked[i]));
    return out;
  }

  // Guards mLaunches: launches are noted on the framework's thread while
  // the learning and hint threads predict.
  std::mutex mMutex;
  std::map<std::string, std::map<long, std::map<std::string, int>>> mLaunches;
};

// Joins whole names only, leaving room for the terminator.
std::string joinFitting(const std::vector<std::string>& names, size_t capacity) {
  std::string list;
  for (const std::string& name : names) {
    size_t needed = list.size() + (list.empty() ? 0 : 1) + name.size();
    if (needed >= capacity) continue;
    if (!list.empty()) list += '/';
    list += name;
  }
  return list;
}

// Replaces the slot's list; the row is updated in place or created, but not
// created only to hold nothing.
void writeSlot(SlotTable* table, const std::string& slot, const std::vector<std::string>& names) {
  KxDBDataRowKey key(slot, 0);
  SlotTable::vecT rows = table->readAllocateDR(key, 1, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  if (rows.empty()) {
    if (names.empty()) return;
    rows = table->allocateDR(1);
    if (rows.empty()) return;
    rows[0]->appName = slot;
  }
  const std::string list = joinFitting(names, sizeof rows[0]->blob.favoriteApps);
  std::memset(rows[0]->blob.favoriteApps, 0, sizeof rows[0]->blob.favoriteApps);
  std::memcpy(rows[0]->blob.favoriteApps, list.data(), list.size());
  table->writeDeallocateDR(rows);
}

// Adds the app's row to `to` from its one row in `from`, unless `to` has one.
void seedRow(UserTable* to, UserTable* from, const std::string& app) {
  KxDBDataRowKey key(app, 0);
  if (to->getCountDR(key) != 0) return;
  UserTable::vecT source = from->readAllocateDR(key, 2, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  if (source.size() == 1) {
    UserTable::vecT rows = to->allocateDR(1);
    if (!rows.empty()) {
      rows[0]->appName = app;
      rows[0]->blob = source[0]->blob;
      to->writeDeallocateDR(rows);
    }
  }
  from->deallocateDR(source);
}

}  // namespace

std::string FetchPreferredApps::timeSlotKey(const std::tm& local) {
  std::string key = (local.tm_wday >= 1 && local.tm_wday <= 5) ? "week_day_" : "week_end_";
  const int hour = local.tm_hour;
  if (hour >= 4 && hour <= 11) return key + "1";
  if (hour >= 12 && hour <= 16) return key + "2";
  if (hour >= 17 && hour <= 20) return key + "3";
  return key + "4";
}

void FetchPreferredApps::noteLaunch(const std::string& app, std::time_t when) {
  LaunchHistory::instance().note(app, when);
}

void FetchPreferredApps::clearHistory() { LaunchHistory::instance().clear(); }

std::map<std::string, std::vector<std::string>> FetchPreferredApps::predict(std::time_t now) {
  return LaunchHistory::instance().predict(now, readFigures());
}

void FetchPreferredApps::populateFavoriteApps(UserTable* userLaunched, UserTable* userLaunched2,
                                              SlotTable* favTimeSlot) {
  if (favTimeSlot == nullptr) return;
  const auto predicted = predict(kxhost::wallTime());
  for (const std::string& slot : allSlots()) {
    auto it = predicted.find(slot);
    writeSlot(favTimeSlot, slot, it == predicted.end() ? std::vector<std::string>{} : it->second);
  }
  if (userLaunched == nullptr || userLaunched2 == nullptr) return;
  for (const auto& [slot, apps] : predicted)
    for (const std::string& app : apps) seedRow(userLaunched, userLaunched2, app);
}
