#include "FetchPreferredApps.h"

#include <cstring>
#include <set>
#include <sstream>
#include <vector>

#include "WallClock.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"

namespace {

using UserTable = KxDatabase<_vorak_User_Launched_Data>;
using SlotTable = KxDatabase<_vorak_Favorite_Time_Slot_Data>;

void addNames(UserTable* table, std::set<std::string>& names) {
  if (table == nullptr) return;
  for (std::string& name : table->getTxtColUniqList(KXDB_TXTCOL_APPNAME, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE))
    if (!name.empty()) names.insert(std::move(name));
}

// Joins whole names only, leaving room for the terminator.
std::string joinFitting(const std::set<std::string>& names, size_t capacity) {
  std::string list;
  for (const std::string& name : names) {
    size_t needed = list.size() + (list.empty() ? 0 : 1) + name.size();
    if (needed >= capacity) continue;
    if (!list.empty()) list += '/';
    list += name;
  }
  return list;
}

// Adds `names` to the slot's earlier favourites, so that a slot remembers
// every app used in it; the slot's row is updated in place or created.
void updateSlot(SlotTable* table, const std::string& slot, std::set<std::string> names) {
  KxDBDataRowKey key(slot, 0);
  SlotTable::vecT rows = table->readAllocateDR(key, 1, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  if (rows.empty()) {
    rows = table->allocateDR(1);
    if (rows.empty()) return;
    rows[0]->appName = slot;
  } else {
    const char* earlier = rows[0]->blob.favoriteApps;
    std::istringstream apps(std::string(earlier, strnlen(earlier, sizeof rows[0]->blob.favoriteApps)));
    for (std::string app; std::getline(apps, app, '/');)
      if (!app.empty()) names.insert(app);
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

void FetchPreferredApps::populateFavoriteApps(UserTable* userLaunched, UserTable* userLaunched2,
                                              SlotTable* favTimeSlot) {
  if (favTimeSlot == nullptr) return;
  std::set<std::string> names;
  addNames(userLaunched, names);
  addNames(userLaunched2, names);
  if (names.empty()) return;

  std::time_t now = kxhost::wallTime();
  std::tm local;
  if (localtime_r(&now, &local) == nullptr) return;
  updateSlot(favTimeSlot, timeSlotKey(local), names);
  if (userLaunched != nullptr && userLaunched2 != nullptr)
    for (const std::string& app : names) seedRow(userLaunched, userLaunched2, app);
}
