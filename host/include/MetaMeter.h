// Base of a feature's meter aggregator.
#pragma once

#include <string>
#include <vector>

#include "AsyncTriggerPayload.h"
#include "FeatureInfo.h"
#include "FeatureState.h"
#include "Meter.h"

class MetaMeter {
 public:
  MetaMeter(const FeatureInfo& info, FeatureState& state);
  virtual ~MetaMeter();

  // Records one sample; called by the framework on its metering thread with
  // the meters sampled for one trigger.
  virtual bool writeToDataBase(std::vector<Meter*> meters) = 0;
  // Reads recorded data back; the base records nothing and returns 0.
  virtual int readFromDataBase(std::string& key);

  // Samples this aggregator's "Memory" meters for `payload` (the trigger's
  // pid, see Meter.h) and hands each, with the trigger record, to
  // writeToDataBase on the host's metering thread (kxhost::MeteringThread).
  void handleAsync(const AsyncTriggerPayload& payload);

 protected:
  // Subclasses call this first in their destructor: pending samples are
  // dropped and a writeToDataBase in progress is waited for, so the metering
  // thread never calls into a partly destroyed object.
  void stopMetering();

  // The feature's configuration and learning state, read by subclasses.
  const FeatureInfo* mFeatureInfo;
  FeatureState* mFeatureState;

 private:
  // Runs on the metering thread.
  void record(Meter* meter);
};
