#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "vconf_control.h"

/// What all command lines have in common: the standard streams, the parser's errors, and options that several commands
/// take.
namespace desk {

/// What a program begins with. A standard stream that is closed is opened so that reading it and writing to it still
/// fail: else the next file, such as the store's, would get its number and what is printed. SIGPIPE is ignored, so that
/// a reader that is gone is a failed write.
void PrepareStandardStreams();

/// Does `work`, which returns an exit status, and sees that its output was written: `kCannotWork` and a line on stderr
/// when it was not.
int WithOutput(const std::function<int()>& work);

/// One line on stderr, whatever characters are in `text`.
void Complain(const std::string& text);

/// The failure of a program that cannot write to its standard output; `error` is the errno, or 0 when it is not known.
vconf::Status OutputFailed(int error);

/// Why `app` did not parse the command line: prints the help or the version that was asked for, or says what is wrong.
/// Returns the exit status.
int Explain(const CLI::App& app, const CLI::ParseError& error);

/// `command` as it is typed, such as "mirado set-up b2b".
std::string WordsOf(const CLI::App& command);

/// The options that `command` takes, those of the commands above it too where it falls through to them.
std::vector<const CLI::Option*> OptionsOf(const CLI::App& command);

/// What an option takes that is a number from `least` to `most`.
CLI::Validator Between(int least, int most);

/// Adds `--store` to `command`, with the default of this user.
CLI::Option* AddStoreOption(CLI::App& command, std::string& folder);

/// Adds `--plugin` to `command`, with the default of this installation.
void AddPluginOption(CLI::App& command, std::string& plugin);

/// Adds `--log-level` to `command`; `level` holds the default.
void AddLogLevelOption(CLI::App& command, int& level);

}  // namespace desk
