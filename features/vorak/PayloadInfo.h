// One work item of the feature's database worker.
#pragma once

#include "AsyncTriggerPayload.h"

struct PayloadInfo {
  AsyncTriggerPayload payload;  // a full copy of the trigger
  bool isStop = false;          // true only for the item that ends the worker

  static PayloadInfo fromTrigger(const AsyncTriggerPayload& trigger) { return PayloadInfo{trigger, false}; }

  // The destructor's stop item: hint 0, type -1, no name, zero data.
  static PayloadInfo stopItem() {
    PayloadInfo item;
    item.payload.hintType = -1;
    item.isStop = true;
    return item;
  }
};
