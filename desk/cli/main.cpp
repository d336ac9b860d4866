#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>

#include "base/paths.h"
#include "cli/commands.h"

namespace {

/// The desk is a program of its own, so that the host of a page does not carry its libraries.
int BecomeDesk(char** arguments) {
  const std::string program = desk::DeskProgram();
  execv(program.c_str(), arguments);
  std::cerr << program << ": cannot be started: " << std::strerror(errno) << '\n';
  return desk::kCannotWork;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace desk::cli;
  // What follows `desk` is for the other program to read, `--help` included.
  if (argc > 1 && argv[1] == std::string_view("desk")) {
    return BecomeDesk(argv + 1);
  }
  CLI::App app("The television plug-in on a desk: run it, steer the simulated set, record and replay sessions",
               "mirado");
  app.footer(
      "Exit status: 0 done, 1 the answer is no, 2 wrong command line, 3 something needed cannot be opened.\n"
      "`mirado COMMAND --help` says more. MIRADO_STORE and MIRADO_PLUGIN stand in for --store and --plugin.");
  app.set_version_flag("--version", MIRADO_VERSION);
  app.require_subcommand(1);
  Run run;
  AddHostCommand(app, run);
  app.add_subcommand("desk", "Serve pages in a desktop browser");
  AddStoreCommands(app, run);
  AddSetUpCommand(app, run);
  AddFaultCommand(app, run);
  AddReplayCommand(app, run);
  const auto is_meant = [&](const CLI::App* command) { return command->check_name(argv[1]); };
  if (argc > 1 && argv[1][0] != '-' && app.get_subcommands(is_meant).empty()) {
    std::cerr << "mirado: there is no command " << argv[1] << "; `mirado --help` names them\n";
    return desk::kUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? desk::kDone : desk::kUsage;
  }
  return run();
}
