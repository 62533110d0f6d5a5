// Framework service that derives the favourite applications per time slot.
#pragma once

template <typename... T>
class KxDatabase;
struct _vorak_User_Launched_Data;
struct _vorak_Favorite_Time_Slot_Data;

class FetchPreferredApps {
 public:
  // Fills `favTimeSlot` (one row per slot key, "/"-separated package names)
  // from the two user-launched tables.
  void populateFavoriteApps(KxDatabase<_vorak_User_Launched_Data>* userLaunched,
                            KxDatabase<_vorak_User_Launched_Data>* userLaunched2,
                            KxDatabase<_vorak_Favorite_Time_Slot_Data>* favTimeSlot);
};
