// The kill action: the budget decision on hand-computed statistics, the kill
// loop on real child processes, the time-slot keys, and whole launches.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdio>
#include <limits>

#include "DependentServices.h"
#include "FetchPreferredApps.h"
#include "VorakDevice.h"
#include "VorakFeatureNames.h"
#include "WallClock.h"
#include "kxhost/LogCapture.h"
#include "support/Sleepers.h"

namespace {

// A 4GB-class device in the middle of its day, only the normal zone in use.
// Derived: FreeKB 200000, anon 1200000, file 1100000, page cache 1050000,
// CachedKB 1020000, accounted 2880000, other 1020000, load 2505000, mload
// 1350000, nmload 1155000, available 1355000, a_plus_l 3860000.
SysStats ordinaryStats() {
  return SysStats{210000, 3900000, 20000,  25000,  150000, 450000, 1000000, 5000, 40000, 70000, 60000, 8000,
                  120000, 10000,   50000,  99999,  30000,  0,      0,       0,    0,     0,  // dma
                  200000, 800000,  400000, 600000, 500000,  // normal
                  0, 0, 0, 0, 0, 0, 0, 0, 0, 0};            // movable, highMem
}

// Pause hook: records how many kills were reported when the pause came,
// and for how long (µs).
kxhost::LogCapture* gCapture = nullptr;
std::vector<size_t> gKillsAtPause;
useconds_t gPauseUs = 0;
int recordPause(useconds_t us) {
  gKillsAtPause.push_back(gCapture != nullptr ? gCapture->count("Killed") : 0);
  gPauseUs = us;
  return 0;
}

// pidfd_open hook: the real call while gPidfdErrno is 0, else that failure.
int gPidfdErrno = 0;
int fakePidfdOpen(pid_t pid, unsigned int flags) {
  if (gPidfdErrno == 0) return static_cast<int>(syscall(SYS_pidfd_open, pid, flags));
  errno = gPidfdErrno;
  return -1;
}

time_t gNow = 0;
time_t fixedClock(time_t* out) {
  if (out != nullptr) *out = gNow;
  return gNow;
}

std::string entry(const std::string& phase, long pid, long kb) {
  return phase + ":" + std::to_string(pid) + ":" + std::to_string(kb);
}

// Kill report lines in the order they were written, as "<list>:<pid>:<KB>".
std::vector<std::string> killOrder(const kxhost::LogCapture& log) {
  std::vector<std::string> out;
  for (const kxhost::LogLine& l : log.lines()) {
    if (std::string kill = vorakdev::killOf(l.msg); !kill.empty()) out.push_back(kill);
  }
  return out;
}

AsyncTriggerPayload hint(int id, int type = 0, const std::string& app = "") { return vorakdev::trigger(id, type, app); }

// Every process a test kills or lets the action kill is a sleeper it started
// and offered through its own statistics source.
class VorakActionTest : public ::testing::Test, protected vorakdev::ActionTables {
 protected:
  void SetUp() override {
    kxhost::setProperty("vendor.debug.trace.VORAK", "1");
    kxhost::ServiceRegistry::instance().clear();
    mStats->setSys(ordinaryStats());
    kxhost::setStatsSource(mStats);
    mDevice.writeModel("4GB", vorakdev::modelBytes(-0.5f, 0.25f,
                                                   {{"FreeKB", 0, 1000000, -2}, {"howMuchToKill", 0, 1000000, 4}}));
    gCapture = &mLog;
    gKillsAtPause.clear();
    VorakAction::setPause(recordPause);
    // Saturday 2024-01-06 10:00 UTC: slot "week_end_1".
    setenv("TZ", "UTC0", 1);
    tzset();
    gNow = 1704535200;
    kxhost::setWallClock(fixedClock);
    mFeature = mDevice.create();
    ASSERT_FALSE(mFeature->isDisabled());
  }

  void TearDown() override {
    mAction.reset();
    mFeature.reset();
    VorakAction::setPause(nullptr);
    VorakAction::setPidfdOpen(nullptr);
    kxhost::setWallClock(nullptr);
    gCapture = nullptr;
    kxhost::ServiceRegistry::instance().clear();
    unsetenv("TZ");
    tzset();
  }

