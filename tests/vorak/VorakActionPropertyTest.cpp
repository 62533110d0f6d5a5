// The kill decision against its rules, over thousands of generated launches:
// each one has its own statistics, learnt needs and candidates (background,
// favourite, user-launched, services, the launching app's own processes,
// processes whose pid was reused, processes outside the background range),
// and every victim the action reports is checked against a reference that
// applies the rules to the same candidates.
//
// The candidates are zombie children of this test: a signal changes nothing
// for a zombie, so one pool serves every case, and no other process is ever
// offered.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "DependentServices.h"
#include "VorakAction.h"
#include "VorakDevice.h"
#include "kxhost/LogCapture.h"

namespace {

constexpr int kCases = 2000;
constexpr int kPool = 12;
constexpr int kApps = 8;  // learnt apps; "com.app8" has no learnt row

enum List { kBackground, kFavourite, kUser };
enum Fate { kPlain, kOwnByTable, kOwnByName, kService, kReplaced, kOutOfRange };

struct Candidate {
  pid_t pid;
  long kb;
  List list;
  Fate fate;
};

// As the kill line reports the candidate.
std::string killName(const Candidate& c) {
  static const char* const kTags[] = {"bg", "Fav", "User"};
  return std::string(kTags[c.list]) + ":" + std::to_string(c.pid) + ":" + std::to_string(c.kb);
}

// What one pass must kill for `amount`: nothing outside the budget window;
// else background, then favourites, then user-launched apps, in each the
// smallest candidate that covers the rest, else the largest. A chosen
// service (background only) or replaced process is used up unharmed.
// Candidates chosen leave `left`.
std::vector<std::string> expectedPass(std::vector<Candidate>& left, float amount) {
  std::vector<std::string> kills;
  if (!(amount > VorakAction::kMinBudgetKB && amount <= VorakAction::kMaxBudgetKB)) return kills;
  float rest = amount;
  for (List list : {kBackground, kFavourite, kUser}) {
    while (rest > 0) {
      const long want = static_cast<long>(rest);
      auto pick = left.end();
      for (auto c = left.begin(); c != left.end(); ++c) {
        if (c->list != list) continue;
        const bool covers = c->kb >= want;
        const bool better = pick == left.end() ||
                            (covers != (pick->kb >= want) ? covers : covers ? c->kb < pick->kb : c->kb > pick->kb);
        if (better) pick = c;
      }
      if (pick == left.end()) break;
      if (pick->fate != kReplaced && !(list == kBackground && pick->fate == kService)) {
        kills.push_back(killName(*pick));
        rest -= static_cast<float>(pick->kb);
      }
      left.erase(pick);
    }
  }
  return kills;
}

// One pass as the log tells it: the kills, then its summary line.
struct Pass {
  std::vector<std::string> kills;
  float amount = NAN, freed = NAN;
};

std::vector<Pass> passesOf(const kxhost::LogCapture& log) {
  std::vector<Pass> passes(1);
  for (const kxhost::LogLine& l : log.lines()) {
    const char* msg = l.msg.c_str();
    if (std::string kill = vorakdev::killOf(l.msg); !kill.empty()) {
      passes.back().kills.push_back(kill);
    } else if (const char* sum = std::strstr(msg, "surplus"); sum != nullptr) {
      float surplus = 0;
      EXPECT_EQ(std::sscanf(std::strstr(sum, " ,4225, "), " ,4225, %f, %f, %f", &passes.back().amount,
                            &passes.back().freed, &surplus),
                3)
          << msg;
      passes.emplace_back();
    }
  }
  passes.pop_back();
  return passes;
}

uint64_t pickOf(std::mt19937_64& rng, uint64_t below) { return below == 0 ? rng() : rng() % below; }

int noPause(useconds_t) { return 0; }

class VorakActionProperty : public ::testing::Test, protected vorakdev::ActionTables {
 protected:
  void SetUp() override {
    kxhost::setProperty("vendor.debug.trace.VORAK", "1");
    mFeature = mDevice.create();
    ASSERT_FALSE(mFeature->isDisabled());
    mStats->setSys(vorakdev::sysStats4GB(0));
    kxhost::setStatsSource(mStats);
    VorakAction::setPause(noPause);
    mAction = newAction(*mFeature, 0.3f);  // the device model's safeload
    ASSERT_TRUE(mAction->getWeekdayTimeslot(mSlot) == 0);
    for (int i = 0; i < kPool; ++i) {
      const pid_t pid = fork();
      if (pid == 0) _exit(0);
      ASSERT_GT(pid, 0);
      mPool.push_back(pid);
    }
  }
  void TearDown() override {
    for (pid_t pid : mPool) waitpid(pid, nullptr, 0);
    mAction.reset();
    VorakAction::setPause(nullptr);
    kxhost::ServiceRegistry::instance().clear();
  }
  static void putPid(VorakFeature::UserDb& db, const std::string& app, int pid) { vorakdev::addRow(&db, app, pid); }

