#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/exit_status.h"
#include "vconf_control.h"

/// The subcommands of `mirado`. Each `Add…` declares one to the parser; the one that is called leaves what it does in
/// `run`, which answers with an exit status.
namespace desk::cli {

using Run = std::function<int()>;

void AddHostCommand(CLI::App& app, Run& run);
void AddReplayCommand(CLI::App& app, Run& run);
void AddStoreCommands(CLI::App& app, Run& run);  ///< get, set, list, watch, reset
void AddSetUpCommand(CLI::App& app, Run& run);
void AddFaultCommand(CLI::App& app, Run& run);

/// Adds `--store` to `command`; the result receives it.
void AddStoreOption(CLI::App& command, std::string& store);
void AddPluginOption(CLI::App& command, std::string& plugin);

/// Opens `store`, which is filled with a new set when it does not exist, and does `work` on it. An error goes to
/// stderr.
int WithStore(const std::string& store, const std::function<vconf::Status()>& work);

/// Says on stderr that `path` is none of `known`: `what` is so, and which of them may be meant. Nothing is said of one
/// that is known.
void NoteUnknown(const std::string& path, const std::string& what, const std::vector<std::string>& known);

/// How a value is typed on the command line: an integer of 32 bits, `true`, `false`, or a text. A text that looks like
/// one of the others stands in double quotes of its own, as JSON has it.
vconf::Value ValueFromArgument(const std::string& argument);

/// The same way back; every text is quoted, so that a line stays a line.
std::string ToArgument(const vconf::Value& value);

}  // namespace desk::cli
