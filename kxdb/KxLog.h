// Log convention of the system: tag "ANDR-PERF-KX" and the prefix
// "<module>: <function>() <line>: " before every message.
#pragma once

#include "AndroidLog.h"

#define KX_LOG_TAG "ANDR-PERF-KX"

#define KXLOG(prio, module, fmt, ...) \
  __android_log_print(prio, KX_LOG_TAG, "%s: %s() %d: " fmt, module, __func__, __LINE__, ##__VA_ARGS__)
// The same prefix with a name and line given at run time: helpers of the
// table store log under the public operation that called them.
#define KXLOG_AT(prio, module, func, line, fmt, ...) \
  __android_log_print(prio, KX_LOG_TAG, "%s: %s() %d: " fmt, module, func, line, ##__VA_ARGS__)
#define KXLOGE(module, fmt, ...) KXLOG(ANDROID_LOG_ERROR, module, fmt, ##__VA_ARGS__)
#define KXLOGE_AS(func, module, fmt, ...) KXLOG_AT(ANDROID_LOG_ERROR, module, func, __LINE__, fmt, ##__VA_ARGS__)
#define KXLOGW(module, fmt, ...) KXLOG(ANDROID_LOG_WARN, module, fmt, ##__VA_ARGS__)
