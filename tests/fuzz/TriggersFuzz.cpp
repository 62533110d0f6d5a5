// Sequences of what the host hands the feature, made up from the input:
// triggers (any id, type, name and pid), meter records, learning runs,
// launch hints and learning states, on one feature in a private device
// root. Afterwards every row the feature stored is keyed by a name it
// accepts. No process is offered, so none may be signalled. The tables and
// states are emptied between inputs, so that each input runs alone.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "DependentServices.h"
#include "FuzzSeams.h"
#include "Meter.h"
#include "VorakAppName.h"
#include "VorakMetaMeter.h"
#include "kxhost/MeteringThread.h"
#include "vorak/VorakDevice.h"

namespace {

using Peer = VorakFeatureTestPeer;

// One of the values the feature knows, mostly; else any value `other` makes.
template <typename T, size_t N, typename Other>
T pick(FuzzedDataProvider& in, const T (&known)[N], Other other) {
  const size_t i = in.ConsumeIntegralInRange<size_t>(0, N);
  return i < N ? known[i] : other();
}

std::string anyString(FuzzedDataProvider& in, size_t max) { return in.ConsumeRandomLengthString(max); }

std::string name(FuzzedDataProvider& in) {
  static const std::string kNames[] = {"com.a", "com.a.b", "com.b", "svc.a", " ", "", "a/b"};
  return pick(in, kNames, [&] { return anyString(in, 300); });
}

AsyncTriggerPayload payload(FuzzedDataProvider& in) {
  static const int kIds[] = {4162, 4163, 4225, 4242, 4243};
  static const int kTypes[] = {2, 101, 102};
  const int id = pick(in, kIds, [&] { return in.ConsumeIntegral<int>(); });
  const int type = pick(in, kTypes, [&] { return in.ConsumeIntegral<int>(); });
  const std::string app = name(in);
  return vorakdev::trigger(id, type, app, in.ConsumeIntegral<int>());
}

// A meter as the host's metering thread delivers it, fields and all.
void meter(FuzzedDataProvider& in, MetaMeter& aggregator) {
  static const std::string kMeters[] = {"Memory"};
  static const std::string kFields[] = {"ion_kgsl", "rss_swap"};
  Meter m(pick(in, kMeters, [&] { return anyString(in, 10); }));
  for (int f = in.ConsumeIntegralInRange(0, 3); f > 0; --f) {
    auto* field = new Field(pick(in, kFields, [&] { return anyString(in, 10); }));
    for (int v = in.ConsumeIntegralInRange(0, 2); v > 0; --v) field->addValue(in.ConsumeIntegral<int64_t>());
    m.addField(field);
  }
  for (int t = in.ConsumeIntegralInRange(0, 2); t > 0; --t) m.addTrigger(payload(in));
  kxhost::MeteringThread::instance().drain();
  aggregator.writeToDataBase({&m});
}

void step(FuzzedDataProvider& in, VorakFeature& feature, FeatureState& states) {
  static const std::atomic<bool> kNotCancelled{false};
  static const AppState kStates[] = {APP_STATE_COLLECTING, APP_STATE_LEARNING_DUE, APP_STATE_LEARNT,
                                     APP_STATE_RELEARN_DUE, APP_STATE_LEARN_FAILED};
  switch (in.ConsumeIntegralInRange(0, 4)) {
    case 0: feature.runAsync(payload(in)); break;
    case 1: meter(in, *feature.getMetaMeter()); break;
    case 2:
      kxhost::MeteringThread::instance().drain();
      feature.getAlgo()->runAlgo(kNotCancelled);
      break;
    case 3: feature.getAction()->applyAction(payload(in)); break;
    case 4: {
      const std::string app = name(in);
      states.writeState(app, pick(in, kStates, [] { return APP_STATE_COLLECTING; }));
      break;
    }
  }
}

template <typename T>
void checkAndClear(KxDatabase<T>* db, const char* table) {
  KxDBDataRowKey all;
  auto rows = db->readAllocateDR(all, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  for (const auto* row : rows) {
    if (vorak::isValidAppName(row->appName)) continue;
    std::fprintf(stderr, "fuzz: table %s holds a row of the refused name '%s'\n", table, row->appName.c_str());
    std::abort();
  }
  db->deallocateDR(rows);
  db->deleteAllDR(all);
}

// Checks what the input left behind, then clears it.
void settle(VorakFeature& feature, const vorakdev::Device& device) {
  kxhost::MeteringThread::instance().drain();
  Peer::drain(feature);
  checkAndClear(Peer::userDb(feature), "User");
  checkAndClear(Peer::startProcDb(feature), "StartProc");
  checkAndClear(Peer::favPidDb(feature), "FavoritePID");
  checkAndClear(Peer::meterDb(feature), "meter");
  checkAndClear(Peer::serviceInDb(feature), "service input");
  checkAndClear(Peer::serviceOutDb(feature), "service output");
  checkAndClear(dynamic_cast<VorakAction*>(feature.getAction())->getActionOutputDb(), "action");
  KxDBDataRowKey all;
  Peer::favTimeSlotDb(feature)->deleteAllDR(all);
  kxhost::clearFeatureStates();
  for (const char* suffix : {"", "-wal", "-shm"})
    std::filesystem::remove(device.dir().sub(std::string("data/vendor/kx/VorakAppState.db") + suffix));
}

// One device and feature for the process, removed at exit. The feature
// samples one "Memory" meter per trigger and learns from two samples; two
// apps depend on services, one of them running as this very process.
struct Fixture {
  vorakdev::Device device;
  std::unique_ptr<VorakFeature> feature;
  FeatureState states{"Vorak"};
  Fixture() {
    SysStats sys{};
    sys.totalKB = vorakdev::k4GB;
    kxfuzz::offerNoVictims(sys);
    kxhost::ServiceRegistry::instance().setAppServices("com.a", {"svc.a"});
    kxhost::ServiceRegistry::instance().setAppServices("com.b", {"svc.a", "svc.b"});
    kxhost::ServiceRegistry::instance().setServicePid("svc.a", getpid());
    FeatureInfo info = vorakdev::Device::defaultInfo();
    info.samplesThreshold = 2;
    info.meterInfo.push_back(MeterInfo{"Memory", {}, {"ion_kgsl", "rss_swap"}, {}, 1});
    feature = device.create(info);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture fixture;
  VorakFeature& feature = *fixture.feature;
  // No launch pending, and the one kill pass of a launch available.
  feature.runAsync(vorakdev::trigger(4225, 2, " "));
  feature.getAction()->applyAction(vorakdev::trigger(4162, 0, " "));
  FuzzedDataProvider in(data, size);
  for (int steps = 0; steps < 16 && in.remaining_bytes() > 0; ++steps) step(in, feature, fixture.states);
  settle(feature, fixture.device);
  return 0;
}
