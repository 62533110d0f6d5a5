// Trigger dispatch: what runAsync queues, which triggers become learning
// samples, and what the worker makes of the queued ones in the user tables.

#include <gtest/gtest.h>

#include <mutex>

#include "VorakDevice.h"
#include "kxhost/LogCapture.h"
#include "kxhost/MeteringThread.h"
#include "support/FailingWrites.h"
#include "support/PutRows.h"

namespace {

using vorakdev::addRow;
using vorakdev::Device;
using vorakdev::trigger;
using vorakdev::values;
using Peer = VorakFeatureTestPeer;
using Ints = std::vector<int>;

constexpr int kPrepare = 4162, kMeter = 4163, kLaunch = 4225, kForget = 4242, kRemoved = 4243;

// A feature stopped at the memory gate has no worker: its queue shows
// exactly what runAsync queued.
class VorakDispatch : public ::testing::Test {
 protected:
  Device mDevice{0};
  std::unique_ptr<VorakFeature> mFeature = mDevice.create();
  kxhost::LogCapture mLog;
};

TEST_F(VorakDispatch, QueuesOnlyTheUserTableTriggers) {
  const std::pair<AsyncTriggerPayload, bool> cases[] = {
      {trigger(kPrepare, 0, "a"), true},   {trigger(kRemoved, 0, "a"), true},  {trigger(kLaunch, 2, "a"), true},
      {trigger(kLaunch, 101, "a"), true},  {trigger(kLaunch, 102, "a"), true}, {trigger(kLaunch, 1, "a"), false},
      {trigger(kLaunch, 103, "a"), false}, {trigger(kMeter, 0, "a"), false},   {trigger(kForget, 0, "a"), false},
      {trigger(4226, 2, "a"), false}};
  size_t expected = 0;
  for (const auto& [t, queued] : cases) {
    mFeature->runAsync(t);
    expected += queued;
    EXPECT_EQ(Peer::queued(*mFeature), expected) << t.hintID << "/" << t.hintType;
  }
  EXPECT_EQ(mLog.count("No MetaMeter", ANDROID_LOG_ERROR), std::size(cases));
}

TEST_F(VorakDispatch, FiftyFirstPushEmptiesTheQueue) {
  for (int i = 0; i < 50; ++i) mFeature->runAsync(trigger(kPrepare, 0, "a"));
  EXPECT_EQ(Peer::queued(*mFeature), 50u);
  mFeature->runAsync(trigger(kPrepare, 0, "a"));
  EXPECT_EQ(Peer::queued(*mFeature), 0u);
  mFeature->runAsync(trigger(kPrepare, 0, "a"));
  EXPECT_EQ(Peer::queued(*mFeature), 1u);
}

// Records the names of the triggers that reached the meter aggregator.
class RecordingMeter : public MetaMeter {
 public:
  RecordingMeter(const FeatureInfo& info, FeatureState& state) : MetaMeter(info, state) {}
  ~RecordingMeter() override { stopMetering(); }
  bool writeToDataBase(std::vector<Meter*> meters) override {
    std::vector<AsyncTriggerPayload> triggers;
    for (Meter* m : meters) m->getTriggerPayloads(triggers);
    std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& t : triggers) mSampled.push_back(t.appName);
    return true;
  }
  std::vector<std::string> takeSampled() {
    kxhost::MeteringThread::instance().drain();
    std::lock_guard<std::mutex> lock(mMutex);
    return std::exchange(mSampled, {});
  }

 private:
  std::mutex mMutex;                   // guards mSampled
  std::vector<std::string> mSampled;  // written on the metering thread
};

class VorakSampling : public ::testing::Test {
 protected:
  using Names = std::vector<std::string>;

  void SetUp() override {
    mInfo = Device::defaultInfo();
    mInfo.meterInfo.push_back(MeterInfo{"Memory", {}, {"ion_kgsl", "rss_swap"}, {}, 1});
    mFeature = mDevice.create(mInfo);
    ASSERT_FALSE(mFeature->isDisabled());
    mMeter = new RecordingMeter(mInfo, mStates);
    Peer::setMetaMeter(*mFeature, mMeter);
    // The remembered launch outlives feature objects: pair it off first.
    send(kLaunch, 2, "reset.slot");
    send(kLaunch, 101, "reset.slot");
    mMeter->takeSampled();
  }
  void send(int id, int type, const std::string& app) { mFeature->runAsync(trigger(id, type, app)); }

