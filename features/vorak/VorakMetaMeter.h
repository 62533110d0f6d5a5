// Meter aggregator of the feature: takes the framework's "Memory" samples of
// an application launch and records them per application, together with the
// application's dependent services and one sample per still-learning service.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "AsyncTriggerPayload.h"
#include "FeatureInfo.h"
#include "FeatureState.h"
#include "Meter.h"
#include "MetaMeter.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"

class VorakMetaMeter : public MetaMeter {
 public:
  // Service-name slots of an application's service row, and their width.
  static constexpr size_t kServiceSlots = 12;
  static constexpr size_t kServiceSlotSize = 256;

  // The tables are borrowed from the feature and must outlive this object.
  // `samplesMutex`, when given, is held around every sample's write: learning
  // holds it while it averages and deletes a name's samples.
  VorakMetaMeter(const FeatureInfo& info, KxDatabase<_vorak_Meter_Data>* meterDb, FeatureState& state,
                 KxDatabase<_vorak_App_Service_In>* serviceInDb, std::mutex* samplesMutex = nullptr);
  ~VorakMetaMeter() override;

  VorakMetaMeter(const VorakMetaMeter&) = delete;
  VorakMetaMeter& operator=(const VorakMetaMeter&) = delete;

  // Records one launch sample; false when the meters were rejected.
  bool writeToDataBase(std::vector<Meter*> meters) override;
  // Nothing is read back through the framework: the base's readFromDataBase serves.

  // Accepts the call when its first meter is "Memory"; keeps that meter's
  // fields and, when it carries one, its launch record.
  bool validateAndSetMeters(std::vector<Meter*>& meters);
  // Exactly the two fields "ion_kgsl" and "rss_swap", in any order.
  bool isValidFieldList(std::vector<Field*>& fields);
  // The first field called `name`, or null.
  Field* getMemoryField(std::vector<Field*>& fields, const char* name);

  // Appends one sample row for `name`.
  bool writeToInputDb(std::string& name, long ionKgsl, long rssSwap);
  // Stores the application's service list unless one is stored already.
  bool writeToAppServiceInputDb(std::string& app, std::vector<std::string> services);
  // Moves `name` on to learning (0 -> 1, 2 -> 3) once it has enough samples.
  void updateStateIfNeeded(std::string& name);
  // Copies the names into consecutive slots, each cut to 255 characters and
  // terminated; names beyond the last slot are dropped.
  void convertToCharArray(std::vector<std::string> names, char (*slots)[kServiceSlotSize]);

 private:
  bool recordLaunchSample(std::string& app);
  void recordServices(std::string& app);
  std::vector<std::string> acceptedServices(std::string& app);
  void writeSample(KxDBDataTable<_vorak_Meter_Data>::vecT& rows);

  KxDatabase<_vorak_Meter_Data>* mVorakDb;
  KxDatabase<_vorak_App_Service_In>* mAppServiceInDb;
  uint32_t mVorakMeterSamples = 0;
  // Fields of the last accepted meter; the framework owns them and they are
  // valid only during its call.
  std::vector<Field*> mStartProcMmFields;
  // Launch record of the last accepted meter that carried one.
  AsyncTriggerPayload mLaunchPayload;
  // App of the trigger that the last accepted meter was sampled for; none
  // when the meter named no trigger.
  std::optional<std::string> mSampledApp;
  std::mutex* mSamplesMutex;  // borrowed from the feature; may be null
};
