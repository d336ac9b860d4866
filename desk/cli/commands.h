#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/exit_status.h"
#include "base/json.h"
#include "base/standard_streams.h"
#include "cli/options.h"
#include "vconf_control.h"

/// The commands of `mirado`. Each `Add…Command` adds its commands to the parser. The command that the user gives sets
/// `run`, which returns the exit status.
namespace desk::cli {

using Run = std::function<int()>;

void AddHostCommand(CLI::App& app, Run& run);
void AddReplayCommand(CLI::App& app, Run& run);
void AddVerifyCommand(CLI::App& app, Run& run);
void AddStoreCommands(CLI::App& app, Run& run);  ///< get, set, list, watch, reset
void AddSetUpCommand(CLI::App& app, Run& run);
void AddFaultCommand(CLI::App& app, Run& run);
void AddDeskCommand(CLI::App& app, Run& run);

void AddCompletionCommand(CLI::App& app, Run& run);

/// Completions for the last of `words`, one per line, from the options and commands of `app`.
void PrintCompletions(const CLI::App& app, const std::vector<std::string>& words);

/// The manual page of `app` in the form of man(7).
void PrintManual(const CLI::App& app);

/// A command's option `--store`.
struct StoreOption {
  std::string folder;
  const CLI::Option* option = nullptr;

  /// Whether the user gave the folder with --store or MIRADO_STORE.
  bool IsNamed() const;
};

/// Adds `--store` to `command`. `store` receives its value, and must exist until the command line has been parsed.
void AddStoreOption(CLI::App& command, StoreOption& store);

/// Adds `--json` to `command`.
void AddJsonOption(CLI::App& command, bool& json);

/// What a command does if the store does not exist.
enum class IfMissing {
  kCreate,  ///< creates it with a new set
  kFail,    ///< creates only the default store; fails for a folder that the user gave
};

/// Opens the store and runs `work` on it. Failures are printed to stderr. Returns the exit status.
int WithStore(const StoreOption& store, IfMissing if_missing, const std::function<vconf::Status()>& work);

/// Prints one line of JSON that is safe on a terminal.
void PrintJson(const Json& json);

/// A key as it is typed: a path; a setting's constant, with or without its prefix MENU_KEY_ or MIRADO_KEY_; or the
/// number of a MENU_KEY_ setting.
vconf::Result<std::string> PathFromArgument(const std::string& argument);

/// If `path` is not in `known`, prints a warning on stderr: the path, `what`, and the most similar known path.
void WarnIfUnknown(const std::string& path, const std::string& what, const std::vector<std::string>& known);

}  // namespace desk::cli