  vorakdev::Device mDevice;
  kxhost::LogCapture mLog;
  std::unique_ptr<VorakFeature> mFeature;
  std::shared_ptr<kxtest::FakeStats> mStats = std::make_shared<kxtest::FakeStats>();
  std::unique_ptr<VorakAction> mAction;
  std::string mSlot;
  std::vector<pid_t> mPool;
};

TEST_F(VorakActionProperty, VictimsFollowTheRulesOnGeneratedLaunches) {
  std::mt19937_64 rng(20240611);
  // Learnt needs, among them the never-measured marker and a figure wider
  // than 32 bits.
  for (int i = 0; i < kApps; ++i) {
    const int64_t rss = i == 0 ? -1 : i == 1 ? (int64_t{1} << 40) + 200000 : static_cast<int64_t>(pickOf(rng, 500000));
    learn(*mAction, "com.app" + std::to_string(i), rss, static_cast<int64_t>(pickOf(rng, 200000)));
  }
  AsyncTriggerPayload prepare, launch;
  prepare.hintID = VorakAction::kPreparationHint;
  launch.hintID = VorakAction::kLaunchHint;
  launch.hintType = VorakAction::kLaunchHintType;
  size_t kills = 0, inWindow = 0, fates[kOutOfRange + 1] = {};

  for (int n = 0; n < kCases; ++n) {
    SCOPED_TRACE("case " + std::to_string(n));
    KxDBDataRowKey all("", KXDB_INTCOL_UNSET);
    for (auto* db : {&mUser, &mFavPid, &mStartProc}) db->deleteAllDR(all);
    mFavSlot.deleteAllDR(all);
    kxhost::ServiceRegistry::instance().clear();
    mStats->clearProcesses();
    launch.appName = "com.app" + std::to_string(pickOf(rng, kApps + 1));
    putPid(mUser, "com.seen", 1);  // the user is known: no favourites are seeded

    // Mostly a plain device whose budget falls around the window; now and
    // then every figure at random, up to the full 64 bits.
    SysStats s{};
    if (pickOf(rng, 8) == 0) {
      const uint64_t bound = std::vector<uint64_t>{1u << 22, uint64_t{1} << 33, 0}[pickOf(rng, 3)];
      uint64_t figures[sizeof(SysStats) / sizeof(uint64_t)];
      for (uint64_t& f : figures) f = pickOf(rng, bound);
      std::memcpy(&s, figures, sizeof(s));
    } else {
      s.totalKB = 2200000 + pickOf(rng, 1900000);
      s.normalFreeKB = 400000 + pickOf(rng, 1200000);
    }
    mStats->setSys(s);

    std::vector<Candidate> offered;
    std::string favourites;
    std::shuffle(mPool.begin(), mPool.end(), rng);
    const size_t count = 1 + pickOf(rng, kPool);
    for (size_t i = 0; i < count; ++i) {
      // Sizes differ in their last digits: no two candidates tie.
      const long kb = 1000 * static_cast<long>(1 + pickOf(rng, 400)) + static_cast<long>(i);
      const uint64_t roll = pickOf(rng, 20);
      const Fate fate = roll < 12 ? kPlain : static_cast<Fate>(1 + (roll - 12) % 5);
      const List list = fate == kService ? kBackground : static_cast<List>(pickOf(rng, 3));
      const Candidate c{mPool[i], kb, list, fate};
      const std::string tag = std::to_string(i);
      mStats->addProcess(c.pid, static_cast<uint64_t>(kb), fate == kOwnByName ? launch.appName : "sleeper",
                         fate == kOutOfRange ? static_cast<int>(pickOf(rng, 700)) : 700 + static_cast<int>(pickOf(rng, 301)));
      if (list == kFavourite) {
        favourites += "fav" + tag + "/";
        putPid(mFavPid, "fav" + tag, c.pid);
      } else if (list == kUser) {
        putPid(mStartProc, "user" + tag, c.pid);
      }
      if (fate == kOwnByTable) putPid(*std::vector{&mUser, &mStartProc, &mFavPid}[pickOf(rng, 3)], launch.appName, c.pid);
      if (fate == kService) kxhost::ServiceRegistry::instance().setServicePid("svc" + tag, c.pid);
      offered.push_back(c);
    }
    putSlot(mSlot, favourites);

    mAction->applyAction(prepare);
    for (const Candidate& c : offered) {
      if (c.fate == kReplaced) mStats->reuse(c.pid);
    }
    mLog.clear();
    mAction->applyAction(launch);

    const std::vector<Pass> passes = passesOf(mLog);
    ASSERT_EQ(passes.size(), 2u);
    const float amount = passes[0].amount;
    EXPECT_TRUE(amount >= 0 && amount < 2147483648.0f) << amount;
    EXPECT_TRUE(launch.appName != "com.app8" || amount == 0) << "no learnt row, no amount";
    inWindow += amount > VorakAction::kMinBudgetKB && amount <= VorakAction::kMaxBudgetKB;

    std::vector<Candidate> left;
    for (const Candidate& c : offered) {
      if (c.fate != kOwnByTable && c.fate != kOwnByName && c.fate != kOutOfRange) left.push_back(c);
    }
    for (const Pass& pass : passes) {
      EXPECT_EQ(pass.kills, expectedPass(left, pass.amount)) << "amount " << pass.amount;
      float freed = 0;
      for (const std::string& k : pass.kills) freed += std::stof(k.substr(k.rfind(':') + 1));
      EXPECT_FLOAT_EQ(pass.freed, freed);
      kills += pass.kills.size();
    }
    for (const Candidate& c : offered) ++fates[c.fate];
  }
  // The generator reached what the rules are about.
  EXPECT_GT(inWindow, static_cast<size_t>(kCases / 4));
  EXPECT_GT(kills, static_cast<size_t>(kCases / 2));
  for (size_t f : fates) EXPECT_GT(f, static_cast<size_t>(kCases / 4));
}

}  // namespace
