#pragma once

#include <string>

/// Where things are when nobody says otherwise. The program and its libraries are found from where the program stands,
/// so that a build folder and an installation work alike.
namespace desk {

/// `MIRADO_STORE`, else `mirado/store` in the user's state directory; empty for a user who has none.
std::string DefaultStore();

/// `MIRADO_PLUGIN`, else `libmirado.so` beside the platform's libraries.
std::string DefaultPlugin();

/// The program `mirado`.
std::string MiradoProgram();

/// The program behind `mirado desk`.
std::string DeskProgram();

/// The files that the desk serves.
std::string WebFolder();

}  // namespace desk
