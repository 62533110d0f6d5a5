// A meter sample as the framework delivers it to a feature's meter aggregator.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AsyncTriggerPayload.h"

class Field {
 public:
  explicit Field(std::string name) : mName(std::move(name)) {}
  const std::string& getName() const { return mName; }
  const std::vector<int64_t>& getValues() const { return mValues; }
  int32_t getValueCount() const { return mValueCount; }
  void addValue(int64_t v) {
    mValues.push_back(v);
    ++mValueCount;
  }

 private:
  std::string mName;
  std::vector<int64_t> mValues;
  int32_t mValueCount = 0;  // kept beside the values, as the framework does
};

// A sampled meter. The host's "Memory" meter holds two fields with one value
// each, read from the per-process record (PIDStats) of the trigger's pid:
//   "ion_kgsl" = PIDStats::gpuKB          (graphics memory, KB)
//   "rss_swap" = PIDStats::rssAnonSwapKB  (anonymous resident + swapped, KB)
// Neither field has a value when the process is unknown.
class Meter {
 public:
  explicit Meter(std::string name) : mName(std::move(name)) {}
  virtual ~Meter();
  Meter(const Meter&) = delete;
  Meter& operator=(const Meter&) = delete;
  // Takes one sample for the trigger. The base records the trigger only; the
  // host's own meters also read the trigger's process statistics.
  virtual void sample(const AsyncTriggerPayload& trigger);
  // Fills `out` with the trigger records that the last sample belongs to.
  virtual void getTriggerPayloads(std::vector<AsyncTriggerPayload>& out) const;

  const std::string& getName() const { return mName; }
  std::vector<Field*>& getFields() { return mFields; }
  // The meter owns the fields added here.
  void addField(Field* f) { mFields.push_back(f); }
  void addTrigger(const AsyncTriggerPayload& p) { mTriggers.push_back(p); }

 protected:
  std::string mName;
  std::vector<Field*> mFields;
  std::vector<AsyncTriggerPayload> mTriggers;
};
