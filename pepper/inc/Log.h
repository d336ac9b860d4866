#pragma once

#include <dlog.h>

// Every line of the plug-in begins with the file, the operation and the source line that wrote it. A macro, since only
// the place of the call knows them. `format` is a literal; its arguments follow.

/// Logs on behalf of `operation`, with a log id and a priority of its own.
#define MIRADO_LOG_AS(log_id, priority, operation, format, ...)                                \
  __dlog_print(log_id, priority, "QRL_BASE", "%s: %s(%d) > " format, __FILE_NAME__, operation, \
               __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// Logs on behalf of the function that it stands in. Log id 0 and priority 4 are the rule, for failures too.
#define MIRADO_LOG(format, ...) MIRADO_LOG_AS(0, 4, __func__, format __VA_OPT__(, ) __VA_ARGS__)
