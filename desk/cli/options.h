#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

/// Shared by all subcommands: the parser's errors, and common options.
namespace desk::cli {

/// Handles a parse error of `app`: prints the requested help or version, or the error. Returns the exit status.
int PrintParseError(const CLI::App& app, const CLI::ParseError& error);

/// The full name of `command`, such as "mirado set-up b2b".
std::string FullName(const CLI::App& command);

/// The options that `command` accepts, including those of its parent commands if it falls through to them.
std::vector<const CLI::Option*> AcceptedOptions(const CLI::App& command);

/// Accepts a number from `least` to `most` as an option's argument.
CLI::Validator Between(int least, int most);

/// Accepts one of `words` as an argument.
CLI::Validator OneOf(const std::vector<std::string>& words);

/// Adds `--store` to `command`, with the default of this user.
CLI::Option* AddStoreOption(CLI::App& command, std::string& folder);

/// Adds `--plugin` to `command`, with the default of this installation.
void AddPluginOption(CLI::App& command, std::string& plugin);

/// Adds `--log-level` to `command`; `level` holds the default.
void AddLogLevelOption(CLI::App& command, int& level);

}  // namespace desk::cli
