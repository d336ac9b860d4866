#include <unistd.h>

#include <atomic>
#include <csignal>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/exit_status.h"
#include "base/paths.h"
#include "server/guard.h"
#include "server/server.h"
#include "set/simulated_set.h"
#include "vconf_control.h"

namespace {

int Complain(const std::string& error) {
  std::cerr << "mirado desk: " << error << "\n";
  return desk::kCannotWork;
}

// What is wrong with the name of an origin; one that no browser uses would never let anybody in.
std::string OriginCheck(const std::string& name) {
  if (desk::IsOriginName(name)) {
    return "";
  }
  return name +
         " is no origin as a browser names it, such as http://tv.example:3000: a scheme, a host in small letters, the "
         "port unless it is the scheme's own, and nothing behind, not even a slash";
}

// Asks the plug-in for its version and prints the answer. False when its process has ended on its own instead.
bool AskVersion(desk::Page& page, const std::string& plugin, const std::atomic<bool>& ending) {
  const desk::Page::Result result =
      page.Submit({{.waits = true, .body = {{"command", "getVersion"}}, .number = std::nullopt}});
  const desk::Json reply = result.reply.value_or(nullptr);
  if (reply.is_object() && reply.contains("value") && reply["value"].is_string()) {
    std::cout << "The plug-in answers: version " << reply["value"].get<std::string>() << ", " << plugin << std::endl;
  } else if (!ending) {
    const std::vector<std::string> log = page.log().Kept();
    std::cerr << "mirado desk: the plug-in " << plugin << " does not answer"
              << (log.empty() ? "" : "\n  " + desk::ParsedJson::parse(log.back())["text"].get<std::string>())
              << std::endl;
  }
  return ending || result.outcome != desk::Page::Outcome::kGone;
}

}  // namespace

int main(int argc, char** argv) {
  desk::DeskOptions options{
      .port = 8480,
      .host = {.program = desk::MiradoProgram(), .plugin = desk::DefaultPlugin(), .store = desk::DefaultStore()},
      .allowed_origins = {}};
  CLI::App app(
      "A simulated set for pages in a desktop browser: serves desk.js, the desk's own page and its HTTP\n"
      "interface on this machine until Ctrl-C. Exit status: 0 ended, 2 usage, 3 cannot start.",
      "mirado desk");
  app.add_option("--port", options.port, "The port on 127.0.0.1; 0 takes any that is free")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--store", options.host.store, "The folder of the set's store")->capture_default_str();
  app.add_option("--plugin", options.host.plugin, "The plug-in")->capture_default_str();
  app.add_option("--allow-origin", options.allowed_origins,
                 "Lets in the pages of an origin that is not loopback, such as http://tv.example:3000; may be repeated")
      ->check(OriginCheck);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? desk::kDone : desk::kUsage;
  }

  // Blocked before any thread starts, so that all of them leave the signals to the wait below.
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&signals, signal);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  if (const vconf::Status opened = desk::OpenSet(options.host.store); !opened.ok()) {
    return Complain(opened.text());
  }
  std::atomic<bool> without_plugin = false;
  {
    desk::DeskServer server(options);
    if (const vconf::Status started = server.Start(); !started.ok()) {
      return Complain(started.text());
    }
    std::cout << "Mirado desk: http://localhost:" << server.port() << "/\n"
              << "The set is kept in " << options.host.store << "; Ctrl-C ends the desk." << std::endl;

    // On no store, so that the set's faults and latencies stay with those whom they are meant for.
    options.host.store = "/dev/null";
    desk::EventLog unheard({.events = 100, .bytes = 1024UL * 1024});
    desk::Page page(0, {}, options.host, unheard);
    std::atomic<bool> ending = false;
    std::thread asking([&] {
      if (!AskVersion(page, options.host.plugin, ending)) {
        without_plugin = true;
        kill(getpid(), SIGTERM);
      }
      page.End();
    });
    int signal = 0;
    sigwait(&signals, &signal);
    ending = true;
    page.End();
    asking.join();
  }
  vconf::CloseStore();
  return without_plugin ? desk::kCannotWork : desk::kDone;
}
