#pragma once

#include <dlog.h>

// The plug-in's log lines. Each begins with the file, the operation and the source line; these are macros, because they
// need the file and the line of the call. `format` is a literal as for printf, followed by its arguments. Readers of
// the set's log search for the exact texts, so their misspelt words and double blanks are kept.

inline constexpr int kMainLog = 0;
inline constexpr int kSystemLog = 2;
inline constexpr int kInfo = 4;
inline constexpr int kError = 6;

/// Logs for `operation`, with the given log id and priority.
#define MIRADO_LOG_AS(log_id, priority, operation, format, ...)                                \
  __dlog_print(log_id, priority, "QRL_BASE", "%s: %s(%d) > " format, __FILE_NAME__, operation, \
               __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// Logs for `operation` with the usual log id and priority, which most failures have, too.
#define MIRADO_LOG_FOR(operation, format, ...) \
  MIRADO_LOG_AS(kMainLog, kInfo, operation, format __VA_OPT__(, ) __VA_ARGS__)

/// The same, with the name of the calling function as operation.
#define MIRADO_LOG(format, ...) MIRADO_LOG_FOR(__func__, format __VA_OPT__(, ) __VA_ARGS__)
