#include "base/desk_options.h"

#include "base/command_line.h"
#include "base/paths.h"

namespace desk {

void AddDeskOptions(CLI::App& command, DeskOptions& options) {
  options.host.program = MiradoProgram();
  command.footer(
      "It serves desk.js, its own page and its HTTP interface until SIGINT, SIGTERM or SIGHUP ends it; under nohup\n"
      "SIGHUP is ignored. Exit status: 0 ended, 2 wrong command line, 3 it cannot start.");
  CLI::Option* store = AddStoreOption(command, options.host.store);
  command.add_flag("--temporary", options.temporary, "Make a new store and remove it when the desk ends")
      ->excludes(store);
  AddPluginOption(command, options.host.plugin);
  command.add_option("--port", options.port, "The port on localhost; 0 takes any that is free")
      ->type_name("PORT")
      ->check(Between(0, 65'535))
      ->capture_default_str();
  command
      .add_option("--listen", options.listen,
                  "Listen on this address too, for a set or a phone on the network; needs the token")
      ->type_name("ADDRESS");
  command.add_flag("--token", options.token,
                   "Let in only who knows the token, which is kept in the store's folder and part of the printed\n"
                   "link; for machines with several users, and for pages of foreign origins");
  command.add_flag("--until-closed", options.until_closed, "End when the standard input is closed, as well");
}

}  // namespace desk
