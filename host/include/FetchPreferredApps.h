// Framework service that derives the favourite applications per time slot.
#pragma once

#include <ctime>
#include <string>

template <typename... T>
class KxDatabase;
struct _vorak_User_Launched_Data;
struct _vorak_Favorite_Time_Slot_Data;

class FetchPreferredApps {
 public:
  // Fills `favTimeSlot` (one row per slot key, "/"-separated package names)
  // from the two user-launched tables.
  //
  // The reference rule: an application is a favourite of a time slot once
  // it has been seen in either user-launched table during that slot. The
  // current slot's row (key: the slot key, see timeSlotKey) gets its earlier
  // names together with every name found now, distinct, sorted and joined
  // with "/"; names that would not fit the row's 4096 bytes are left out. An
  // existing row for the slot is updated in place, never duplicated; other
  // slots' rows are left alone. With no application at all, or no slot table,
  // nothing is written. A null user-launched table counts as empty.
  //
  // Favourites need a process id to be found among running processes, and
  // the feature only ever updates rows of the first table, never adds them.
  // So each favourite without a row in the first table gets one there,
  // holding its process id from the second table (when the second has
  // exactly one row for it).
  void populateFavoriteApps(KxDatabase<_vorak_User_Launched_Data>* userLaunched,
                            KxDatabase<_vorak_User_Launched_Data>* userLaunched2,
                            KxDatabase<_vorak_Favorite_Time_Slot_Data>* favTimeSlot);

  // The slot key of a local time: "week_day_" (Monday to Friday) or
  // "week_end_", then 1 (04:00-11:59), 2 (12:00-16:59), 3 (17:00-20:59) or
  // 4 (21:00-03:59).
  static std::string timeSlotKey(const std::tm& local);
};
