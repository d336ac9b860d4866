#pragma once

namespace desk {

/// The program `mirado-desk`: parses its command line, serves until it is asked to exit, and returns the exit status.
int ServeDesk(int argc, char** argv);

}  // namespace desk
