// The meter aggregator: which meters and fields it accepts, what one launch
// sample records for the application and its services, and when a name
// becomes due for learning. Service pids are sleepers forked by the test.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "AndroidLog.h"
#include "DependentServices.h"
#include "VorakMetaMeter.h"
#include "kxhost/LogCapture.h"
#include "support/DeviceRoot.h"
#include "support/FailingAllocation.h"
#include "support/FakeStats.h"
#include "support/PutRows.h"
#include "support/Sleepers.h"

namespace {

using Sample = std::pair<int64_t, int64_t>;  // ionKgsl, rssSwap

std::unique_ptr<Meter> memoryMeter(const std::string& app, int pid, std::vector<int64_t> ion,
                                   std::vector<int64_t> rss, int hintID = 4225, const char* name = "Memory") {
  auto meter = std::make_unique<Meter>(name);
  auto* ionField = new Field("ion_kgsl");
  auto* rssField = new Field("rss_swap");
  for (int64_t v : ion) ionField->addValue(v);
  for (int64_t v : rss) rssField->addValue(v);
  meter->addField(ionField);
  meter->addField(rssField);
  AsyncTriggerPayload trigger;
  trigger.hintID = hintID;
  trigger.hintType = 101;
  trigger.appName = app;
  trigger.pid = pid;
  meter->addTrigger(trigger);
  return meter;
}

class VorakMetaMeterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kxhost::ServiceRegistry::instance().clear();
    kxhost::setStatsSource(mStats);
    ASSERT_EQ(mMeterDb.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mServiceInDb.KxDatabaseInit(), KXDB_SUCCESS);
    mInfo.name = "Vorak";
    mInfo.samplesThreshold = 3;
    mInfo.meterInfo.push_back(MeterInfo{"Memory", {}, {"ion_kgsl", "rss_swap"}, {}, 1});
    mMeter = std::make_unique<VorakMetaMeter>(mInfo, &mMeterDb, mState, &mServiceInDb);
  }
  void TearDown() override {
    mMeter.reset();
    kxhost::setStatsSource(nullptr);
    kxhost::ServiceRegistry::instance().clear();
  }

  bool record(const std::unique_ptr<Meter>& meter) { return mMeter->writeToDataBase({meter.get()}); }

  std::vector<Sample> samplesOf(const std::string& name) {
    return kxtest::readRows(mMeterDb, KxDBDataRowKey(name, KXDB_INTCOL_UNSET),
                            [](const auto& row) { return Sample(row.blob.ionKgsl, row.blob.rssSwap); });
  }

  // The stored service rows of `app`, one string per slot up to its last
  // non-zero byte: a byte left after a name's terminator shows.
  using Rows = std::vector<std::vector<std::string>>;
  Rows storedServices(const std::string& app) {
    return kxtest::readRows(mServiceInDb, KxDBDataRowKey(app, KXDB_INTCOL_UNSET), [](const auto& row) {
      std::vector<std::string> out;
      for (const auto& slot : row.blob.serviceNames)
        out.emplace_back(slot, std::string(slot, sizeof(slot)).find_last_not_of('\0') + 1);
      return out;
    });
  }

  // Registers `services` for `app`; each with a pid gets it and figures
  // derived from its position.
  void setServices(const std::string& app, const std::vector<std::string>& services, const std::vector<int>& pids) {
    auto& registry = kxhost::ServiceRegistry::instance();
    registry.setAppServices(app, services);
    for (size_t i = 0; i < pids.size(); ++i) {
      registry.setServicePid(services[i], pids[i]);
      setFigures(pids[i], 1000 + i, 10 + i);
    }
  }

  // rssFileKB is set apart from the two recorded figures so a mix-up shows.
  void setFigures(int pid, uint64_t rssAnonSwapKB, uint64_t gpuKB) {
    mStats->set(PIDStats{pid, 777777, 0, rssAnonSwapKB, "svc", gpuKB});
  }

  kxtest::DeviceRoot mRoot;  // learning states persist under the device root
  std::shared_ptr<kxtest::FakeStats> mStats = std::make_shared<kxtest::FakeStats>();
  KxDatabase<_vorak_Meter_Data> mMeterDb{100, "", "Vorak"};
  KxDatabase<_vorak_App_Service_In> mServiceInDb{100, "", "Vorak"};
  FeatureInfo mInfo;
  FeatureState mState{"Vorak"};
  std::unique_ptr<VorakMetaMeter> mMeter;
  kxtest::Sleepers mSleepers;
};

