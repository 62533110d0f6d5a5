// Everything at once, on the threads the host runs it on: a host thread
// sends the triggers of app launches (preparations, launches and their
// completions, samples, forget and removal triggers, and samples taken for
// another app than the one launched last), the hint hub delivers the launch
// hints to the action, the host's metering thread records samples, the
// learning thread learns them, and features are replaced under it all, each
// built while the previous one still takes triggers and destroyed while its
// successor takes them. Every app and service has constant figures, so each
// learnt row must hold exactly those, from the host's sampling of a launch
// to the row the action reads. Sanitizer builds judge the rest.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DependentServices.h"
#include "MemPerfd.h"
#include "VorakAction.h"
#include "VorakDevice.h"
#include "kxhost/LearningScheduler.h"
#include "kxhost/LogCapture.h"
#include "kxhost/MeteringThread.h"
#include "support/PutRows.h"
#include "support/Sleepers.h"

namespace {

using vorakdev::Device;
using vorakdev::trigger;
using Figures = std::pair<int64_t, int64_t>;  // ionKgsl, rssSwap

constexpr int kApps = 6;
constexpr int kLifetimes = 4;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRoundsPerLifetime = 20;  // every step is many times slower there
#else
constexpr int kRoundsPerLifetime = 80;
#endif
constexpr int kSamplesPerLaunch = 30;

class DiscardSink : public kxhost::LogSink {
 public:
  void write(const kxhost::LogLine&) override {}
};

// A 4 GB device with memory to spare and no background process to kill;
// each pid has constant figures. Filled before any thread reads it.
class SoakStats : public kxhost::StatsSource {
 public:
  SysStats sysStats() override { return vorakdev::sysStats4GB(3000000); }
  PIDStats pidStats(int pid) override {
    auto it = mFigures.find(pid);
    if (it == mFigures.end()) return PIDStats{-1, 0, 0, 0, {}, 0};
    return PIDStats{pid, 0, 0, static_cast<uint64_t>(it->second.second), "soak",
                    static_cast<uint64_t>(it->second.first)};
  }
  std::vector<PIDStats> pidStatsRange(int, int) override { return {}; }
  void set(int pid, Figures figures) { mFigures[pid] = figures; }

 private:
  std::map<int, Figures> mFigures;
};

// The apps and their services: sleepers of this test, with their true figures.
struct World {
  std::vector<std::string> apps;
  std::vector<int> pids;
  std::map<std::string, Figures> truth;

  World(kxtest::Sleepers& sleepers, SoakStats& stats) {
    for (int i = 0; i < kApps; ++i) {
      const std::string app = "com.soak.app" + std::to_string(i);
      const std::string service = "svc.soak" + std::to_string(i);
      apps.push_back(app);
      pids.push_back(sleepers.start());
      const int servicePid = sleepers.start();
      truth[app] = {10 * i + 1, 1000 * i + 7};
      truth[service] = {20 * i + 3, 500 * i + 11};
      stats.set(pids.back(), truth[app]);
      stats.set(servicePid, truth[service]);
      kxhost::ServiceRegistry::instance().setAppServices(app, {service});
      kxhost::ServiceRegistry::instance().setServicePid(service, servicePid);
    }
  }
};

// One round of the host's traffic around a launch of app `i`.
void launchRound(VorakFeature& feature, const World& w, int round) {
  const int i = round % kApps, j = (round + 1) % kApps;
  const std::string& app = w.apps[i];
  MemPerfd* hub = MemPerfd::getInstance();
  for (const auto& t : {trigger(4162, 0, app, w.pids[i]), trigger(4225, 2, app, w.pids[i])}) {
    feature.runAsync(t);
    hub->sendHint(t);
  }
  // The completion's sample and a burst after it, all admitted before the
  // first is recorded: the later ones are written while the app is learnt.
  feature.runAsync(trigger(4225, 101, app, w.pids[i]));
  for (int k = 0; k < kSamplesPerLaunch; ++k) feature.runAsync(trigger(4163, 0, app, w.pids[i]));
  feature.runAsync(trigger(4163, 0, w.apps[j], w.pids[j]));  // never filed under `app`
  if (round % 7 == 0) feature.runAsync(trigger(4242, 0, app));
  if (round % 11 == 0) feature.runAsync(trigger(4243, 0, app, w.pids[i]));
  // Launches come one after another: the samples of one are recorded
  // (while learning runs) before the next begins.
  kxhost::MeteringThread::instance().drain();
}

// The learnt rows of `name` (of every name when empty), in table order.
std::vector<std::pair<std::string, Figures>> learntRows(KxDatabase<_vorak_Feature_Action_Data>& db,
                                                        const std::string& name) {
  return kxtest::readRows(db, KxDBDataRowKey(name, KXDB_INTCOL_UNSET), [](const auto& row) {
    return std::pair(row.appName, Figures{row.blob.ionKgsl, row.blob.rssSwap});
  });
}

// A feature with its own learning thread, which looks for due names all the
// time. The host asks after each run whether a due name's learnt row
// exists; every row it is shown is compared with the truth there, since a
// later run would overwrite a wrong one.
struct Lifetime {
  std::unique_ptr<VorakFeature> feature;
  std::unique_ptr<kxhost::LearningScheduler> learning;

