#pragma once

#include <string>

/// The paths of the store and of what is installed. The latter is found relative to the running executable, so a build
/// folder works like an installation.
namespace desk {

/// `MIRADO_STORE`, else `mirado/store` in the user's state directory; empty if the user has none.
std::string DefaultStore();

/// `MIRADO_PLUGIN`, else `libmirado.so` beside the platform's libraries.
std::string DefaultPlugin();

/// The path of the program `mirado`, also in another executable such as a test.
std::string MiradoProgram();

/// The folder of the files that the desk serves.
std::string WebFolder();

}  // namespace desk
