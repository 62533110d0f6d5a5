// Log convention of the system: tag "ANDR-PERF-KX" and the prefix
// "<module>: <function>() <line>: " before every message.
#pragma once

#include "AndroidLog.h"

#define KX_LOG_TAG "ANDR-PERF-KX"

#define KXLOG(prio, module, fmt, ...) \
  __android_log_print(prio, KX_LOG_TAG, "%s: %s() %d: " fmt, module, __func__, __LINE__, ##__VA_ARGS__)
#define KXLOGE(module, fmt, ...) KXLOG(ANDROID_LOG_ERROR, module, fmt, ##__VA_ARGS__)
#define KXLOGW(module, fmt, ...) KXLOG(ANDROID_LOG_WARN, module, fmt, ##__VA_ARGS__)