  VorakAction& action(float safeload = 0.25f) {
    mAction = newAction(*mFeature, safeload);
    return *mAction;
  }
  void putPid(VorakFeature::UserDb& db, const std::string& app, int pid) { vorakdev::addRow(&db, app, pid); }
  void putServices(const std::string& app, const std::vector<std::string>& services) {
    kxtest::putRows(mServiceOut, app, 1, [&](auto& b) {
      for (size_t i = 0; i < services.size(); ++i) services[i].copy(b.serviceNames[i], sizeof(b.serviceNames[i]) - 1);
    });
  }

  // A sleeper offered as a background process of `memKB`.
  pid_t background(long memKB, const std::string& name = "sleeper") {
    const pid_t pid = mChildren.start();
    mStats->addProcess(pid, memKB, name);
    return pid;
  }

  // Reaps the child and stops offering its pid, which is free for reuse from
  // then on: true when the action had killed it.
  bool killed(pid_t pid) {
    mStats->remove(pid);
    return mChildren.end(pid) == SIGKILL;
  }

  float feature(const VorakAction& a, const char* name) { return a.modelFeatures().at(name).value; }
  // The score's sum as the last " Sum of weights" line gives it.
  float loggedSum() {
    float sum = NAN;
    for (const kxhost::LogLine& l : mLog.lines()) {
      if (const char* at = std::strstr(l.msg.c_str(), " Sum of weights = (")) std::sscanf(at, " Sum of weights = (%f)", &sum);
    }
    return sum;
  }