  Device mDevice;
  FeatureInfo mInfo;  // outlives the meter, which keeps a pointer to it
  FeatureState mStates{"Vorak"};
  std::unique_ptr<VorakFeature> mFeature;
  RecordingMeter* mMeter = nullptr;  // owned by mFeature
};

TEST_F(VorakSampling, CompletionPairsWithTheLastLaunchBySubstring) {
  send(kLaunch, 2, "com.a.b");
  send(kLaunch, 101, "com.a");
  EXPECT_EQ(mMeter->takeSampled(), Names{"com.a"});
  send(kLaunch, 102, "com.a");  // the pairing consumed the launch
  send(kLaunch, 2, "com.b");
  send(kLaunch, 101, "com.a");
  EXPECT_EQ(mMeter->takeSampled(), Names{});
  send(kLaunch, 2, "com.c");  // one slot: the later launch replaces it
  send(kLaunch, 102, "com.b");
  send(kLaunch, 102, "com.c:remote");
  EXPECT_EQ(mMeter->takeSampled(), Names{"com.c:remote"});
  send(kLaunch, 101, "app with blank");  // contains the empty slot's " "
  EXPECT_EQ(mMeter->takeSampled(), Names{"app with blank"});
}

// A trigger naming no usable app is refused whole, with one warning that
// shows the name escaped: an empty name would select every app's rows. A
// name of blanks is an app like any other.
TEST_F(VorakSampling, TriggersWithUnusableNamesTouchNothing) {
  auto* meterDb = Peer::meterDb(*mFeature);
  ASSERT_TRUE(kxtest::putRows(*meterDb, "com.a", 2, [](_vorak_Meter_Data& b) { b.rssSwap = 5; }));
  VorakFeature::UserDb* tables[] = {Peer::userDb(*mFeature), Peer::startProcDb(*mFeature), Peer::favPidDb(*mFeature)};
  for (auto* db : tables) addRow(db, "com.a", 10);
  kxhost::LogCapture log;
  const std::pair<std::string, std::string> names[] = {{"", "\"\": empty name"},
                                                       {"a/b", "\"a/b\": contains '/'"},
                                                       {std::string("a\0b", 3), "\"a\\x00b\": contains a NUL"},
                                                       {"a\x1b[2J", "\"a\\x1b[2J\": contains a control"},
                                                       {std::string(300, 'x'), "(300 bytes)\": longer than 255"}};
  const int kinds[][2] = {{kPrepare, 0}, {kMeter, 0}, {kLaunch, 2}, {kLaunch, 101}, {kForget, 0}, {kRemoved, 0}};
  for (const auto& [name, shown] : names) {
    for (const auto& [id, type] : kinds) {
      log.clear();
      mFeature->runAsync(trigger(id, type, name, 99));
      const std::string hint = "Refused hint " + std::to_string(id) + " type " + std::to_string(type) + " for app ";
      EXPECT_EQ(log.count(hint, ANDROID_LOG_WARN), 1u) << shown;
      EXPECT_TRUE(log.contains(shown)) << shown;
      EXPECT_EQ(log.lines().size(), 1u) << shown;
    }
  }
  mFeature->runAsync(trigger(kLaunch, 101, "com.a", 10));  // no launch was remembered for the refused ones
  Peer::drain(*mFeature);
  EXPECT_EQ(mMeter->takeSampled(), Names{});
  KxDBDataRowKey all("", 0);
  EXPECT_EQ(meterDb->getCountDR(all), 2);
  for (auto* db : tables) EXPECT_EQ(values(db, "com.a"), Ints{10});

  mFeature->runAsync(trigger(kPrepare, 0, " ", 7));
  send(kLaunch, 101, " ");
  Peer::drain(*mFeature);
  EXPECT_EQ(values(tables[0], " "), Ints{7});
  EXPECT_EQ(values(tables[0], "com.a"), Ints{10});
  EXPECT_EQ(mMeter->takeSampled(), Names{" "});
}

