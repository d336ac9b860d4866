// mirado desk: the command line.

#include <memory>

#include "base/paths.h"
#include "cli/commands.h"
#include "server/serve.h"

namespace desk::cli {

void AddDeskCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<DeskOptions>();
  options->program = MiradoProgram();
  auto* command =
      app.add_subcommand("desk", "Connect pages in a desktop browser to the plug-in, and show the simulated set");
  command->footer(
      "Serves the script desk.js, which your pages load; a page that shows and changes the simulated set; and an HTTP\n"
      "interface. Exits on SIGINT, SIGTERM or SIGHUP; SIGHUP is ignored under nohup.\n"
      "Exit status: 0 success, 2 wrong command line, 3 the desk cannot start, or ended because of a failure.");
  CLI::Option* store = AddStoreOption(*command, options->store);
  command->add_flag("--temporary", options->temporary, "Use a new store and remove it on exit")->excludes(store);
  AddPluginOption(*command, options->plugin);
  command->add_option("--port", options->port, "The port; 0 chooses a free one")
      ->type_name("PORT")
      ->check(Between(0, 65'535))
      ->capture_default_str();
  command
      ->add_option("--listen", options->listen,
                   "Also listen on this address, for clients on the network; implies --token")
      ->type_name("ADDRESS");
  command->add_flag("--token", options->token,
                    "Require a token from every client. The printed link contains it, and the store's folder keeps\n"
                    "it. Use it on a machine with several users, and for pages from other origins");
  command->add_flag("--until-closed", options->until_closed, "Also exit when standard input is closed");
  command->callback([options, &run] { run = [options] { return ServeDesk(*options); }; });
}

}  // namespace desk::cli