  vorakdev::Device mDevice;
  kxhost::LogCapture mLog;
  std::shared_ptr<kxtest::FakeStats> mStats = std::make_shared<kxtest::FakeStats>();
  kxtest::Sleepers mChildren;
  std::unique_ptr<VorakFeature> mFeature;
  std::unique_ptr<VorakAction> mAction;
};

// ---------------------------------------------------------------- decideKill

TEST_F(VorakActionTest, DecideKillFollowsHandComputedBudgets) {
  SysStats overflowing = ordinaryStats();
  // 1000 + 2147483000 leaves the 32-bit range: FreeKB saturates to 0, so
  // other grows by 200000 and available shrinks by it.
  overflowing.dmaFreeKB = 1000;
  overflowing.normalFreeKB = 2147483000;
  // A total far beyond the range saturates other, so load fails to 0 and
  // a_plus_l is available alone (1355000).
  SysStats hugeTotal = ordinaryStats();
  hugeTotal.totalKB = 1000000000000ULL;

  const struct {
    const char* what;
    SysStats stats;
    int64_t rssSwap, ionKgsl;
    float safeload;
    float howMuchToKill;  // the model input, which the last line reports
    float result;         // what decideKill returns
    bool reported;        // else the last line is "We need not kill here."
  } cases[] = {
      // available 1355000, newLoad 400000, freeAfter 955000;
      // 0.375 * 3860000 - 955000.
      {"ordinary", ordinaryStats(), 300000, 100000, 0.375f, 492500, 492500, true},
      // needs 1700000 > available: freeAfter -345000, 1447500 + 345000.
      {"needs exceed available", ordinaryStats(), 1500000, 200000, 0.375f, 1792500, 1792500, true},
      // 0.125 * 3860000 - 955000 < 0 and the score says no.
      {"nothing to free", ordinaryStats(), 300000, 100000, 0.125f, -472500, 0, false},
      // available 1155000; the learnt figure keeps only its low 32 bits.
      {"overflowing fields", overflowing, (int64_t{1} << 32) + 300000, 100000, 0.375f, 692500, 692500, true},
      // A learnt -1 (never measured) is the failure marker: newLoad 0.
      {"learnt marker", ordinaryStats(), 300000, -1, 0.375f, 92500, 92500, true},
      // 0.375 * 1355000 - 955000. Such a total has no model file either:
      // the score is 1/2, which reports the budget, yet nothing is freed.
      {"total beyond range", hugeTotal, 300000, 100000, 0.375f, -446875, 0, true},
      // A safeload that is not a number: no amount at all.
      {"safeload NaN", ordinaryStats(), 300000, 100000, NAN, NAN, 0, true},
      // 0.25 * 3860000 - (1355000 - 390001): the least budget that is passed on.
      {"one KB", ordinaryStats(), 290001, 100000, 0.25f, 1, 1, true},
      {"zero", ordinaryStats(), 290000, 100000, 0.25f, 0, 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    mStats->setSys(c.stats);
    VorakAction& a = action(c.safeload);
    learn(a, c.what, c.rssSwap, c.ionKgsl);
    mLog.clear();
    EXPECT_FLOAT_EQ(a.decideKill(c.what), c.result);
    EXPECT_THAT(feature(a, "howMuchToKill"), testing::NanSensitiveFloatEq(c.howMuchToKill));
    char report[96];
    std::snprintf(report, sizeof(report), "(appName,memToGenerate) = (%s, %f)", c.what, c.howMuchToKill);
    EXPECT_EQ(mLog.count(c.reported ? report : "We need not kill here."), 1u);
  }
  VorakAction& a = action(0.375f);
  for (int64_t rssSwap : {300000, 1500000}) learn(a, "twice", rssSwap, 100000);
  EXPECT_FLOAT_EQ(a.decideKill("twice"), 492500) << "the first learnt row counts";
}

// Every model input, from a record whose figures all differ (each zone's
// too), against the rules worked in plain arithmetic: an input left unset
// or taken from the wrong figure shows.
TEST_F(VorakActionTest, DecideKillStoresEveryModelInput) {
  uint64_t f[37];
  for (int i = 0; i < 37; ++i) f[i] = 1000 * (i + 1) + 4 * i + 3;
  f[1] = 3900000;  // total memory: the 4GB model
  SysStats s;
  std::memcpy(&s, f, sizeof(s));
  mStats->setSys(s);
  VorakAction& a = action(0.375f);
  const double kA = 300000, kU = 100000;
  learn(a, "com.a", 300000, 100000);
  a.decideKill("com.a");

  auto zones = [&](int k) { return double(f[17 + k] + f[22 + k] + f[27 + k] + f[32 + k]); };  // 0 free .. 4
  const double freeKB = zones(0), anon = zones(1) + zones(2), file = zones(3) + zones(4);
  const double pageCache = file - (f[13] + f[8]), cached = pageCache - f[16];
  const double accounted = freeKB + pageCache + anon + f[13] + f[8] + f[14] + f[2] + f[10] + f[9] + f[4] + f[7] + f[3];
  const double other = f[1] - accounted, load = anon + other + f[9] + f[10] + f[4] + f[7];
  const double available = freeKB + f[9] + f[3] + f[8] + cached, aPlusL = available + load;
  const double freeAfter = available - (kA + kU), compressable = anon + f[12];
  const double zramCapacity = (2.0 * f[6] - f[5]) / f[6], freeByLoad = freeAfter / (kA + kU + load);
  std::map<std::string, double> expected = {
      {"FreeKB", freeKB}, {"CachedKB", cached}, {"BuffersKB", f[8]}, {"SReclaimKB", f[9]},
      {"SlabKB", f[9] + f[10]}, {"ZUsedKB", f[4]}, {"UnReclaimableKB", f[7]}, {"ReclaimableKB", f[3]},
      {"ZOrigKB", f[5]}, {"TotalAnonPages", std::floor(anon / 4)}, {"nrFreeCMAPages", f[11] / 4},
      {"MappedFileKB", f[12]}, {"killsafeANON", kA}, {"killsafeUNRECLAIM", kU}, {"available", available},
      {"load", load}, {"a_plus_l", aPlusL}, {"nmload", f[10] + f[7] + f[9] + other}, {"mload", anon + f[4]},
      {"newLoad", kA + kU}, {"freeByTotal", freeAfter / aPlusL}, {"freeByLoad", freeByLoad},
      {"zramCapacity", zramCapacity}, {"compressable", compressable},
      {"zramEff", std::floor(compressable * 100) / (f[5] + compressable)}, {"grandRatio", freeByLoad / zramCapacity},
      {"activeFile", zones(3) / 4}, {"activeAnon", zones(1) / 4}, {"inactiveFile", zones(4) / 4},
      {"inactiveAnon", zones(2) / 4},
      {"wholesome_vmp", 100 * std::floor(kA + (zones(3) + zones(1)) / 4) /
                            std::floor(freeKB + kA + (zones(1) + zones(2) + zones(3) + zones(4)) / 4)},
      {"howMuchToKill", 0.375 * aPlusL - freeAfter}};
  const char* const counters[] = {"free_pages", "active_anon", "inactive_anon", "active_file", "inactive_file"};
  const char* const zoneNames[] = {"dma", "normal", "movable", "highMem"};
  for (int z = 0; z < 4; ++z) {
    for (int k = 0; k < (z == 2 ? 3 : 5); ++k) expected[std::string(zoneNames[z]) + "_nr_" + counters[k]] = f[17 + 5 * z + k] / 4;
  }
  ASSERT_EQ(expected.size(), kVorakFeatureNames.size());
  for (const auto& [name, want] : expected) EXPECT_NEAR(feature(a, name.c_str()), want, 1e-6 * std::fabs(want) + 1e-6) << name;
  // The model scores FreeKB (weight -2) and howMuchToKill (weight 4), both over 0..1000000.
  EXPECT_NEAR(loggedSum(), -2 * freeKB / 1e6 + 4 * expected["howMuchToKill"] / 1e6 - 0.5, 1e-5);
}

// --------------------------------------------------------------------- vorak

// A pid is signalled only while it names the process that was listed; the
// fake source stands for a reused pid by a later start time.
TEST_F(VorakActionTest, OnlyTheProcessThatWasListedIsSignalled) {
  enum Then { kSame, kReused, kExited };
  const struct {
    const char* what;
    int pidfdErrno;
    Then then;
    float freed;  // 40000: the listed target, 90000: the other candidate
  } cases[] = {
      {"listed, through a pidfd", 0, kSame, 40000},
      {"listed, without pidfds", ENOSYS, kSame, 40000},
      {"pid reused, without pidfds", ENOSYS, kReused, 90000},
      {"exited and reaped", 0, kExited, 90000},
      {"no descriptor to pin it", EMFILE, kSame, 0},
  };
  VorakAction::setPidfdOpen(fakePidfdOpen);
  VorakAction& a = action();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    gPidfdErrno = c.pidfdErrno;
    const pid_t target = background(40000), other = background(90000);
    a.generateTaskList();
    if (c.then == kReused) mStats->reuse(target);
    if (c.then == kExited) mChildren.end(target);  // the fake still offers it
    mLog.clear();
    EXPECT_FLOAT_EQ(a.vorak(30000), c.freed);
    EXPECT_EQ(killed(target), c.freed == 40000);
    EXPECT_EQ(killed(other), c.freed == 90000);
    EXPECT_EQ(mLog.count("Spared PID = " + std::to_string(target) + ": not the process listed (started at " +
                         std::to_string(5777 + target) + ", listed " + std::to_string(5000 + target) + ")"),
              c.then == kReused ? 1u : 0u);
    EXPECT_EQ(mLog.count("Error = Too many open files"), c.freed == 0 ? 2u : 0u);
  }
}

TEST_F(VorakActionTest, VorakPausesBeforeEveryFifthKill) {
  std::vector<pid_t> pids;
  for (int i = 0; i < 10; ++i) pids.push_back(background(10000));
  VorakAction& a = action();
  a.generateTaskList();
  EXPECT_FLOAT_EQ(a.vorak(90000), 90000);
  EXPECT_EQ(killOrder(mLog).size(), 9u);
  EXPECT_EQ(gKillsAtPause, (std::vector<size_t>{4, 8}));
  EXPECT_EQ(gPauseUs, 10000u);
  EXPECT_EQ(std::count_if(pids.begin(), pids.end(), [this](pid_t pid) { return killed(pid); }), 9);
}

// Both ends of the window, which generated launches hardly ever hit.
TEST_F(VorakActionTest, VorakActsOnlyInsideTheBudgetWindow) {
  VorakAction& a = action();
  const std::pair<float, float> cases[] = {{20480, 0}, {20481, 30000}, {614400, 30000}, {614401, 0}};  // amount, freed
  for (const auto& [amount, freed] : cases) {
    const pid_t pid = background(30000);
    a.generateTaskList();
    EXPECT_FLOAT_EQ(a.vorak(amount), freed) << amount;
    EXPECT_EQ(killed(pid), freed > 0) << amount;
  }
  background(30000), background(10000);
  a.generateTaskList();
  EXPECT_FLOAT_EQ(a.vorak(30000.5f), 40000) << "half a KB left still takes the next candidate";
}

// Only a favourite with exactly one pid row leaves the background list; the
// rest are reported and stay there. A slot with two rows uses its first.
TEST_F(VorakActionTest, FavouritesNeedOnePidRowAndTheSlotsFirstRow) {
  const pid_t fav = background(40000), other = background(50000), dup = background(60000);
  putSlot("week_end_1", "com.fav/n//com.dup");
  putSlot("week_end_1", "com.other");
  putPid(mFavPid, "com.fav", fav);
  putPid(mFavPid, "com.other", other);
  putPid(mFavPid, "com.dup", dup);
  putPid(mFavPid, "com.dup", dup);
  VorakAction& a = action();
  a.generateTaskList();
  EXPECT_EQ(mLog.count("There is some problem with FavTimeSlotDb as it has > 1 entries for current Time Slot."), 1u);
  EXPECT_EQ(mLog.count("The App (n) entry is missing from FavPID DB"), 1u);
  EXPECT_EQ(mLog.count("There is some problem with App = (com.dup) as it has > 1 entries in FavPID DB."), 1u);
  EXPECT_EQ(mLog.count("> 1 entries in FavPID DB."), 1u) << "the empty name between '//' is no app";
  EXPECT_EQ(mLog.count("entry is missing"), 1u);
  ASSERT_EQ(a.favoriteList().size(), 1u);
  EXPECT_EQ(a.favoriteList().begin()->second, fav);
  EXPECT_EQ(a.backgroundList().size(), 2u);
  EXPECT_TRUE(a.userLaunchedList().empty());
  a.clearAllMaps();
  EXPECT_TRUE(a.favoriteList().empty() && a.backgroundList().empty());
  // A clock that localtime cannot read gives no slot, so no favourite.
  gNow = std::numeric_limits<time_t>::max();
  a.generateTaskList();
  EXPECT_TRUE(a.favoriteList().empty());
  EXPECT_EQ(mLog.count("Couldnt get current week_day and tim_slot info. Return empty string to not kill Fav Apps."), 1u);
  std::string slot;
  EXPECT_EQ(a.getWeekdayTimeslot(slot), -1);
  EXPECT_EQ(slot, "");
}

// The host's background range is 700 to 1000, both bounds included.
TEST_F(VorakActionTest, OnlyTheBackgroundRangeIsListed) {
  for (int adj : {699, 700, 1000, 1001}) mStats->addProcess(100000 + adj, 30000, "sleeper", adj);
  VorakAction& a = action();
  a.generateTaskList();
  // Newest first, as the source lists them.
  EXPECT_EQ(std::vector<VorakCandidateList::Entry>(a.backgroundList().begin(), a.backgroundList().end()),
            (std::vector<VorakCandidateList::Entry>{{30000, 101000}, {30000, 100700}}));
}

TEST_F(VorakActionTest, TimeSlotKeysTurnAtTheirHours) {
  VorakAction& a = action();
  const std::pair<time_t, const char*> cases[] = {
      {1704542340, "week_end_1"},  // Saturday 11:59
      {1704542400, "week_end_2"},  // Saturday 12:00
      {1704686340, "week_day_4"},  // Monday 03:59
      {1704686400, "week_day_1"},  // Monday 04:00
      {1704646800, "week_end_3"},  // Sunday 17:00
      {1704488400, "week_day_4"},  // Friday 21:00
  };
  for (const auto& [at, expected] : cases) {
    std::string key = "slot=";
    gNow = at;
    EXPECT_EQ(a.getWeekdayTimeslot(key), 0);
    EXPECT_EQ(key, std::string("slot=") + expected) << at;
  }
}

// ---------------------------------------------------------------- applyAction

// At most one kill pass between preparation hints, and none spent on a
// launch hint whose name cannot be an app's. The preparation hint's name is
// not used.
TEST_F(VorakActionTest, OneKillPassBetweenPreparationHintsAndNoneForInvalidNames) {
  VorakAction& a = action();
  // newLoad 420000: 0.25 * 3860000 - (1355000 - 420000) = 30000. A name
  // keying every row would find this row too.
  learn(a, "com.launch", 320000, 100000);
  const struct {
    std::string name;
    const char* problem;
  } cases[] = {
      {"", "empty name"},
      {std::string("com.a\0b", 7), "contains a NUL byte"},
      {"com.a/b", "contains '/'"},
      {"com.a\nb", "contains a control or non-ASCII byte"},
      {std::string(256, 'a'), "longer than 255 bytes"},
  };
  const pid_t first = background(40000), second = background(45000);
  a.applyAction(hint(4162, 0, ""));
  for (const auto& c : cases) {
    mLog.clear();
    a.applyAction(hint(4225, 2, c.name));
    ASSERT_EQ(mLog.lines().size(), 1u) << c.problem;
    EXPECT_EQ(mLog.count(std::string("Launch hint ignored: invalid app name (") + c.problem + ")", ANDROID_LOG_WARN),
              1u);
  }
  // Launch hints of other types and other hints take no pass; a second launch gets none.
  for (const auto& other : {hint(4225, 101, "com.other"), hint(4243, 2, "com.other")}) a.applyAction(other);
  a.applyAction(hint(4225, 2, "com.launch"));
  EXPECT_TRUE(mLog.contains(
      "(appName,hintID,memoryToGenerate,memoryGenerated, surplusMemory) = (com.launch ,4225, 30000.000000, "
      "40000.000000, 10000.000000)"));
  a.applyAction(hint(4225, 2, "com.launch"));
  EXPECT_EQ(killOrder(mLog), std::vector<std::string>{entry("bg", first, 40000)});
  EXPECT_EQ(mLog.count("(appName,hintID"), 1u);
  EXPECT_TRUE(killed(first));
  EXPECT_FALSE(killed(second));
}

// Known by the process name as the kernel keeps it: the whole name when
// short, else the tail of the package. Every other candidate is killed, as
// the budget (100000) exceeds them all.
TEST_F(VorakActionTest, TheLaunchingAppsOwnProcessesAreNeverVictims) {
  const struct {
    const char* app;
    std::vector<std::pair<std::string, bool>> processes;  // name, the app's own
  } cases[] = {
      {"com.example.browser",
       {{"com.example.browser", true},          // "example.browser"
        {"com.example.browser:sandbox", true},  // "browser:sandbox"
        {"com.other.browser", false},           // "m.other.browser"
        {"com.example.browser2", false},
        {"browser:remote", false}}},  // whole, so not the tail of the package
      {"com.cam", {{"com.cam:remote", true}, {"com.camera", false}, {"org.com.cam", false}}},
      {"com.example.abc", {{"com.example.abc", true}}},  // as long as a kept name: it may be cut
  };
  VorakAction& a = action();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.app);
    learn(a, c.app, 390000, 100000);
    std::vector<pid_t> pids;
    for (const auto& [name, own] : c.processes) pids.push_back(background(10000, name));
    a.applyAction(hint(4162));
    a.applyAction(hint(4225, 2, c.app));
    for (size_t i = 0; i < pids.size(); ++i) EXPECT_EQ(killed(pids[i]), !c.processes[i].second) << c.processes[i].first;
  }
}

