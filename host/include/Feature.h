// Base class of every feature the framework loads from a plug-in.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Algo.h"
#include "AsyncTriggerPayload.h"
#include "FeatureInfo.h"
#include "FeatureState.h"
#include "MemPerfd.h"
#include "MetaMeter.h"

struct featureData {
  int32_t value = 0;
  std::vector<int32_t> data;
};

class Feature {
 public:
  explicit Feature(const FeatureInfo& info);
  virtual ~Feature();

  virtual void runAsync(AsyncTriggerPayload payload);
  // Learning when the device is idle: runs the feature's algorithm.
  virtual void runAsyncIdle(const std::atomic<bool>& cancel);
  virtual void runAsyncPeriodic(const std::atomic<bool>& cancel);
  virtual int getData(std::string& key, featureData& out, int arg);
  virtual int getData(std::string& key, featureData& out, int arg1, int arg2);
  virtual int setData(std::string& key, std::vector<int> values);

  // Host-side accessors.
  const std::string& getFeatureName() const { return mFeatureName; }
  bool isDisabled() const { return mDisabled; }
  MetaMeter* getMetaMeter() const { return mMetaMeter; }
  Algo* getAlgo() const { return mAlgo; }
  Action* getAction() const { return mAction; }

 protected:
  std::string mFeatureName;
  // Owned components; the subclass creates and deletes them.
  MetaMeter* mMetaMeter = nullptr;
  Algo* mAlgo = nullptr;
  Action* mAction = nullptr;
  FeatureInfo mFeatureInfo;
  FeatureState mFeatureState;
  bool mDisabled = false;
  bool mPerfTrace = false;
};
