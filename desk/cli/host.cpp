#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "base/lines.h"
#include "cli/commands.h"
#include "dlog_control.h"
#include "host/recording.h"
#include "host/session.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct HostOptions {
  std::string plugin;
  std::string store;
  std::string record;
  int log_level = 4;
};

/// A file that holds something already; what is no regular file, such as a pipe, holds nothing that could be lost.
bool WouldBeLost(const std::string& file) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(file, ignored) && !std::filesystem::is_empty(file, ignored);
}

int Host(const HostOptions& options) {
  if (WouldBeLost(options.record)) {
    std::cerr << options.record << ": holds something already; remove it, or record to another file\n";
    return kCannotWork;
  }
  ShutdownSignal end;
  dlog::SetThreshold(options.log_level);
  if (const auto opened = OpenSet(options.store); !opened.ok()) {
    std::cerr << "mirado: there is no store, so every reply that needs it will say so: " << opened.text() << '\n';
  }
  LineWriter writer(STDOUT_FILENO, [&end] { end.Raise(); });
  std::unique_ptr<Recorder> recorder;
  if (!options.record.empty()) {
    recorder =
        std::make_unique<Recorder>(options.record, [&writer](std::string text) { writer.Write(std::move(text)); });
    if (recorder->Failed()) {
      std::cerr << options.record << ": cannot be written\n";
      return kCannotWork;
    }
  }
  const auto say = [&](const Json& line) {
    if (recorder != nullptr) {
      recorder->Out(line);
    } else {
      writer.Write(ToText(line));
    }
  };
  auto started = Session::Start(options.plugin, say);
  if (!started.ok()) {
    std::cerr << started.status().text() << '\n';
    return kCannotWork;
  }
  std::unique_ptr<Session> session = *std::move(started);
  const auto handle = [&](std::string_view line, const Request& request) {
    end.WaitFor(-1, Latency(request));  // not in the recorder's time: what others change meanwhile is theirs
    return recorder != nullptr ? recorder->Handle(*session, line, request) : session->Handle(request);
  };
  bool all_good = ReadRequests(STDIN_FILENO, end, handle, [&](const Json& error) { writer.Write(ToText(error)); });
  session.reset();
  vconf::CloseStore();
  if (recorder != nullptr && recorder->Failed()) {
    std::cerr << options.record << ": is incomplete, it could not be written to the end\n";
    all_good = false;
  }
  return all_good ? kDone : kRefused;
}

}  // namespace

void AddHostCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<HostOptions>();
  auto* command = app.add_subcommand("host", "Run a page's session with the plug-in, in JSON lines");
  command->footer(R"(In, one line each:
  {"send": MESSAGE}       the page waits:          {"reply": REPLY}
  {"post": MESSAGE}       the page does not wait:  {"message": DELIVERY}, sooner or later
  {"set": {PATH: VALUE}}  somebody changes the store
  {"settle": true}        all that was asked has been handled, all changes told:  {"settled": true}
A line that is none of these is answered {"error": …} and changes nothing. Log lines go to stderr.
The session ends with its input, or on SIGINT or SIGTERM. Exit status: 0, 1 when there were bad lines,
2 for a wrong command line, 3 when the plug-in cannot be loaded or FILE holds something already.)");
  AddPluginOption(*command, options->plugin);
  AddStoreOption(*command, options->store);
  command->add_option("--log-level", options->log_level, "Drop log lines below 2 verbose … 4 info, 6 error, 7 fatal")
      ->capture_default_str();
  command->add_option("--record", options->record, "Write what goes in and comes out, for `mirado replay`")
      ->type_name("FILE");
  command->callback([options, &run] { run = [options] { return Host(*options); }; });
}

}  // namespace desk::cli