// With neither users nor favourites known yet, a launch lets the host seed
// the favourites from its launch history; once either is known it does not.
TEST_F(VorakActionTest, LaunchSeedsFavouritesOnlyWhenNothingIsKnown) {
  VorakAction& a = action();
  for (const auto& [user, slot, seeded] : {std::tuple{false, false, true}, {true, false, false}, {false, true, false}}) {
    SCOPED_TRACE(std::to_string(user) + std::to_string(slot));
    KxDBDataRowKey all("", KXDB_INTCOL_UNSET);
    mUser.deleteAllDR(all);
    mFavSlot.deleteAllDR(all);
    FetchPreferredApps::clearHistory();
    FetchPreferredApps::noteLaunch("com.habit", gNow - 86400 * 7);
    FetchPreferredApps::noteLaunch("com.habit", gNow);
    if (user) putPid(mUser, "com.u", 1);
    if (slot) putSlot("week_day_4", "com.s");
    a.applyAction(hint(4162));
    a.applyAction(hint(4225, 2, "com.launch"));
    KxDBDataRowKey key("week_end_1", KXDB_INTCOL_UNSET);
    EXPECT_EQ(mFavSlot.getCountDR(key), seeded ? 1 : 0);
  }
  FetchPreferredApps::clearHistory();
}

