#pragma once

#include "server/options.h"

namespace desk {

/// Serves until it is asked to exit, prints where, and returns the exit status.
int ServeDesk(DeskOptions options);

}  // namespace desk
