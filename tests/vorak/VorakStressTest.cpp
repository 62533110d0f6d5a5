// One host thread keeps sending triggers while another constructs and
// destroys the feature again and again, so that destruction meets a worker
// with a full queue and an item in progress. Sanitizer builds judge the rest.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "VorakDevice.h"
#include "kxhost/LogCapture.h"

namespace {

using vorakdev::Device;
using vorakdev::trigger;

constexpr int kTriggers = 100000;
constexpr int kTriggersPerFeature = 2500;  // about 40 lifetimes

class DiscardSink : public kxhost::LogSink {
 public:
  void write(const kxhost::LogLine&) override {}
};

// Accepts every sample and records nothing.
class NullMeter : public MetaMeter {
 public:
  NullMeter(const FeatureInfo& info, FeatureState& state) : MetaMeter(info, state) {}
  ~NullMeter() override { stopMetering(); }
  bool writeToDataBase(std::vector<Meter*>) override { return true; }
};

AsyncTriggerPayload mixedTrigger(int i) {
  static const int kinds[][2] = {{4162, 0}, {4163, 0}, {4225, 2}, {4225, 101}, {4225, 102},
                                 {4242, 0}, {4243, 0}, {4225, 1}, {4000, 0}};
  const auto& kind = kinds[i % std::size(kinds)];
  return trigger(kind[0], kind[1], "com.stress." + std::to_string(i % 7), 1000 + i % 13);
}

std::unique_ptr<VorakFeature> startFeature(Device& device, const FeatureInfo& info, FeatureState& states) {
  auto feature = device.create(info);
  EXPECT_FALSE(feature->isDisabled());
  VorakFeatureTestPeer::setMetaMeter(*feature, new NullMeter(info, states));
  return feature;
}

TEST(VorakStress, TriggersKeepArrivingWhileFeaturesComeAndGo) {
  Device device;
  kxhost::setLogSink(std::make_shared<DiscardSink>(), true);
  const FeatureInfo info = Device::defaultInfo();  // outlives every meter
  FeatureState states("Vorak");

  // The host's side of the contract: a feature gets no trigger once its
  // destruction has begun. Guards current, sentToCurrent and allSent.
  std::mutex hostMutex;
  std::condition_variable changed;  // any of the three changed
  VorakFeature* current = nullptr;
  int sentToCurrent = 0;
  bool allSent = false;

  // Started here, delivers kTriggers to whichever feature is current, joined below.
  std::thread sender([&] {
    std::unique_lock<std::mutex> lock(hostMutex);
    for (int sent = 0; sent < kTriggers; ++sent) {
      changed.wait(lock, [&] { return current != nullptr && sentToCurrent < kTriggersPerFeature; });
      current->runAsync(mixedTrigger(sent));
      if (++sentToCurrent == kTriggersPerFeature) changed.notify_all();
    }
    allSent = true;
    changed.notify_all();
  });

  // The next feature is built while triggers go to the current one, and the
  // previous one is destroyed while they go to its successor.
  int lifetimes = 1;
  auto active = startFeature(device, info, states);
  {
    std::lock_guard<std::mutex> lock(hostMutex);
    current = active.get();
  }
  changed.notify_all();
  for (;;) {
    auto next = startFeature(device, info, states);
    std::unique_lock<std::mutex> lock(hostMutex);
    changed.wait(lock, [&] { return sentToCurrent >= kTriggersPerFeature || allSent; });
    if (allSent) break;
    current = next.get();
    sentToCurrent = 0;
    lock.unlock();
    changed.notify_all();
    active = std::move(next);  // destroys the previous feature
    ++lifetimes;
  }
  active.reset();
  sender.join();
  kxhost::setLogSink(nullptr);
  EXPECT_EQ(lifetimes, kTriggers / kTriggersPerFeature);
}

}  // namespace
