// Learning component of the feature: turns the recorded launch samples into
// one learnt row per application or service (the mean of its samples), copies
// new service lists to the output table and refreshes the favourite slots.
#pragma once

#include <atomic>
#include <string>

#include "Algo.h"
#include "FeatureState.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"

class VorakFeature;

class VorakAlgo : public Algo {
 public:
  // Everything is borrowed from the feature, which outlives this object.
  VorakAlgo(VorakFeature& feature, KxDatabase<_vorak_App_Service_In>* serviceIn,
            KxDatabase<_vorak_App_Service_Out>* serviceOut, KxDatabase<_vorak_Meter_Data>* meter,
            KxDatabase<_vorak_Feature_Action_Data>* action, KxDatabase<_vorak_User_Launched_Data>* userLaunched,
            KxDatabase<_vorak_Favorite_Time_Slot_Data>* favTimeSlot,
            KxDatabase<_vorak_User_Launched_Data>* userLaunched2, FeatureState& state);
  ~VorakAlgo() override;

  VorakAlgo(const VorakAlgo&) = delete;
  VorakAlgo& operator=(const VorakAlgo&) = delete;

  // One learning run. `cancel` is looked at after each handled name only.
  void runAlgo(const std::atomic<bool>& cancel) override;

  void populateFavoriteApps();
  // Gives each application with a service list, and no output row yet, its
  // output row. The result carries no meaning (always false).
  bool populateAppServiceOutputDb();
  // Learns `name` when it is due for the first time (state 1); false only
  // when its learnt row could not be stored.
  bool learnPerApp(std::string& name);
  // Inserts or updates the one learnt row of `name`; on failure marks the
  // name 99 so that it is left alone until the framework resets it.
  bool writeToActionDataBase(std::string& name, long ionKgsl, long rssSwap);

  // Diagnostic walks over the tables, logged when tracing.
  void printFsm();
  void printDB();
  void printActionDB();

 private:
  bool traceOn() const;
  bool writePending(const std::string& name);
  void dumpState(const char* dump, const std::string& name);

  FeatureState& mFeatureState;
  KxDatabase<_vorak_Meter_Data>* mMeterDb;
  KxDatabase<_vorak_Feature_Action_Data>* mActionDb;
  KxDatabase<_vorak_User_Launched_Data>* mUserLaunchedDb;
  KxDatabase<_vorak_User_Launched_Data>* mUserLaunchedDb2;
  KxDatabase<_vorak_Favorite_Time_Slot_Data>* mFavTimeSlotDb;
  KxDatabase<_vorak_App_Service_In>* mAppServiceInDb;
  KxDatabase<_vorak_App_Service_Out>* mAppServiceOutDb;
  VorakFeature& mFeature;
};
