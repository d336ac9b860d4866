#include "base/paths.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace desk {
namespace {

std::string FromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::filesystem::path Program() {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/exe", ignored);
}

/// `relative` below the nearest parent folder of this program that contains `bin/mirado`: the root of the installation
/// or build.
std::string UnderPrefix(const char* relative) {
  std::filesystem::path prefix = Program().parent_path();
  std::error_code ignored;
  while (prefix.has_relative_path() && !std::filesystem::exists(prefix / MIRADO_BINDIR / "mirado", ignored)) {
    prefix = prefix.parent_path();
  }
  return prefix / relative;
}

}  // namespace

std::string DefaultStore() {
  if (std::string store = FromEnvironment("MIRADO_STORE"); !store.empty()) {
    return store;
  }
  std::filesystem::path state = FromEnvironment("XDG_STATE_HOME");
  if (!state.is_absolute()) {
    state = std::filesystem::path(FromEnvironment("HOME")) / ".local/state";
  }
  return state.is_absolute() ? state / "mirado/store" : "";
}

std::string DefaultPlugin() {
  if (std::string plugin = FromEnvironment("MIRADO_PLUGIN"); !plugin.empty()) {
    return plugin;
  }
  return UnderPrefix(MIRADO_LIBDIR "/libmirado.so");
}

std::string MiradoProgram() { return UnderPrefix(MIRADO_BINDIR "/mirado"); }

std::string WebFolder() { return UnderPrefix(MIRADO_DATADIR "/web"); }

}  // namespace desk
