#include "DecisionProbe.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "FeatureInfo.h"
#include "FsRoot.h"
#include "ModelFile.h"
#include "Properties.h"
#include "VorakAction.h"
#include "VorakFeature.h"
#include "kxhost/LogCapture.h"

namespace vmodel {
namespace fs = std::filesystem;

namespace {

constexpr const char* kProbeApp = "probe.app";

// The plug-in's log lines of a replay say nothing the caller needs.
class Discard : public kxhost::LogSink {
 public:
  void write(const kxhost::LogLine&) override {}
};

}  // namespace

// Hands the plug-in the statistics of the launch being replayed.
class DecisionProbe::ReplayStats : public kxhost::StatsSource {
 public:
  explicit ReplayStats(const SysStats& s) : mStats(s) {}
  SysStats sysStats() override { return mStats; }
  PIDStats pidStats(int pid) override { return PIDStats{pid, 0, 0, 0, {}, 0}; }
  std::vector<PIDStats> pidStatsRange(int, int) override { return {}; }
  void set(const SysStats& s) { mStats = s; }

 private:
  SysStats mStats;
};

DecisionProbe::DecisionProbe(const VorakModel& model, const std::string& workDir) {
  const fs::path root = workDir;
  fs::create_directories(root / "vendor/etc/kx/vorak");
  fs::create_directories(root / "data/vendor/kx");
  // Whatever memory the replayed statistics give, the plug-in finds this model.
  for (const char* cls : {"2GB", "4GB", "6GB"})
    writeAll((root / "vendor/etc/kx/vorak" / (std::string("vorak_") + cls + ".data")).string(), encode(model));
  kxhost::setFsRoot(root.string());
  kxhost::setLogSink(std::make_shared<Discard>(), true);
  SysStats boot{};
  boot.totalKB = 4194304;
  mStats = std::make_shared<ReplayStats>(boot);
  kxhost::setStatsSource(mStats);
  // The action alone is wanted: a feature switched off at its enable gate
  // starts no worker, opens no tables and only lends its trace switch.
  kxhost::setProperty("ro.vendor.perf.enable.vorak", "false");
  FeatureInfo info;
  info.name = "Vorak";
  mFeature = std::make_unique<VorakFeature>(info);
  mAction = std::make_unique<VorakAction>(*mFeature, model.safeload(), nullptr, nullptr, nullptr, nullptr, nullptr);
  if (mAction->getActionOutputDb() == nullptr || !mAction->getActionOutputDb()->isOpen())
    throw std::runtime_error("the plug-in's kill action could not open its table under " + root.string());
}

DecisionProbe::~DecisionProbe() {
  mAction.reset();
  mFeature.reset();
  kxhost::setStatsSource(nullptr);
  kxhost::setLogSink(nullptr);
  kxhost::setFsRoot("");
}

InputValues DecisionProbe::inputs(const LaunchSample& sample) {
  auto* db = mAction->getActionOutputDb();
  KxDBDataRowKey key(kProbeApp, KXDB_INTCOL_UNSET);
  db->deleteAllDR(key);
  auto rows = db->allocateDR(1);
  if (rows.empty()) throw std::runtime_error("the plug-in's action table gave out no row");
  rows.front()->appName = kProbeApp;
  rows.front()->blob = {};
  rows.front()->blob.ionKgsl = sample.ionKgslKB;
  rows.front()->blob.rssSwap = sample.rssSwapKB;
  db->writeDeallocateDR(rows);
  mStats->set(sample.stats);
  mAction->decideKill(kProbeApp);
  InputValues values{};
  const auto& features = mAction->modelFeatures();
  for (size_t i = 0; i < kVorakFeatureNames.size(); ++i) values[i] = features.at(std::string(kVorakFeatureNames[i])).value;
  return values;
}

}  // namespace vmodel