TEST_F(VorakMetaMeterTest, AcceptsOnlyAFirstMeterNamedMemory) {
  kxhost::LogCapture log;
  auto memory = memoryMeter("com.a", 1, {1}, {1});
  auto lower = memoryMeter("com.a", 1, {1}, {1}, 4225, "memory");
  std::vector<Meter*> meters{memory.get(), nullptr};
  EXPECT_TRUE(mMeter->validateAndSetMeters(meters));
  meters.clear();
  EXPECT_FALSE(mMeter->validateAndSetMeters(meters));
  EXPECT_TRUE(log.contains("Found an unknown Meter type :  "));

  EXPECT_FALSE(mMeter->writeToDataBase({lower.get(), memory.get()}));
  EXPECT_TRUE(log.contains("Found an unknown Meter type : memory "));
  EXPECT_TRUE(samplesOf("com.a").empty());
}

TEST_F(VorakMetaMeterTest, FieldListIsExactlyTheTwoMemoryFieldsInAnyOrder) {
  kxhost::LogCapture log;
  Field ion("ion_kgsl"), ion2("ion_kgsl"), rss("rss_swap"), rss2("rss_swap"), pss("pss");
  const std::pair<std::vector<Field*>, bool> cases[] = {
      {{&rss, &ion}, true},         {{&ion}, false},         {{}, false},          {{&ion, &rss, &rss2}, false},
      {{&ion, &pss}, false},        {{&ion, nullptr}, false}, {{&rss, &rss2}, false}, {{&ion, &ion2}, false}};
  for (auto [fields, valid] : cases) EXPECT_EQ(mMeter->isValidFieldList(fields), valid) << fields.size();
  auto extra = memoryMeter("com.a", 1, {1}, {1});
  extra->addField(new Field("pss"));
  EXPECT_FALSE(record(extra));
  EXPECT_TRUE(samplesOf("com.a").empty());
  EXPECT_EQ(log.count("Found an unknown Field type : pss "), 2u);
  EXPECT_EQ(log.count("Found an unknown Field type :  "), 1u);
}

TEST_F(VorakMetaMeterTest, RecordsTheLaunchedAppsReadingsAndNoOtherApps) {
  kxhost::LogCapture log;
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {300}, {500})));
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {}, {1})));
  // A sample of another trigger counts for the last launch only when it was
  // taken for the launched app.
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {7}, {502}, 4163)));
  EXPECT_TRUE(record(memoryMeter("com.other", 2, {9}, {900}, 4163)));
  auto samples = samplesOf("com.a");
  std::sort(samples.begin(), samples.end());
  EXPECT_EQ(samples, (std::vector<Sample>{{0, 1}, {7, 502}, {300, 500}}));
  EXPECT_TRUE(samplesOf("com.other").empty());
  EXPECT_EQ(log.count("Sample of app \"com.other\" dropped: the launch recorded last is of \"com.a\""), 1u);
}

// A launch name that cannot key its own rows (none before the first
// launch) gets no sample, no service list and no state change.
TEST_F(VorakMetaMeterTest, NothingIsRecordedWithoutAUsableLaunchName) {
  ASSERT_TRUE(kxtest::putRows(mMeterDb, "com.z", 3, [](_vorak_Meter_Data& b) { b.rssSwap = 1; }));
  setServices("a/b", {"svc.b"}, {});
  kxhost::LogCapture log;
  EXPECT_FALSE(record(memoryMeter("com.a", 1, {1}, {1}, 4163)));
  EXPECT_FALSE(record(memoryMeter("a/b", 1, {1}, {1})));
  KxDBDataRowKey all("", KXDB_INTCOL_UNSET);
  EXPECT_EQ(mMeterDb.getCountDR(all), 3);
  EXPECT_EQ(mServiceInDb.getCountDR(all), 0);
  EXPECT_EQ(mState.readState(""), APP_STATE_COLLECTING);
  EXPECT_EQ(log.count("writeToDataBase() end. Nothing recorded for the launched app \"\": empty name"), 1u);
  EXPECT_EQ(log.count("Nothing recorded for the launched app \"a/b\": contains '/'"), 1u);
  EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(VorakMetaMeterTest, ZeroRssSwapRecordsNothingForTheAppButStillSamplesItsServices) {
  setServices("com.a", {"svc.a"}, {mSleepers.start()});
  kxhost::LogCapture log;
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {300}, {0})));
  EXPECT_TRUE(samplesOf("com.a").empty());
  EXPECT_EQ(log.lines().size(), 0u) << "a sample without resident memory is no failure";
  EXPECT_EQ(samplesOf("svc.a"), (std::vector<Sample>{{10, 1000}}));
  EXPECT_EQ(storedServices("com.a").at(0)[0], "svc.a");
  // A service due for learning is not sampled.
  mState.writeState("svc.a", APP_STATE_LEARNING_DUE);
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {300}, {0})));
  EXPECT_EQ(samplesOf("svc.a").size(), 1u);
}

