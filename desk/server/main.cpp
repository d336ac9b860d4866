// mirado desk: the command line, and what is printed.

#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "base/exit_status.h"
#include "base/paths.h"
#include "dlog_control.h"
#include "server/desk.h"

namespace {

int Complain(const std::string& error) {
  std::cerr << "mirado desk: " << error << "\n";
  return desk::kCannotWork;
}

int OutputFailed() {
  return Complain("the output is not complete, it cannot be written: the disk is full, or nobody reads it");
}

int Serve(const desk::DeskOptions& options) {
  desk::Desk desk(options);
  // A store that is damaged can be put right from the desk's page.
  constexpr int kNothing = 8;
  constexpr int kUsual = 4;
  dlog::SetThreshold(kNothing);  // the store logs what its status says again
  const vconf::Status store = desk.OpenStore();
  dlog::SetThreshold(kUsual);
  if (!store.ok() && store.code() != vconf::Code::kDamaged && store.code() != vconf::Code::kRemoved) {
    return Complain(store.text());
  }
  if (const std::string error = desk.Start(); !error.empty()) {
    return Complain(error);
  }
  std::string_view name = "Mirado desk: ";
  for (const std::string& link : desk.Links()) {
    std::cout << std::exchange(name, ", and ") << link;
  }
  std::cout << "\nThe set is kept in " << options.host.store << "; Ctrl-C ends the desk.\n";
  if (!std::cout.flush()) {
    return OutputFailed();  // nobody would know where the desk is
  }
  if (!store.ok()) {
    std::cerr << "mirado desk: " << store.text() << std::endl;
  }
  return desk.Run();
}

}  // namespace

int main(int argc, char** argv) {
  desk::DeskOptions options;
  options.host = {.program = desk::MiradoProgram(), .plugin = desk::DefaultPlugin(), .store = desk::DefaultStore()};
  CLI::App app(
      "A simulated set for pages in a desktop browser: serves desk.js, the desk's own page and its HTTP\n"
      "interface on this machine until Ctrl-C. Exit status: 0 ended, 2 usage, 3 cannot start.",
      "mirado desk");
  app.add_option("--port", options.port, "The port on localhost; 0 takes any that is free")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--store", options.host.store, "The folder of the set's store")->capture_default_str();
  app.add_option("--plugin", options.host.plugin, "The plug-in")->capture_default_str();
  app.add_flag("--token", options.token,
               "Let in only who knows the token, which is kept in the store's folder and part of the printed link;\n"
               "for machines with several users, and for pages of foreign origins");
  app.add_flag("--until-closed", options.until_closed, "End when the standard input is closed, as well");
  app.add_option("--listen", options.listen,
                 "Listen on this address too, for a set or a phone on the network; needs the token")
      ->type_name("ADDRESS");
  std::signal(SIGPIPE, SIG_IGN);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool done = app.exit(error) == 0;
    return !std::cout.flush() ? OutputFailed() : done ? desk::kDone : desk::kUsage;
  }
  try {
    const int status = Serve(options);
    vconf::CloseStore();
    return status;
  } catch (const std::exception& error) {
    return Complain(std::string(error.what()) + "; are the limits of this process too low (ulimit -a)?");
  }
}
