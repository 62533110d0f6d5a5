// Log lines of the feature's own classes. A line written by a helper that a
// class splits out of a larger operation carries the operation's name, so
// the log reads as one operation: the host's log readers grep for it.
#pragma once

#include "kxdb/KxLog.h"

#define VORAK_LOG_IN(prio, module, func, fmt, ...) \
  __android_log_print(prio, KX_LOG_TAG, "%s: %s() %d: " fmt, module, func, __LINE__, ##__VA_ARGS__)
#define VORAK_LOGE_IN(module, func, fmt, ...) VORAK_LOG_IN(ANDROID_LOG_ERROR, module, func, fmt, ##__VA_ARGS__)
#define VORAK_LOGW_IN(module, func, fmt, ...) VORAK_LOG_IN(ANDROID_LOG_WARN, module, func, fmt, ##__VA_ARGS__)
