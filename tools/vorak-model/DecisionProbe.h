// The kill decision's model inputs for a recorded launch, computed by the
// plug-in's own code: a kill action of the plug-in is built in this process
// on a private device root, given the launch's statistics and learnt row,
// and asked to decide. A model is then fitted to exactly what the plug-in
// scores, with no second copy of its arithmetic to drift from it.
//
// It sets the host's process-wide seams (file-system root, properties,
// statistics source, log sink) for its lifetime: one at a time, and not
// while simulator runs are going on in this process.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "RunPool.h"
#include "Vorak.pb.h"
#include "VorakFeatureNames.h"

class VorakFeature;
class VorakAction;

namespace vmodel {

using InputValues = std::array<float, kVorakFeatureNames.size()>;

class DecisionProbe {
 public:
  // `workDir` (created) holds the device root; `model` is the one whose
  // safeload enters "howMuchToKill".
  DecisionProbe(const VorakModel& model, const std::string& workDir);
  ~DecisionProbe();
  DecisionProbe(const DecisionProbe&) = delete;
  DecisionProbe& operator=(const DecisionProbe&) = delete;

  // Each input's value, in the order of kVorakFeatureNames.
  InputValues inputs(const LaunchSample& sample);

 private:
  class ReplayStats;
  std::shared_ptr<ReplayStats> mStats;
  std::unique_ptr<VorakFeature> mFeature;
  std::unique_ptr<VorakAction> mAction;
};

}  // namespace vmodel
