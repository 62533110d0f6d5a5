// The feature object that the host creates through the class registry. It
// decides at start-up whether the device can run the feature, owns the
// feature's tables and components, and keeps the per-application process ids
// of the in-memory user tables current on its own worker thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "Feature.h"
#include "PayloadInfo.h"
#include "WaitingQueue.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"

class VorakFeatureTestPeer;

class VorakFeature : public Feature {
 public:
  using UserDb = KxDatabase<_vorak_User_Launched_Data>;

  // Runs the start-up gates; a failed gate leaves the object disabled
  // (isDisabled()) but alive.
  explicit VorakFeature(FeatureInfo info);
  ~VorakFeature() override;

  VorakFeature(const VorakFeature&) = delete;
  VorakFeature& operator=(const VorakFeature&) = delete;

  // Host trigger entry point: queues work for the worker and passes
  // learning samples to the meter aggregator.
  void runAsync(AsyncTriggerPayload payload) override;
  // Whether the trigger is a learning sample for its application.
  bool needsLearning(AsyncTriggerPayload payload);

  // Creates and opens the feature's seven tables; tables already created are
  // kept. 0 when the five tables every component needs are open, else -1.
  int initializeAllDb();

  // The worker thread's body.
  void dbOperations();

  // Operations on one user-launched table, keyed by application name; each
  // returns 0, or -1 on failure (also for a null table or table name).
  // `dbName` names the table in log lines only.
  int updatePIDInDB(UserDb* db, std::string& appName, int pid, const char* dbName);
  int updateFavDB(UserDb* db, std::string& appName, int pid, const char* dbName);
  int deleteAppFromDB(UserDb* db, std::string& appName, const char* dbName);

  // The feature's trace switch, read by the components to gate trace lines.
  bool isTraceVorak() const { return mTraceVorak; }
  // Held by whoever writes or deletes meter samples, and by learning from
  // counting a name's samples to deleting them (see mSamplesMutex).
  std::mutex& samplesMutex() { return mSamplesMutex; }

 private:
  friend class VorakFeatureTestPeer;

  bool passesEnableGate();
  bool passesModelGates(float& safeload);
  bool loadSafeload(const std::string& modelFile, float& safeload);
  void readTraceSwitch();
  void createComponents(float safeload);
  void startWorker();
  void deleteComponents();
  void deleteTables();
  void stopWorker();
  template <typename T>
  int createTable(KxDatabase<T>*& table, const std::string& fileName);
  bool refusesAppName(const AsyncTriggerPayload& payload);
  void applyToUserTables(AsyncTriggerPayload& trigger);
  void forgetMeterSamples(const std::string& appName);

  bool mTraceVorak = false;
  // Owned tables (see initializeAllDb). The worker uses the three user
  // tables; mWorkMutex keeps them alive while it does.
  KxDatabase<_vorak_Meter_Data>* mVorakDb = nullptr;
  UserDb* mUserDb = nullptr;
  UserDb* mStartProcDb = nullptr;
  UserDb* mFavPidDb = nullptr;
  KxDatabase<_vorak_Favorite_Time_Slot_Data>* mFavTimeSlotDb = nullptr;
  KxDatabase<_vorak_App_Service_In>* mServiceInDb = nullptr;
  KxDatabase<_vorak_App_Service_Out>* mServiceOutDb = nullptr;
  WaitingQueue<PayloadInfo> mTriggerQ;
  // Runs dbOperations(). Started at the end of the constructor once every
  // gate passed; stopped by the destructor with a stop item, then joined.
  std::thread mWorker;
  std::atomic<bool> mWorkerStarted{false};  // set by the worker itself
  bool mVorakEnabled = false;
  int32_t mMeterTriggerCount = 0;
  // Guards the table pointers and the tables' lifetime: the worker holds it
  // for the whole of one item, so the destructor, which deletes the tables
  // under it, waits for the item in progress, and later items see null tables.
  std::mutex mWorkMutex;
  // Guards the meter table's rows of a name while learning averages and
  // deletes them: the learning thread holds it from counting a name's
  // samples to deleting them, the metering thread around each sample's
  // write and a forget trigger around its deletion, so no sample comes or
  // goes in between to be averaged wrongly or deleted unaveraged. The launch
  // path never takes it.
  std::mutex mSamplesMutex;
};
