// The kill decision's model inputs for one launch: the figures derived from
// the system statistics and the launching app's learnt needs.
#pragma once

#include <array>

#include "StatsProvider.h"
#include "VorakCheckedArithmetic.h"
#include "VorakFeatureNames.h"

class VorakModelInputs : public VorakCheckedArithmetic {
 public:
  using Values = std::array<float, kVorakFeatureNames.size()>;

  // Fills `values` in the order of kVorakFeatureNames and returns the amount
  // to free ("howMuchToKill", also among the values). Every figure goes
  // through the checked arithmetic, which saturates to 0 instead of wrapping.
  static float compute(const SysStats& s, int killsafeANON, int killsafeUNRECLAIM, float safeload, Values& values);
};
