#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/command_line.h"
#include "base/exit_status.h"
#include "base/json.h"
#include "vconf_control.h"

/// The commands of `mirado`. Each `Add…` declares one to the parser; the one that is called leaves what it does in
/// `run`, which returns the exit status.
namespace desk::cli {

using Run = std::function<int()>;

void AddHostCommand(CLI::App& app, Run& run);
void AddReplayCommand(CLI::App& app, Run& run);
void AddVerifyCommand(CLI::App& app, Run& run);
void AddStoreCommands(CLI::App& app, Run& run);  ///< get, set, list, watch, reset
void AddSetUpCommand(CLI::App& app, Run& run);
void AddFaultCommand(CLI::App& app, Run& run);

void AddCompletionCommand(CLI::App& app, Run& run);

/// What a shell may put in place of the last of `words`, a line each: made from what `app` declares.
void PrintCompletions(const CLI::App& app, const std::vector<std::string>& words);

/// The manual page of `app` in the form of man(7).
void PrintManual(const CLI::App& app);

/// Which store a command works on.
struct StoreChoice {
  std::string folder;
  const CLI::Option* option = nullptr;

  /// Whether the user says which, with --store or MIRADO_STORE.
  bool Named() const;
};

/// Adds `--store` to `command`; the result receives it.
void AddStoreOption(CLI::App& command, StoreChoice& store);

/// Adds `--json` to `command`.
void AddJsonOption(CLI::App& command, bool& json);

/// What a command does to a store that is not there yet.
enum class Absent {
  kMake,    ///< makes it and fills it with a new set
  kReport,  ///< says that there is none, if the user named it
};

/// Opens the store and does `work` on it. Failures go to stderr.
int WithStore(const StoreChoice& store, Absent absent, const std::function<vconf::Status()>& work);

/// One line of JSON on stdout that is safe on a terminal.
void PrintJson(const Json& json);

/// A key as it is typed: a path, or a setting by its number in the menu's table or its constant, of which MENU_KEY_ and
/// MIRADO_KEY_ may be left out.
vconf::Result<std::string> PathFromArgument(const std::string& argument);

/// Says on stderr that `path` is none of `known`: `what` is so, and which of them may be meant. Nothing is said of one
/// that is known.
void NoteUnknown(const std::string& path, const std::string& what, const std::vector<std::string>& known);

}  // namespace desk::cli
