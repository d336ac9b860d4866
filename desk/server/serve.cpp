// mirado desk: the command line and the printed output.

#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "base/command_line.h"
#include "base/exit_status.h"
#include "base/paths.h"
#include "base/temporary_folder.h"
#include "dlog_control.h"
#include "server/desk.h"
#include "server/serve.h"

namespace desk {
namespace {

int Fail(const std::string& error) {
  PrintError("mirado desk: " + error);
  return kCannotWork;
}

int Serve(const DeskOptions& options) {
  Desk desk(options);
  // A store that is damaged can be put right from the desk's page.
  constexpr int kNothing = 8;
  constexpr int kUsual = 4;
  dlog::SetThreshold(kNothing);  // the store would log what its status says
  const vconf::Status store = desk.OpenStore();
  dlog::SetThreshold(kUsual);
  if (!store.ok() && store.code() != vconf::Code::kDamaged && store.code() != vconf::Code::kRemoved) {
    return Fail(store.text());
  }
  if (const vconf::Status started = desk.Start(); !started.ok()) {
    return Fail(started.text());
  }
  std::string_view name = "Mirado desk: ";
  for (const std::string& link : desk.Links()) {
    std::cout << std::exchange(name, ", and ") << link;
  }
  std::cout << "\nThe set is kept in " << options.host.store << "; Ctrl-C ends the desk.\n";
  if (!std::cout.flush()) {
    return Fail(OutputError(0).text());  // nobody would know where the desk is
  }
  if (!store.ok()) {
    PrintError("mirado desk: " + store.text());
  }
  return desk.Run();
}

int ServeDesk(DeskOptions options) {
  try {
    std::optional<TemporaryFolder> folder;
    if (options.temporary) {
      if (!folder.emplace("mirado-set").status().ok()) {
        return Fail(folder->status().text());
      }
      options.host.store = folder->path() / "store";
    }
    const int status = Serve(options);
    vconf::CloseStore();
    return status;
  } catch (const std::exception& error) {
    return Fail(std::string(error.what()) + "; are the limits of this process too low (ulimit -a)?");
  }
}

}  // namespace

void AddDeskCommand(CLI::App& app, std::function<int()>& run) {
  auto options = std::make_shared<DeskOptions>();
  options->host.program = MiradoProgram();
  auto* command =
      app.add_subcommand("desk", "Connect pages in a desktop browser to the plug-in, and show the simulated set");
  command->footer(
      "Serves the script desk.js, which your pages load; a page that shows and changes the simulated set; and an HTTP\n"
      "interface. Exits on SIGINT, SIGTERM or SIGHUP; SIGHUP is ignored under nohup.\n"
      "Exit status: 0 success, 2 wrong command line, 3 the desk cannot start.");
  CLI::Option* store = AddStoreOption(*command, options->host.store);
  command->add_flag("--temporary", options->temporary, "Use a new store and remove it on exit")->excludes(store);
  AddPluginOption(*command, options->host.plugin);
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

}  // namespace desk
