#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "vconf_control.h"

/// Shared by all command lines: the standard streams, the parser's errors, and common options.
namespace desk {

/// To be called first in `main`. Opens each closed standard stream so that reading or writing it still fails. Otherwise
/// the next file that is opened, such as the store's, would get its descriptor, and the program's output would be
/// written into that file. Ignores SIGPIPE, so that writing to a closed pipe is a failed write.
void PrepareStandardStreams();

/// Runs `work`, which returns an exit status, and checks that its output was written; if not, returns `kCannotWork` and
/// prints a line on stderr.
int WithCheckedOutput(const std::function<int()>& work);

/// Prints `text` as one line on stderr; control characters are escaped.
void PrintError(const std::string& text);

/// The failure of a write to standard output; `error` is the errno, or 0 if it is not known.
vconf::Status OutputError(int error);

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

}  // namespace desk
