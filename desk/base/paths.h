#pragma once

#include <string>

/// Default paths. The program and its libraries are found relative to the executable, so a build folder works like an
/// installation.
namespace desk {

/// `MIRADO_STORE`, else `mirado/store` in the user's state directory; empty if the user has none.
std::string DefaultStore();

/// `MIRADO_PLUGIN`, else `libmirado.so` beside the platform's libraries.
std::string DefaultPlugin();

/// The program `mirado`.
std::string MiradoProgram();

/// The files that the desk serves.
std::string WebFolder();

}  // namespace desk