TEST_F(VorakSampling, LearningStateGatesSamples) {
  const std::pair<AppState, bool> cases[] = {{APP_STATE_COLLECTING, true},
                                             {APP_STATE_LEARNING_DUE, false},
                                             {APP_STATE_LEARNT, true},
                                             {APP_STATE_RELEARN_DUE, false}};
  for (const auto& [state, sampled] : cases) {
    const std::string app = "gate.app" + std::to_string(state);
    mStates.writeState(app, state);
    send(kMeter, 0, app);
    send(kRemoved, 0, app);  // queued for the worker, never a sample
    send(kLaunch, 2, app);
    send(kLaunch, 101, app);
    EXPECT_EQ(mMeter->takeSampled(), (sampled ? Names{app, app} : Names{})) << state;
  }
}

TEST_F(VorakSampling, ForgetTriggerDropsSamplesOrLearningDue) {
  auto* meterDb = Peer::meterDb(*mFeature);
  for (const char* app : {"forget.a", "forget.a", "forget.b"}) kxtest::putRows(*meterDb, app, 1, [](auto&) {});
  KxDBDataRowKey a("forget.a", 0), b("forget.b", 0);
  EXPECT_FALSE(mFeature->needsLearning(trigger(kForget, 0, "forget.a")));
  EXPECT_EQ(meterDb->getCountDR(a), 0);
  EXPECT_EQ(meterDb->getCountDR(b), 1);

  mStates.writeState("forget.b", APP_STATE_LEARNING_DUE);
  EXPECT_FALSE(mFeature->needsLearning(trigger(kForget, 0, "forget.b")));
  EXPECT_EQ(mStates.readState("forget.b"), APP_STATE_COLLECTING);
  EXPECT_EQ(meterDb->getCountDR(b), 1);
  mStates.writeState("forget.b", APP_STATE_LEARNT);
  EXPECT_FALSE(mFeature->needsLearning(trigger(kForget, 0, "forget.b")));
  EXPECT_EQ(mStates.readState("forget.b"), APP_STATE_LEARNT);
}

class VorakWorker : public ::testing::Test {
 protected:
  void SetUp() override {
    mFeature = mDevice.create();
    ASSERT_FALSE(mFeature->isDisabled());
    mUser = Peer::userDb(*mFeature);
    mStart = Peer::startProcDb(*mFeature);
    mFav = Peer::favPidDb(*mFeature);
  }
  void run(int id, int type, const std::string& app, int pid) {
    mFeature->runAsync(trigger(id, type, app, pid));
    Peer::drain(*mFeature);
  }

  Device mDevice;
  std::unique_ptr<VorakFeature> mFeature;
  VorakFeature::UserDb *mUser = nullptr, *mStart = nullptr, *mFav = nullptr;
};

// Preparation keeps one User row with the latest pid; completion updates
// StartProc and an existing FavoritePID row (none is created); removal
// empties User and StartProc and marks the favourite -1.
TEST_F(VorakWorker, EachTriggerUpdatesItsTables) {
  const struct {
    int id, type, pid;
    Ints user, start, fav;
  } steps[] = {
      {kPrepare, 0, 10, {10}, {}, {}},      {kPrepare, 0, 10, {10}, {}, {}},
      {kPrepare, 0, 11, {11}, {}, {}},      {kLaunch, 2, 20, {11}, {}, {}},
      {kLaunch, 101, 21, {11}, {21}, {}},   {kLaunch, 102, 22, {11}, {22}, {22}},
      {kLaunch, 101, 23, {11}, {23}, {23}}, {kRemoved, 0, 0, {}, {}, {-1}},
  };
  kxhost::LogCapture log;
  for (const auto& step : steps) {
    if (step.type == 102) addRow(mFav, "com.a", 1);
    run(step.id, step.type, "com.a", step.pid);
    SCOPED_TRACE(std::to_string(step.id) + "/" + std::to_string(step.type) + " pid " + std::to_string(step.pid));
    EXPECT_EQ(values(mUser, "com.a"), step.user);
    EXPECT_EQ(values(mStart, "com.a"), step.start);
    EXPECT_EQ(values(mFav, "com.a"), step.fav);
  }
  run(kRemoved, 0, "never.launched", 0);
  EXPECT_TRUE(log.lines().empty()) << "no step is a failure";
}

