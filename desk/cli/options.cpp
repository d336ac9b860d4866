#include "cli/options.h"

#include <algorithm>
#include <charconv>

#include "base/exit_status.h"
#include "base/paths.h"
#include "base/standard_streams.h"
#include "base/suggestion.h"
#include "base/terminal.h"

namespace desk::cli {
namespace {

/// The innermost command that was parsed.
const CLI::App& Called(const CLI::App& app) {
  const auto below = app.get_subcommands();
  return below.empty() ? app : Called(*below.front());
}

}  // namespace

int PrintParseError(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) {
    app.exit(error);
    return kDone;
  }
  const CLI::App& called = Called(app);
  if (const auto unexpected = app.remaining(true); unexpected.empty()) {
    PrintError(error.what());
  } else {
    const std::string& word = unexpected.front();
    const auto commands = called.get_subcommands([](const CLI::App*) { return true; });
    std::vector<std::string> known;
    for (const CLI::Option* const option : AcceptedOptions(called)) {
      known.push_back(option->get_name());
    }
    for (const CLI::App* const command : commands) {
      known.push_back(command->get_name());
    }
    const std::string problem = word.starts_with('-') ? " is not an option"
                                : commands.empty()    ? " is one argument too many"
                                                      : " is not a command";
    PrintError(FullName(called) + ": " + Quoted(word) + problem + Suggestion(word, known));
  }
  PrintError("`" + FullName(called) + " --help` lists the arguments.");
  return kUsage;
}

std::string FullName(const CLI::App& command) {
  return (command.get_parent() == nullptr ? "" : FullName(*command.get_parent()) + " ") + command.get_name();
}

std::vector<const CLI::Option*> AcceptedOptions(const CLI::App& command) {
  auto options = command.get_options();
  if (command.get_parent() != nullptr && command.get_parent()->get_fallthrough()) {
    const auto above = AcceptedOptions(*command.get_parent());
    options.insert(options.end(), above.begin(), above.end());
  }
  return options;
}

CLI::Validator Between(int least, int most) {
  // The parser's own range check accepts texts that are not numbers, and prints limits with six decimals.
  return {[least, most](const std::string& text) {
            double number = 0;
            const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
            const bool whole = read.ec == std::errc() && read.ptr == text.data() + text.size();
            return whole && number >= least && number <= most
                       ? std::string()
                       : Quoted(text) + " is not a number from " + std::to_string(least) + " to " +
                             std::to_string(most);
          },
          ""};
}

CLI::Validator OneOf(const std::vector<std::string>& words) {
  return {[words](const std::string& text) {
            return std::ranges::find(words, text) != words.end()
                       ? std::string()
                       : Quoted(text) + " is none of " + CLI::detail::join(words, ", ") + Suggestion(text, words);
          },
          ""};
}

CLI::Option* AddStoreOption(CLI::App& command, std::string& folder) {
  folder = DefaultStore();
  return command.add_option("--store", folder, "The store's folder")->type_name("FOLDER")->capture_default_str();
}

void AddPluginOption(CLI::App& command, std::string& plugin) {
  plugin = DefaultPlugin();
  command.add_option("--plugin", plugin, "The plug-in's shared library")->type_name("FILE")->capture_default_str();
}

void AddLogLevelOption(CLI::App& command, int& level) {
  command
      .add_option("--log-level", level,
                  "Print log lines of this priority and above: 2 verbose, 3 debug, 4 info, 5 warning, 6 error, 7 "
                  "fatal; 8 prints none")
      ->type_name("LEVEL")
      ->check(Between(2, 8))
      ->capture_default_str();
}

}  // namespace desk::cli
