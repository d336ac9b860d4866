#pragma once

#include <functional>
#include <string>

#include "vconf_control.h"

/// The standard streams of a program.
namespace desk {

/// To be called first in `main`. Opens each closed standard stream so that reading or writing it still fails. Otherwise
/// the next file that is opened, such as the store's, would get its descriptor, and the program's output would be
/// written into that file. Ignores SIGPIPE, so that writing to a closed pipe is a failed write, and no longer ignores
/// SIGCHLD, so that the exit status of a child is known. Throws `std::system_error` if /dev/null cannot be opened.
void PrepareStandardStreams();

/// Runs `work`, which returns an exit status, and checks that its output was written; if not, returns `kCannotWork` and
/// prints a line on stderr.
int WithCheckedOutput(const std::function<int()>& work);

/// Prints `text` as one line on stderr; control characters are escaped.
void PrintError(const std::string& text);

/// The failure of a write to standard output; `error` is the errno, or 0 if it is not known.
vconf::Status OutputError(int error);

}  // namespace desk