  Lifetime(Device& device, const FeatureInfo& info, const World& world, std::atomic<int>& wrong)
      : feature(device.create(info)) {
    EXPECT_FALSE(feature->isDisabled());
    auto* action = dynamic_cast<VorakAction*>(feature->getAction());
    KxDatabase<_vorak_Feature_Action_Data>* learnt = action->getActionOutputDb();
    learning = std::make_unique<kxhost::LearningScheduler>(
        feature.get(),
        [learnt, &world, &wrong](const std::string& name) {
          const auto rows = learntRows(*learnt, name);
          if (!rows.empty() && rows[0].second != world.truth.at(name)) ++wrong;
          return !rows.empty();
        },
        std::chrono::milliseconds(0));
  }
};

// On a memory file system where there is one: what this test is after needs
// many learnings while samples are written, and a disk's syncs allow few.
std::filesystem::path fastTempBase() {
  std::error_code ec;
  return std::filesystem::is_directory("/dev/shm", ec) && access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "";
}

TEST(VorakSoak, LearntMeansStayTrueWhileEverythingRunsAtOnce) {
  Device device(vorakdev::k4GB, fastTempBase());
  kxhost::clearFeatureStates();
  kxhost::ServiceRegistry::instance().clear();
  auto stats = std::make_shared<SoakStats>();
  kxtest::Sleepers sleepers;
  const World world(sleepers, *stats);
  kxhost::setStatsSource(stats);
  kxhost::setLogSink(std::make_shared<DiscardSink>(), true);
  FeatureInfo info = Device::defaultInfo();  // outlives every feature's meter
  info.samplesThreshold = 1;
  info.meterInfo.push_back(MeterInfo{"Memory", {}, {"ion_kgsl", "rss_swap"}, {}, 1});

  // The host's side of the contract: a feature gets no trigger once its
  // destruction has begun. Guards current, sentToCurrent and allSent.
  std::mutex hostMutex;
  std::condition_variable changed;  // any of the three changed
  VorakFeature* current = nullptr;
  int sentToCurrent = 0;
  bool allSent = false;

  // Started here, sends every round to whichever feature is current; joined below.
  std::thread sender([&] {
    std::unique_lock<std::mutex> lock(hostMutex);
    for (int round = 0; round < kLifetimes * kRoundsPerLifetime; ++round) {
      changed.wait(lock, [&] { return current != nullptr && sentToCurrent < kRoundsPerLifetime; });
      launchRound(*current, world, round);
      if (++sentToCurrent == kRoundsPerLifetime) changed.notify_all();
    }
    allSent = true;
    changed.notify_all();
  });

  // Learning never overlaps two features: one learner per meter table is
  // the deployment the samples lock serves.
  std::atomic<int> wrong{0};  // learnt rows seen with other figures than the truth
  auto active = std::make_unique<Lifetime>(device, info, world, wrong);
  active->learning->start();
  {
    std::lock_guard<std::mutex> lock(hostMutex);
    current = active->feature.get();
  }
  changed.notify_all();
  for (;;) {
    auto next = std::make_unique<Lifetime>(device, info, world, wrong);
    std::unique_lock<std::mutex> lock(hostMutex);
    changed.wait(lock, [&] { return sentToCurrent >= kRoundsPerLifetime || allSent; });
    if (allSent) break;
    active->learning->stop();
    current = next->feature.get();
    sentToCurrent = 0;
    lock.unlock();
    changed.notify_all();
    active = std::move(next);  // destroys the previous feature
    active->learning->start();
  }
  active.reset();
  sender.join();
  kxhost::setLogSink(nullptr);

  EXPECT_EQ(wrong.load(), 0);
  KxDatabase<_vorak_Feature_Action_Data> stored(100, "Vorakaction.db", "Vorak");
  EXPECT_EQ(stored.KxDatabaseInit(), KXDB_SUCCESS);
  const auto rows = learntRows(stored, "");
  const std::map<std::string, Figures> learnt(rows.begin(), rows.end());
  EXPECT_EQ(learnt, world.truth) << "every name learnt, with its own figures";
  EXPECT_EQ(rows.size(), world.truth.size()) << "one learnt row a name";
  kxhost::setStatsSource(nullptr);
  kxhost::clearFeatureStates();
  kxhost::ServiceRegistry::instance().clear();
}

}  // namespace
