// The kill action: on an application launch it works out how much memory the
// launch needs beyond what is free and kills background, then favourite, then
// user-launched processes until that much is covered.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <ctime>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "AsyncTriggerPayload.h"
#include "MemPerfd.h"
#include "StatsProvider.h"
#include "VorakCandidateList.h"
#include "VorakCheckedArithmetic.h"
#include "VorakFeatureNames.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"

class VorakFeature;

class VorakAction : public Action, public VorakCheckedArithmetic {
 public:
  // One model input: the model's range and weight, the value computed for the
  // current launch and its normalised form.
  struct MLModelFeature {
    float min = 0;
    float max = 0;
    float weight = 0;
    float value = 0;
    float normalised = 0;
  };

  // Hints of the host's hub that the action registers for.
  static constexpr unsigned kLaunchHint = 4225;       // 0x1081
  static constexpr unsigned kPreparationHint = 4162;  // 0x1042
  static constexpr int kLaunchHintType = 2;

  // Kill budget window (KB): smaller requests are not worth a kill, larger
  // ones are taken as a faulty estimate.
  static constexpr float kMinBudgetKB = 20480.0f;
  static constexpr float kMaxBudgetKB = 614400.0f;

  VorakAction(VorakFeature& feature, float safeload, KxDatabase<_vorak_User_Launched_Data>* userDb,
              KxDatabase<_vorak_User_Launched_Data>* favPidDb,
              KxDatabase<_vorak_Favorite_Time_Slot_Data>* favTimeSlotDb,
              KxDatabase<_vorak_App_Service_Out>* serviceOutDb,
              KxDatabase<_vorak_User_Launched_Data>* startProcDb);
  ~VorakAction() override;

  VorakAction(const VorakAction&) = delete;
  VorakAction& operator=(const VorakAction&) = delete;

  // The learnt per-application table that the learning run writes into.
  KxDatabase<_vorak_Feature_Action_Data>* getActionOutputDb() { return mActionDb; }
  void clearAllMaps();

  void applyAction(const AsyncTriggerPayload& payload) override;
  // Kills until `memoryToGenerate` KB are freed or the candidates run out;
  // returns the KB freed.
  float vorak(float memoryToGenerate);
  // KB to free before `appName` launches; 0 when nothing is to be killed.
  float decideKill(std::string appName);

  // Appends the current slot key ("week_day_1" ... "week_end_4"); 0 on
  // success, -1 when the local time is not available.
  int getWeekdayTimeslot(std::string& slotKey);
  void generateTaskList();
  void getAllServices();
  void updateAppServices(const std::string& appName);
  float getNonRAMServicesMemory(const std::string& appName);

  // Time seam, process-wide: the pause between kill bursts. Null restores
  // usleep(). The slot key reads the host's wall clock.
  using PauseFn = int (*)(useconds_t);
  static void setPause(PauseFn fn);
  // Kill seam, process-wide: how a victim is pinned before the signal. Null
  // restores the pidfd_open system call; a function failing with ENOSYS
  // stands for a kernel (or an emulator) without pidfds.
  using PidfdOpenFn = int (*)(pid_t pid, unsigned int flags);
  static void setPidfdOpen(PidfdOpenFn fn);

  // Read-only views for diagnostics and tests.
  using CandidateList = VorakCandidateList;
  const CandidateList& backgroundList() const { return mBackgroundList; }
  const CandidateList& favoriteList() const { return mFavoriteList; }
  const CandidateList& userLaunchedList() const { return mUserLaunchedList; }
  const std::unordered_set<int>& protectedPids() const { return mProtectedPids; }
  const std::unordered_set<int>& appServicePids() const { return mAppServicePids; }
  const std::unordered_map<std::string, MLModelFeature>& modelFeatures() const { return mFeatures; }
  float surplus() const { return mSurplus; }

 private:
  void loadModel();
  bool traceOn() const;
  // Marks the listed entry of `pid` to go into `to` instead of the
  // background list, keeping its memory key; a pid not listed, or moved
  // already, stays where it is.
  void moveFromBackground(int pid, CandidateList& to);
  // One phase of the kill loop over `list`; `what` is the kill report.
  void killFrom(CandidateList& list, bool spareProtected, const char* phase, float& remaining,
                float& freed, int& kills);
  // Takes the launching app's own processes out of the candidate lists.
  void spareLaunchingApp(const std::string& appName);
  // The record of `pid` as generateTaskList found it; null when not listed.
  const PIDStats* listed(int pid) const;

  KxDatabase<_vorak_Feature_Action_Data>* mActionDb = nullptr;
  KxDatabase<_vorak_User_Launched_Data>* mUserDb;
  KxDatabase<_vorak_Favorite_Time_Slot_Data>* mFavTimeSlotDb;
  KxDatabase<_vorak_App_Service_Out>* mServiceOutDb;
  KxDatabase<_vorak_User_Launched_Data>* mFavPidDb;
  KxDatabase<_vorak_User_Launched_Data>* mStartProcDb;

  std::unordered_map<std::string, MLModelFeature> mFeatures;
  // Entries of mFeatures in the order of kVorakFeatureNames, resolved once:
  // element pointers of an unordered_map survive rehashing.
  std::array<MLModelFeature*, kVorakFeatureNames.size()> mInputs{};
  // The entries that enter the score (min != max), in the map's iteration
  // order: the model's ranges are fixed once loaded.
  std::vector<MLModelFeature*> mScored;
  float mBias = 0;

  CandidateList mBackgroundList;
  // While generateTaskList sorts the host's list into the three lists:
  // (pid, index in the host's list) sorted by pid, whether each entry was
  // taken out of the background list, and where each taken one went, in
  // the order taken. Kept between rebuilds only for their capacity.
  std::vector<std::pair<int, size_t>> mByPid;
  std::vector<bool> mMoved;
  std::vector<std::pair<size_t, CandidateList*>> mMoves;
  CandidateList mFavoriteList;
  CandidateList mUserLaunchedList;
  // Every candidate of the three lists as generateTaskList found it (start
  // time and name), sorted by pid once the lists are built.
  std::vector<PIDStats> mListed;
  std::unordered_set<std::string> mAppServiceNames;
  std::unordered_set<int> mAppServicePids;
  std::unordered_set<int> mProtectedPids;

  float mSurplus = 0;
  float mSafeload;
  VorakFeature& mFeature;
};
