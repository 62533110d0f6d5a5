#include "Meter.h"

Meter::~Meter() {
  for (Field* f : mFields) delete f;
}

void Meter::sample(const AsyncTriggerPayload& trigger) { mTriggers.assign(1, trigger); }

void Meter::getTriggerPayloads(std::vector<AsyncTriggerPayload>& out) const {
  out.insert(out.end(), mTriggers.begin(), mTriggers.end());
}
