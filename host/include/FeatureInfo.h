// Configuration records that the framework hands to a feature.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// A trigger a meter is sampled on.
struct AsyncInfo {
  uint32_t hintID = 0;
  int32_t hintType = 0;
  bool operator<(const AsyncInfo& o) const {
    return hintID != o.hintID ? hintID < o.hintID : hintType < o.hintType;
  }
};

struct MeterInfo {
  std::string name;                                      // meter name, e.g. "Memory"
  std::set<AsyncInfo> triggers;                          // triggers the meter samples on
  std::vector<std::string> fields;                       // field names, e.g. "ion_kgsl", "rss_swap"
  std::unordered_map<std::string, std::string> config;  // free-form meter settings
  int32_t samplesPerMeter = 1;                           // rows recorded per sample
};

struct FeatureInfo {
  std::string name;                                                    // feature name, e.g. "Vorak"
  std::unordered_map<uint32_t, std::unordered_set<int32_t>> hintTypes;  // hint id -> accepted hint types
  uint32_t samplesThreshold = 5;                                      // samples per name before learning
  std::vector<MeterInfo> meterInfo;
  std::vector<std::string> algoNames;
  std::vector<std::string> actionNames;
  std::vector<std::vector<int32_t>> periods;
  std::unordered_map<std::string, std::vector<std::vector<int32_t>>> tables;
  std::unordered_map<std::string, std::string> config;
};
