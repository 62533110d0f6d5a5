#include "MemPerfd.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// The hub is process-wide: each test uses hint ids of its own.
std::mutex gMutex;  // guards gEntries
std::vector<std::string> gEntries;

std::vector<std::string> entries() {
  std::lock_guard<std::mutex> lock(gMutex);
  return gEntries;
}

class RecordingAction : public Action {
 public:
  explicit RecordingAction(std::string name) : mName(std::move(name)) {}
  void applyAction(const AsyncTriggerPayload& p) override {
    std::lock_guard<std::mutex> lock(gMutex);
    gEntries.push_back(mName + ":" + std::to_string(p.hintID) + "/" + std::to_string(p.hintType) + ":" + p.appName);
    if (std::this_thread::get_id() == mCaller) gEntries.push_back("on the sender's thread");
  }

 private:
  std::string mName;
  std::thread::id mCaller = std::this_thread::get_id();
};

AsyncTriggerPayload hint(int id, int type = 0, const std::string& app = "") {
  AsyncTriggerPayload p;
  p.hintID = id;
  p.hintType = type;
  p.appName = app;
  return p;
}

TEST(MemPerfd, DeliversOnItsThreadToEveryActionOfTheHintInRegistrationOrder) {
  MemPerfd* hub = MemPerfd::getInstance();
  ASSERT_EQ(hub, MemPerfd::getInstance());
  RecordingAction a("a"), b("b"), c("c");
  hub->registerToPerfHint(&b, 9001, false);
  hub->registerToPerfHint(&a, 9001, true);
  hub->registerToPerfHint(&b, 9001, false);  // once only
  hub->registerToPerfHint(&c, 9002, false);
  for (const auto& h : {hint(9001, 2, "com.app"), hint(9002, 101), hint(9003)}) hub->sendHint(h);
  hub->drain();
  EXPECT_EQ(entries(), (std::vector<std::string>{"b:9001/2:com.app", "a:9001/2:com.app", "c:9002/101:"}));

  EXPECT_EQ(hub->deregisterPerfHint(&a, 9001), 0);
  EXPECT_EQ(hub->deregisterPerfHint(&a, 9001), -1);
  EXPECT_EQ(hub->deregisterPerfHint(&c, 9001), -1);
  hub->sendHint(hint(9001));
  hub->drain();
  EXPECT_EQ(entries().back(), "b:9001/0:");
  EXPECT_EQ(entries().size(), 4u);
  hub->deregisterPerfHint(&b, 9001);
  hub->deregisterPerfHint(&c, 9002);
}

// Holds the hub's thread inside applyAction until a deregistration of it has
// begun, then lingers a little so that a deregistration that did not wait
// would return first; or deregisters itself from there.
class SlowAction : public Action {
 public:
  explicit SlowAction(bool selfRemoving = false) : mSelfRemoving(selfRemoving) {}
  void applyAction(const AsyncTriggerPayload& p) override {
    ++calls;
    if (mSelfRemoving) {
      MemPerfd::getInstance()->drain();  // must not wait for itself
      MemPerfd::getInstance()->deregisterPerfHint(this, p.hintID);
      return;
    }
    entered = true;
    while (!deregistering) std::this_thread::yield();
    for (int i = 0; i < 20000; ++i) std::this_thread::yield();
    finished = true;
  }
  std::atomic<bool> entered{false}, deregistering{false}, finished{false};
  std::atomic<int> calls{0};

 private:
  const bool mSelfRemoving;
};

TEST(MemPerfd, DeregisterWaitsForTheApplyActionInProgressUnlessCalledFromIt) {
  MemPerfd* hub = MemPerfd::getInstance();
  SlowAction action, selfRemoving(true);
  hub->registerToPerfHint(&action, 9010, false);
  hub->sendHint(hint(9010));
  while (!action.entered) std::this_thread::yield();
  action.deregistering = true;
  EXPECT_EQ(hub->deregisterPerfHint(&action, 9010), 0);
  EXPECT_TRUE(action.finished);

  hub->registerToPerfHint(&selfRemoving, 9020, false);
  hub->sendHint(hint(9020));
  hub->sendHint(hint(9020));
  hub->drain();
  EXPECT_EQ(selfRemoving.calls, 1);
}

}  // namespace
