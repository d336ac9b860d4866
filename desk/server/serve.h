#pragma once

namespace desk {

/// The program `mirado-desk`: takes its command line, serves until it is asked to end, and returns the exit status.
int ServeDesk(int argc, char** argv);

}  // namespace desk
