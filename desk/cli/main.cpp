#include <algorithm>
#include <exception>
#include <string>

#include "base/terminal.h"
#include "cli/commands.h"

namespace desk::cli {
namespace {

/// The parser parses options of a subcommand even after "--". Removes the "--" and quotes the arguments after it that
/// look like options. A negative number never looks like one.
std::vector<std::string> WithoutMark(std::vector<std::string> arguments) {
  const auto mark = std::ranges::find(arguments, "--");
  if (mark == arguments.end()) {
    return arguments;
  }
  for (auto each = arguments.erase(mark); each != arguments.end(); ++each) {
    if (each->starts_with('-') && ValueFromArgument(*each).index() != vconf::Value(0).index()) {
      *each = Quoted(*each);
    }
  }
  return arguments;
}

int Main(const std::vector<std::string>& arguments) {
  CLI::App app("Run the television plug-in on a simulated set, change the set, record and replay sessions", "mirado");
  app.set_version_flag("--version", MIRADO_VERSION);
  app.require_subcommand(1);
  app.get_formatter()->label("TEXT", "");  // the type of most arguments, which says nothing
  Run run;
  AddHostCommand(app, run);
  AddDeskCommand(app, run);
  AddStoreCommands(app, run);
  AddSetUpCommand(app, run);
  AddFaultCommand(app, run);
  AddReplayCommand(app, run);
  AddVerifyCommand(app, run);
  AddCompletionCommand(app, run);
  // Set after the commands are added, because they would inherit it.
  app.footer(
      "Exit status: 0 success, 1 refused or not as expected, 2 wrong command line, 3 the store, the plug-in, a file "
      "or\n"
      "the output cannot be used. `mirado COMMAND --help` describes a command. The environment variables MIRADO_STORE\n"
      "and MIRADO_PLUGIN replace the defaults of --store and --plugin.");
  // Called by the shell's completion and by the build. The words to complete may be invalid, so they are not parsed.
  if (!arguments.empty() && (arguments[0] == "complete" || arguments == std::vector<std::string>{"manual"})) {
    arguments[0] == "manual" ? PrintManual(app) : PrintCompletions(app, {arguments.begin() + 1, arguments.end()});
    return kDone;
  }
  try {
    std::vector<std::string> words = WithoutMark(arguments);
    std::ranges::reverse(words);
    app.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    return PrintParseError(app, error);
  }
  return run();
}

}  // namespace
}  // namespace desk::cli

int main(int argc, char** argv) {
  try {
    desk::PrepareStandardStreams();
    return desk::WithCheckedOutput([&] { return desk::cli::Main({argv + 1, argv + argc}); });
  } catch (const std::exception& error) {
    desk::PrintError(std::string("mirado: ") + error.what());
    return desk::kCannotWork;
  }
}
