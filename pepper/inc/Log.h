#pragma once

#include <dlog.h>

// Every line of the plug-in begins with the file, the operation and the source line that wrote it. Macros, because only
// the place of the call knows them. `format` is a literal, its arguments follow. Whoever reads the set's log looks for
// the exact texts: misspelt words and double blanks in them are intended.

inline constexpr int kMainLog = 0;
inline constexpr int kSystemLog = 2;
inline constexpr int kInfo = 4;
inline constexpr int kError = 6;

/// Logs for `operation`, with a log id and a priority of its own.
#define MIRADO_LOG_AS(log_id, priority, operation, format, ...)                                \
  __dlog_print(log_id, priority, "QRL_BASE", "%s: %s(%d) > " format, __FILE_NAME__, operation, \
               __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// Logs for `operation` in the usual way, which is that of most failures too.
#define MIRADO_LOG_FOR(operation, format, ...) \
  MIRADO_LOG_AS(kMainLog, kInfo, operation, format __VA_OPT__(, ) __VA_ARGS__)

/// The same for the function that it stands in.
#define MIRADO_LOG(format, ...) MIRADO_LOG_FOR(__func__, format __VA_OPT__(, ) __VA_ARGS__)
