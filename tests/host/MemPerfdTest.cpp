#include "MemPerfd.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// The hub is process-wide: each test uses hint ids of its own.
class Recorder {
 public:
  void add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mMutex);
    mEntries.push_back(entry);
  }
  std::vector<std::string> entries() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mEntries;
  }

 private:
  std::mutex mMutex;  // guards mEntries
  std::vector<std::string> mEntries;
};

class RecordingAction : public Action {
 public:
  RecordingAction(std::string name, Recorder& recorder) : mName(std::move(name)), mRecorder(recorder) {}
  void applyAction(const AsyncTriggerPayload& p) override {
    mRecorder.add(mName + ":" + std::to_string(p.hintID) + "/" + std::to_string(p.hintType) + ":" + p.appName);
    if (std::this_thread::get_id() == mCaller) mRecorder.add("on the sender's thread");
  }
  std::thread::id mCaller = std::this_thread::get_id();

 private:
  std::string mName;
  Recorder& mRecorder;
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
  Recorder rec;
  RecordingAction a("a", rec), b("b", rec), c("c", rec);
  hub->registerToPerfHint(&b, 9001, false);
  hub->registerToPerfHint(&a, 9001, true);
  hub->registerToPerfHint(&b, 9001, false);  // once only
  hub->registerToPerfHint(&c, 9002, false);

  hub->sendHint(hint(9001, 2, "com.app"));
  hub->sendHint(hint(9002, 101));
  hub->sendHint(hint(9003));
  hub->drain();
  EXPECT_EQ(rec.entries(), (std::vector<std::string>{"b:9001/2:com.app", "a:9001/2:com.app", "c:9002/101:"}));

  EXPECT_EQ(hub->deregisterPerfHint(&a, 9001), 0);
  EXPECT_EQ(hub->deregisterPerfHint(&a, 9001), -1);
  EXPECT_EQ(hub->deregisterPerfHint(&c, 9001), -1);
  hub->sendHint(hint(9001));
  hub->drain();
  EXPECT_EQ(rec.entries().back(), "b:9001/0:");
  EXPECT_EQ(rec.entries().size(), 4u);
  hub->deregisterPerfHint(&b, 9001);
  hub->deregisterPerfHint(&c, 9002);
}

// Holds the hub's thread inside applyAction until a deregistration of it has
// begun, then lingers a little so that a deregistration that did not wait
// would return first.
class SlowAction : public Action {
 public:
  void applyAction(const AsyncTriggerPayload&) override {
    entered = true;
    while (!deregistering) std::this_thread::yield();
    for (int i = 0; i < 20000; ++i) std::this_thread::yield();
    finished = true;
  }
  std::atomic<bool> entered{false}, deregistering{false}, finished{false};
};

TEST(MemPerfd, DeregisterWaitsForTheActionsApplyActionInProgress) {
  MemPerfd* hub = MemPerfd::getInstance();
  SlowAction action;
  hub->registerToPerfHint(&action, 9010, false);
  hub->sendHint(hint(9010));
  while (!action.entered) std::this_thread::yield();
  action.deregistering = true;
  EXPECT_EQ(hub->deregisterPerfHint(&action, 9010), 0);
  EXPECT_TRUE(action.finished);
  hub->drain();
}

class SelfRemovingAction : public Action {
 public:
  void applyAction(const AsyncTriggerPayload& p) override {
    ++calls;
    MemPerfd::getInstance()->drain();  // must not wait for itself
    MemPerfd::getInstance()->deregisterPerfHint(this, p.hintID);
  }
  std::atomic<int> calls{0};
};

TEST(MemPerfd, AnActionMayDeregisterItselfFromApplyAction) {
  MemPerfd* hub = MemPerfd::getInstance();
  SelfRemovingAction action;
  hub->registerToPerfHint(&action, 9020, false);
  hub->sendHint(hint(9020));
  hub->sendHint(hint(9020));
  hub->drain();
  EXPECT_EQ(action.calls, 1);
}

class CountingAction : public Action {
 public:
  void applyAction(const AsyncTriggerPayload&) override { ++mCount; }
  int mCount = 0;  // touched only on the hub's thread while registered
};

TEST(MemPerfd, ActionsComeAndGoWhileHintsFlow) {
  MemPerfd* hub = MemPerfd::getInstance();
  std::atomic<bool> done{false};
  std::thread sender([&] {
    for (int i = 0; i < 20000 && !done; ++i) hub->sendHint(hint(9030));
  });
  std::vector<std::thread> users;
  for (int t = 0; t < 3; ++t) {
    users.emplace_back([hub] {
      for (int i = 0; i < 200; ++i) {
        auto* action = new CountingAction();
        hub->registerToPerfHint(action, 9030, false);
        if (i % 2 == 0) std::this_thread::yield();
        hub->deregisterPerfHint(action, 9030);
        delete action;  // safe: the hub no longer runs it
      }
    });
  }
  for (auto& u : users) u.join();
  done = true;
  sender.join();

  CountingAction last;
  hub->registerToPerfHint(&last, 9030, false);
  hub->sendHint(hint(9030));
  hub->drain();
  hub->deregisterPerfHint(&last, 9030);
  EXPECT_GE(last.mCount, 1);
}

}  // namespace