// updatePIDInDB leaves duplicates in place; the other two operations remove
// them. Each failure is reported and the next step still runs.
TEST_F(VorakWorker, DuplicatedAppsAreReportedAndHandledPerTable) {
  for (auto* db : {mUser, mStart, mFav}) {
    addRow(db, "dup", 1);
    addRow(db, "dup", 2);
  }
  kxhost::LogCapture log;
  run(kPrepare, 0, "dup", 9);
  EXPECT_EQ(values(mUser, "dup"), (Ints{1, 2}));
  run(kLaunch, 101, "dup", 9);
  EXPECT_EQ(values(mFav, "dup"), Ints{});
  EXPECT_EQ(values(mStart, "dup"), (Ints{1, 2}));
  addRow(mFav, "dup", 3);
  addRow(mFav, "dup", 4);
  run(kRemoved, 0, "dup", 9);
  for (auto* db : {mUser, mStart, mFav}) EXPECT_EQ(values(db, "dup"), Ints{});
  for (const char* line : {"Couldnt Update PID in User DB. Err = more than one row of the app in User DB",
                           "Couldnt Update PID in Fav PID DB. Err = more than one row of the app in FavoritePID DB",
                           "Couldnt Update PID in StartProc DB. Err = more than one row of the app in StartProc DB",
                           "Couldnt update favoriteDb. Err = more than one row of the app in FavoritePID DB",
                           "Couldnt deleteApp from User DB. Err = more than one row of the app in User DB",
                           "Couldnt deleteApp from Start Proc DB. Err = more than one row of the app in StartProc"})
    EXPECT_EQ(log.count(line), 1u) << line;
  EXPECT_EQ(log.count("> 1 entries in FavoritePID DB."), 2u);
}

// A missing table, or a write or deletion the store could not commit, fails
// the operation, and nothing of it shows in the table.
TEST_F(VorakWorker, TableOperationsFailWithoutATableOrAWritableStore) {
  std::string a = "com.a", b = "com.b";
  EXPECT_EQ(mFeature->updatePIDInDB(nullptr, a, 1, "User"), -1);
  EXPECT_EQ(mFeature->updateFavDB(nullptr, a, 1, "FavoritePID"), -1);
  EXPECT_EQ(mFeature->deleteAppFromDB(nullptr, a, "User"), -1);
  EXPECT_EQ(mFeature->updatePIDInDB(mUser, a, 1, nullptr), -1);
  EXPECT_EQ(values(mUser, a), Ints{});
  EXPECT_EQ(mFeature->updatePIDInDB(mUser, b, 1, "User"), 0);
  EXPECT_EQ(mFeature->updateFavDB(mUser, a, 1, "FavoritePID"), 0) << "no row: nothing to do";
  EXPECT_EQ(mFeature->deleteAppFromDB(mUser, a, "User"), 0);

  if (!kxtest::storeReportsFailedWrites()) GTEST_SKIP() << "needs the store's failure reporting";
  VorakFeature::UserDb db(100, "Failing.db", "Vorak");
  ASSERT_EQ(db.KxDatabaseInit(), KXDB_SUCCESS);
  addRow(&db, a, 1);
  kxtest::FailingWrites failing("Failing.db");
  EXPECT_EQ(mFeature->updatePIDInDB(&db, b, 2, "User"), -1) << "insert";
  EXPECT_EQ(mFeature->updatePIDInDB(&db, a, 2, "User"), -1) << "update";
  EXPECT_EQ(mFeature->updateFavDB(&db, a, 3, "FavoritePID"), -1);
  EXPECT_EQ(mFeature->deleteAppFromDB(&db, a, "User"), -1);
  EXPECT_EQ(values(&db, a), Ints{1});
  EXPECT_EQ(values(&db, b), Ints{});
}

}  // namespace
