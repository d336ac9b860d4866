#pragma once

#include "vconf_control.h"

namespace desk {

/// The exit statuses of all commands, which scripts rely on.
enum ExitStatus : int {
  kDone = 0,
  kRefused = 1,     ///< refused or not as expected: no such key, an invalid line, a replay that differs
  kUsage = 2,       ///< the command line is wrong
  kCannotWork = 3,  ///< the store, the plug-in, a file or the program's own output cannot be used
};

/// The status of a program whose work ended with `code`.
constexpr ExitStatus ExitStatusOf(vconf::Code code) {
  switch (code) {
    case vconf::Code::kOk:
      return kDone;
    case vconf::Code::kMissing:
    case vconf::Code::kWrongType:
    case vconf::Code::kBadName:
    case vconf::Code::kBadValue:
      return kRefused;
    default:
      return kCannotWork;
  }
}

}  // namespace desk