// A launch sample takes the configured number of rows: the readings in the
// first, the others zeroed. With none configured only the services are sampled.
TEST_F(VorakMetaMeterTest, ALaunchSampleTakesTheConfiguredNumberOfRows) {
  kxhost::LogCapture log;
  setServices("com.a", {"svc.a"}, {mSleepers.start()});
  mInfo.meterInfo[0].samplesPerMeter = 2;
  mMeter = std::make_unique<VorakMetaMeter>(mInfo, &mMeterDb, mState, &mServiceInDb);
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {300}, {500})));
  EXPECT_EQ(samplesOf("com.a"), (std::vector<Sample>{{300, 500}, {0, 0}}));
  mInfo.meterInfo.clear();
  mMeter = std::make_unique<VorakMetaMeter>(mInfo, &mMeterDb, mState, &mServiceInDb);
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {300}, {500})));
  EXPECT_TRUE(log.contains("writeToDataBase() end. Failed @  allocSize != mVorakMeterSamples  "));
  EXPECT_EQ(samplesOf("com.a").size(), 2u);
  EXPECT_EQ(samplesOf("svc.a").size(), 2u);
}

TEST_F(VorakMetaMeterTest, PairsServiceNamesWithLivePidsByPositionSkippingTheLaunchPid) {
  const int launch = mSleepers.start(), other = mSleepers.start();
  // Only the third and fourth services run; their pids go to the first two names.
  setServices("com.a", {"svc.0", "svc.1", "svc.2", "svc.3"}, {});
  kxhost::ServiceRegistry::instance().setServicePid("svc.2", launch);
  kxhost::ServiceRegistry::instance().setServicePid("svc.3", other);
  setFigures(other, 2000, 20);
  EXPECT_TRUE(record(memoryMeter("com.a", launch, {1}, {1})));

  const auto first = samplesOf("svc.0"), second = samplesOf("svc.1");
  EXPECT_EQ(first.size() + second.size(), 1u) << "the launch pid is never sampled";
  EXPECT_EQ(first.empty() ? second : first, (std::vector<Sample>{{20, 2000}}));
  EXPECT_TRUE(samplesOf("svc.2").empty() && samplesOf("svc.3").empty());
  // The app now names one service, the stored list still both live ones.
  kxhost::ServiceRegistry::instance().setAppServices("com.a", {"svc.0"});
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {1}, {1})));
  EXPECT_EQ(samplesOf("svc.0").size() + samplesOf("svc.1").size(), 2u);
}

TEST_F(VorakMetaMeterTest, StoresTwelveOfFifteenServicesAndSamplesAsManyNames) {
  std::vector<std::string> names;
  std::vector<int> pids;
  for (int i = 0; i < 15; ++i) {
    names.push_back("svc." + std::to_string(i));
    pids.push_back(mSleepers.start());
  }
  setServices("com.a", names, pids);
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {1}, {1})));

  EXPECT_EQ(storedServices("com.a"), Rows{std::vector<std::string>(names.begin(), names.begin() + 12)});
  for (int i = 0; i < 15; ++i) EXPECT_EQ(samplesOf(names[i]).size(), i < 12 ? 1u : 0u) << names[i];
}

