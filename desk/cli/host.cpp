#include <unistd.h>

#include <filesystem>
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

constexpr int kNoLog = 8;

struct HostOptions {
  std::string plugin;
  StoreChoice store;
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
    Complain(options.record + ": holds something already; remove it, or record to another file");
    return kCannotWork;
  }
  ShutdownSignal end;
  if (const auto opened = OpenSet(options.store.folder); !opened.ok()) {
    // The store has logged the cause itself, unless it was never asked.
    Complain("mirado: there is no store, so every reply that needs it will say so" +
             (options.store.folder.empty() ? ": " + opened.text() : ""));
  }
  dlog::SetThreshold(options.log_level);
  LineWriter writer(STDOUT_FILENO, [&end] { end.Raise(); });
  std::unique_ptr<Recorder> recorder;
  if (!options.record.empty()) {
    recorder =
        std::make_unique<Recorder>(options.record, [&writer](std::string text) { writer.Write(std::move(text)); });
    if (recorder->Failed()) {
      Complain(options.record + ": cannot be written");
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
    Complain(started.status().text());
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
    Complain(options.record + ": is incomplete, it could not be written to the end");
    all_good = false;
  }
  if (writer.error() != 0) {
    Complain(OutputFailed(writer.error()).text());
    return kCannotWork;
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
2 for a wrong command line, 3 when the plug-in cannot be loaded, FILE holds something already,
or nobody takes what comes out.)");
  AddPluginOption(*command, options->plugin);
  AddStoreOption(*command, options->store);
  command
      ->add_option("--log-level", options->log_level,
                   "Drop log lines below 2 verbose … 4 info, 6 error, 7 fatal; 8 drops all")
      ->check(CLI::Range(2, kNoLog))
      ->capture_default_str();
  command->add_option("--record", options->record, "Write what goes in and comes out, for `mirado replay`")
      ->type_name("FILE");
  command->callback([options, &run] { run = [options] { return Host(*options); }; });
}

}  // namespace desk::cli
