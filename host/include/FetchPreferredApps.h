// Framework service that derives the favourite applications per time slot.
#pragma once

#include <ctime>
#include <map>
#include <string>
#include <vector>

template <typename... T>
class KxDatabase;
struct _vorak_User_Launched_Data;
struct _vorak_Favorite_Time_Slot_Data;

class FetchPreferredApps {
 public:
  // The prediction's figures, read as properties at every prediction (a
  // missing or malformed value gives the default):
  // recent days of the slot's kind (weekday or weekend) that are looked at;
  static constexpr const char* kDaysProperty = "vendor.kx.favorites.days";
  static constexpr int kDefaultDays = 4;
  // on how many of them an app must have been launched in the slot;
  static constexpr const char* kMinDaysProperty = "vendor.kx.favorites.min_days";
  static constexpr int kDefaultMinDays = 2;
  // and the most favourites a slot has.
  static constexpr const char* kMaxAppsProperty = "vendor.kx.favorites.max_apps";
  static constexpr int kDefaultMaxApps = 4;

  // Fills `favTimeSlot` (one row per slot key, "/"-separated package names)
  // with the favourites that the launch history predicts (see predict) for
  // every slot: a slot's row is replaced by its prediction, so an app whose
  // habit stopped is forgotten; a slot with no favourite and no row gets no
  // row. An existing row is updated in place, never duplicated. Names that
  // would not fit the row's 4096 bytes are left out. Without a slot table
  // nothing is written.
  //
  // Favourites need a process id to be found among running processes, and
  // the feature only ever updates rows of the first table, never adds them.
  // So each favourite without a row in the first table gets one there,
  // holding its process id from the second table (when the second has
  // exactly one row for it). A null user-launched table counts as empty.
  void populateFavoriteApps(KxDatabase<_vorak_User_Launched_Data>* userLaunched,
                            KxDatabase<_vorak_User_Launched_Data>* userLaunched2,
                            KxDatabase<_vorak_Favorite_Time_Slot_Data>* favTimeSlot);

  // The framework's launch history, kept for the life of the process (the
  // last five weeks): it notes every application launch it dispatches.
  static void noteLaunch(const std::string& app, std::time_t when);
  static void clearHistory();

  // The favourites of each of the eight slots at local time `now`: an app is
  // a favourite of a slot when it was launched in that slot on at least
  // "min_days" of the last "days" days of the slot's kind up to today; the
  // most regular first (more such days, then more launches in them, then by
  // name), at most "max_apps". Slots without favourites are absent.
  static std::map<std::string, std::vector<std::string>> predict(std::time_t now);

  // The slot key of a local time: "week_day_" (Monday to Friday) or
  // "week_end_", then 1 (04:00-11:59), 2 (12:00-16:59), 3 (17:00-20:59) or
  // 4 (21:00-03:59).
  static std::string timeSlotKey(const std::tm& local);
};
