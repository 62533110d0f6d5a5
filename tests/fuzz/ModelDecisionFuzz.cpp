// Arbitrary bytes as the device's model file, loaded by the feature as it
// starts, then one launch decided on statistics and a learnt row taken from
// the input. A model the feature accepts must give a finite amount to free,
// never a negative one; a model it refuses leaves it disabled. No process
// is offered, so none may be signalled.
//
// Input: the model's bytes, then, read from the end, the statistics record,
// the memory class and the learnt row's two figures.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "FuzzSeams.h"
#include "VorakAction.h"
#include "vorak/VorakDevice.h"

namespace {

constexpr const char* kApp = "com.fuzz.app";

AsyncTriggerPayload hint(int id, int type) { return vorakdev::trigger(id, type, kApp); }

// Figures up to 2^32 KB each: sums of a few of them leave the 32-bit range
// the decision computes in, single ones do not.
SysStats statsFrom(FuzzedDataProvider& in) {
  uint64_t figures[sizeof(SysStats) / sizeof(uint64_t)];
  for (uint64_t& figure : figures) figure = in.ConsumeIntegral<uint32_t>();
  SysStats s;
  std::memcpy(&s, figures, sizeof s);
  // The feature runs on 1 to 8 GB only; the class picks the model's file.
  static const uint64_t kClassKB[] = {2000000, 3900000, 7800000};
  s.totalKB = kClassKB[in.ConsumeIntegralInRange<int>(0, 2)];
  return s;
}

const char* memClass(uint64_t totalKB) { return totalKB < 2097152 ? "2GB" : totalKB < 4194304 ? "4GB" : "6GB"; }

void learn(VorakAction& action, int64_t ionKgsl, int64_t rssSwap) {
  auto* db = action.getActionOutputDb();
  if (db == nullptr) return;
  auto rows = db->allocateDR(1);
  if (rows.empty()) return;
  rows[0]->appName = kApp;
  rows[0]->blob.ionKgsl = ionKgsl;
  rows[0]->blob.rssSwap = rssSwap;
  db->writeDeallocateDR(rows);
}

void forget(VorakAction& action) {
  KxDBDataRowKey key(kApp, 0);
  if (auto* db = action.getActionOutputDb()) db->deleteAllDR(key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static vorakdev::Device device;  // one root for the process, removed at exit
  FuzzedDataProvider in(data, size);
  const SysStats stats = statsFrom(in);
  const int64_t ionKgsl = in.ConsumeIntegral<int64_t>();
  const int64_t rssSwap = in.ConsumeIntegral<int64_t>();
  device.writeModel(memClass(stats.totalKB), in.ConsumeRemainingBytesAsString());
  kxfuzz::offerNoVictims(stats);

  VorakFeature feature(vorakdev::Device::defaultInfo());
  auto* action = dynamic_cast<VorakAction*>(feature.getAction());
  if (feature.isDisabled() || action == nullptr) return 0;
  learn(*action, ionKgsl, rssSwap);
  const float amount = action->decideKill(kApp);
  if (!std::isfinite(amount) || amount < 0) {
    std::fprintf(stderr, "fuzz: decideKill gave %f KB to free\n", amount);
    std::abort();
  }
  action->applyAction(hint(4162, 0));
  action->applyAction(hint(4225, 2));
  forget(*action);
  return 0;
}
