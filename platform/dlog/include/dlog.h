#pragma once

/// The platform's logger.

extern "C" {

/// Writes one log line.
///
/// `log_id`    the log buffer: 0 main, 2 system.
/// `priority`  2 verbose, 3 debug, 4 info, 5 warning, 6 error, 7 fatal; a line below the threshold is not formatted.
/// `tag`       the writer's name, not null.
/// `format`    as for `printf`, followed by its arguments.
///
/// Any thread may call it; lines of several threads do not mix. Returns 0 or more, or a negative number if the line
/// could not be written and is lost. If stderr is a pipe without a reader, the process gets SIGPIPE, which ends it
/// unless it ignores that signal.
int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
}
