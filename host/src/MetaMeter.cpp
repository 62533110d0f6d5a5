#include "MetaMeter.h"

#include <exception>
#include <memory>

#include "AndroidLog.h"
#include "MemoryMeter.h"
#include "kxhost/MeteringThread.h"

MetaMeter::MetaMeter(const FeatureInfo& info, FeatureState& state) : mFeatureInfo(&info), mFeatureState(&state) {}

// Subclasses should have stopped metering already; this only keeps the
// queue from holding a pointer to a freed aggregator.
MetaMeter::~MetaMeter() { stopMetering(); }

int MetaMeter::readFromDataBase(std::string& key) { return 0; }

// The feature decides which triggers are metered; every configured "Memory"
// meter is sampled now, on the caller's thread, and recorded later.
void MetaMeter::handleAsync(const AsyncTriggerPayload& payload) {
  for (const MeterInfo& info : mFeatureInfo->meterInfo) {
    if (info.name != kxhost::MemoryMeter::kName) continue;
    auto meter = std::make_shared<kxhost::MemoryMeter>();
    meter->sample(payload);
    kxhost::MeteringThread::instance().post(this, [this, meter] { record(meter.get()); });
  }
}

void MetaMeter::record(Meter* meter) {
  // The metering thread serves every aggregator: one failure must not end it.
  try {
    writeToDataBase({meter});
  } catch (const std::exception& e) {
    __android_log_print(ANDROID_LOG_ERROR, "kxhost", "MetaMeter: %s() %d: writeToDataBase threw: %s", __func__,
                        __LINE__, e.what());
  } catch (...) {
    __android_log_print(ANDROID_LOG_ERROR, "kxhost", "MetaMeter: %s() %d: writeToDataBase threw", __func__,
                        __LINE__);
  }
}

void MetaMeter::stopMetering() { kxhost::MeteringThread::instance().cancel(this); }