TEST_F(VorakMetaMeterTest, KeepsTheFirstServiceListLessTheNamesItRefuses) {
  kxhost::LogCapture log;
  const std::string longName(300, 'x');
  setServices("com.a", {"svc.a", longName, "svc/c", "svc.d"}, {});
  EXPECT_TRUE(record(memoryMeter("com.a", 1, {1}, {1})));
  std::string app = "com.a", fresh = "com.b";
  EXPECT_TRUE(mMeter->writeToAppServiceInputDb(app, {"svc.z"}));
  EXPECT_TRUE(mMeter->writeToAppServiceInputDb(fresh, {"svc.z"}));
  EXPECT_EQ(storedServices(fresh).at(0)[0], "svc.z");

  std::vector<std::string> expected{"svc.a", "svc.d"};
  expected.resize(12);
  EXPECT_EQ(storedServices("com.a"), Rows{expected});
  EXPECT_EQ(log.count("VorakMetaMeter: writeToDataBase() "), 2u);
  EXPECT_EQ(log.count("Service \"svc/c\" of com.a not recorded: contains '/'"), 1u);

  char slots[12][256];
  mMeter->convertToCharArray({longName}, slots);
  EXPECT_EQ(std::string(slots[0]), longName.substr(0, 255));
}

// The feature never builds a meter without its tables; should one be, it
// refuses. Without memory for a row, nothing is stored and the line says so.
TEST_F(VorakMetaMeterTest, WithoutItsTablesNothingIsRecorded) {
  kxhost::LogCapture log;
  VorakMetaMeter bare(mInfo, nullptr, mState, nullptr);
  std::string app = "com.a";
  EXPECT_FALSE(bare.writeToDataBase({memoryMeter(app, 1, {1}, {1}).get()}));
  EXPECT_EQ(log.count("writeToDataBase() end. Failed @ DBhandle mVorakDb"), 1u);
  EXPECT_FALSE(bare.writeToInputDb(app, 1, 1));
  EXPECT_FALSE(bare.writeToAppServiceInputDb(app, {"svc.a"}));
  EXPECT_EQ(log.count("Input database does not exist"), 1u);
  {
    kxtest::NothrowFailure noRows;
    EXPECT_FALSE(mMeter->writeToInputDb(app, 1, 1));
    EXPECT_FALSE(mMeter->writeToAppServiceInputDb(app, {"svc.a"}));
  }
  EXPECT_EQ(log.count("Could not allocate mVorakDb row"), 1u);
  EXPECT_EQ(log.count("Could not allocate AppServiceInput DB row"), 1u);
  EXPECT_TRUE(samplesOf(app).empty());
  EXPECT_TRUE(storedServices(app).empty());
}

// Whatever the host's statistics throw stays inside the meter, as the record's failure.
TEST_F(VorakMetaMeterTest, AThrowFromTheHostFailsTheRecord) {
  struct Throwing : kxtest::FakeStats {
    PIDStats pidStats(int) override { throw std::runtime_error("stats gone"); }
  };
  setServices("com.a", {"svc.a"}, {mSleepers.start()});
  kxhost::setStatsSource(std::make_shared<Throwing>());
  kxhost::LogCapture log;
  EXPECT_FALSE(record(memoryMeter("com.a", 1, {1}, {1})));
  EXPECT_EQ(log.count("Caught exception: stats gone in writeToDataBase"), 1u);
  EXPECT_EQ(samplesOf("com.a").size(), 1u) << "the app's own sample was already written";
}

TEST_F(VorakMetaMeterTest, ThresholdMovesCollectingAndLearntNamesOnOnly) {
  std::string name = "com.a";
  const std::vector<std::pair<AppState, AppState>> transitions{{APP_STATE_COLLECTING, APP_STATE_LEARNING_DUE},
                                                               {APP_STATE_LEARNT, APP_STATE_RELEARN_DUE},
                                                               {APP_STATE_LEARNING_DUE, APP_STATE_LEARNING_DUE},
                                                               {APP_STATE_RELEARN_DUE, APP_STATE_RELEARN_DUE}};
  for (const auto& [from, to] : transitions) {
    KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
    mMeterDb.deleteAllDR(key);
    mState.writeState(name, from);
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(mMeter->writeToInputDb(name, 1, 1));
    EXPECT_EQ(mState.readState(name), from) << "below the threshold";
    EXPECT_TRUE(mMeter->writeToInputDb(name, 1, 1));
    EXPECT_EQ(mState.readState(name), to) << "from " << from;
  }
}

}  // namespace
