#pragma once

/// The platform's logger.

extern "C" {

/// Writes one log line.
///
/// `log_id`    the log buffer: 0 main, 2 system.
/// `priority`  2 verbose, 3 debug, 4 info, 5 warning, 6 error, 7 fatal; a line below the threshold is not formatted.
/// `tag`       the writer's name, not null.
/// `format`    as `printf` takes it, with its arguments behind it.
///
/// Any thread may call it; lines of several threads do not mix. Returns 0 or more, or a negative number when the line
/// could not be written, which loses the line and nothing else. Where stderr is a pipe that nobody reads any more, the
/// process gets SIGPIPE; who does not want to end by it ignores that signal.
int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
}