// The service pass asks for the app's services not accounted for (none, as
// every listed one is, the one not running too, learnt needs or not) less
// what the first pass freed beyond its budget. Only the running service is
// spared.
TEST_F(VorakActionTest, ServicePassTakesUpTheShortfallWhereTheFirstPassStopped) {
  // Budget 100000, more than the candidates hold: the spared service, the
  // background processes, then the slot's favourite and the user's app,
  // which are killed although they run services too.
  const pid_t service = background(200000), fav = background(15000), user = background(5000);
  for (long kb : {30000L, 20000L}) background(kb);
  for (auto [name, pid] : {std::pair{"vendor.media", service}, {"vendor.fav", fav}, {"vendor.user", user}})
    kxhost::ServiceRegistry::instance().setServicePid(name, pid);
  putPid(mStartProc, "com.user", user);
  putServices("com.short", {"vendor.media", "vendor.hal"});
  putSlot("week_end_1", "com.fav");
  putPid(mFavPid, "com.fav", fav);
  VorakAction& a = action();
  learn(a, "com.short", 390000, 100000);
  learn(a, "vendor.hal", 100000, 0);

  a.applyAction(hint(4162));
  a.applyAction(hint(4225, 2, "com.short"));
  EXPECT_TRUE(mLog.contains(
      "(appName,hintID,memoryToGenerate,memoryGenerated, surplusMemory) = (com.short ,4225, 100000.000000, "
      "70000.000000, -30000.000000)"));
  // The second pass wants the 30000 still missing, finds the lists used up
  // and kills nothing more; the shortfall stands.
  EXPECT_TRUE(mLog.contains("(Service - appName,hintID,memoryToGenerate,memoryGenerated, surplusServiceMemory) = "
                            "(com.short ,4225, 30000.000000, 0.000000, -30000.000000)"));
  EXPECT_EQ(a.appServicePids(), std::unordered_set<int>{service});
  EXPECT_EQ(mLog.count("FavTimeSlotDb"), 0u) << "one row for the slot is no problem";
  a.clearAllMaps();
  EXPECT_TRUE(a.appServicePids().empty() && a.protectedPids().empty());
  a.updateAppServices("com.other");  // the next app's set starts empty
  EXPECT_TRUE(a.appServicePids().empty());
  const pid_t extra = background(1000);
  kxhost::ServiceRegistry::instance().setServicePid("vendor.extra", extra);
  putServices("com.two", {"vendor.media", "vendor.extra"});
  a.updateAppServices("com.two");
  EXPECT_EQ(a.appServicePids(), (std::unordered_set<int>{service, extra}));
}

}  // namespace
