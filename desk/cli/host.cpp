#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>

#include "base/line_writer.h"
#include "base/shutdown_signal.h"
#include "base/unique_fd.h"
#include "cli/commands.h"
#include "dlog_control.h"
#include "host/recording.h"
#include "host/session.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct HostOptions {
  std::string plugin;
  StoreOption store;
  std::string record;
  int log_level = 4;
  bool report = false;
};

/// Whether `file` is a regular file that is not empty.
bool HasContent(const std::string& file) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(file, ignored) && !std::filesystem::is_empty(file, ignored);
}

/// The program's output, in an order that the reader can rely on: log lines of a request come before its reply, and
/// so do changed subscriptions.
class Output {
 public:
  Output(ShutdownSignal& shutdown, bool reports)
      : reports_(reports), writer_(output_.get(), [&shutdown] { shutdown.Raise(); }) {
    if (reports_) {
      dlog::SetSink([this](const dlog::Line& line) { Log(line); });
    }
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output() { dlog::SetSink({}); }

  void Write(std::string line) { writer_.Write(std::move(line)); }

  /// Writes a line of the session's output, and records it. Any thread.
  void WriteSessionLine(const Json& line) {
    const std::lock_guard lock(mutex_);
    if (auto watches = reports_ ? vconf::SubscribedPaths() : watches_; watches != watches_) {
      watches_ = std::move(watches);
      Write(FormatLine(Out::kWatches, ToText(watches_)));
    }
    if (recorder_ != nullptr) {
      recorder_->Out(line);
    } else {
      Write(ToText(line));
    }
  }

  /// The errno of a failed write to the output, or 0.
  int error() { return writer_.error(); }

  /// The recorder; null if there is no recording. The session's thread.
  Recorder* recorder() { return recorder_.get(); }

  /// Starts a recording, replacing a running one; null ends it.
  void Record(Recorder::Sink sink) {
    std::unique_ptr<Recorder> next;
    if (sink) {
      next = std::make_unique<Recorder>(std::move(sink), [this](std::string text) { Write(std::move(text)); });
    }
    const std::lock_guard lock(mutex_);
    recorder_.swap(next);
  }

 private:
  void Log(const dlog::Line& line) {
    Write(FormatLine(Out::kLog, ToText({{"priority", dlog::Format(line).substr(0, 1)},
                                        {"tag", line.tag},
                                        {"logId", line.log_id},
                                        {"text", line.text}})));
  }

  const bool reports_;
  const UniqueFd output_{fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)};
  LineWriter writer_;
  std::mutex mutex_;  // guards the two below
  std::vector<std::string> watches_;
  std::unique_ptr<Recorder> recorder_;
};

int Host(const HostOptions& options) {
  if (HasContent(options.record)) {
    PrintError(options.record + ": the file is not empty; remove it, or record to another file");
    return kCannotWork;
  }
  ShutdownSignal shutdown;
  if (const auto opened = OpenSet(options.store.folder); !opened.ok()) {
    // The store itself has logged the cause, unless no folder was named.
    PrintError("mirado: the store cannot be opened, so requests that need it will fail" +
               (options.store.folder.empty() ? ": " + opened.text() : ""));
  }
  dlog::SetThreshold(options.log_level);
  Output output(shutdown, options.report);
  if (!options.record.empty()) {
    output.Record(Recorder::ToFile(options.record));
    if (output.recorder()->has_failed()) {
      PrintError(options.record + ": cannot be written");
      return kCannotWork;
    }
  }
  // What the plug-in prints must not be taken for output of this program.
  dup2(STDERR_FILENO, STDOUT_FILENO);
  auto started = Session::Start(options.plugin, [&output](const Json& line) { output.WriteSessionLine(line); });
  if (!started.ok()) {
    PrintError(started.status().text());
    return kCannotWork;
  }
  std::unique_ptr<Session> session = *std::move(started);
  const auto handle = [&](std::string_view line, const Request& request) {
    if (options.report && request.kind == In::kRecord) {
      session->Settle();
      output.Record(request.argument == false ? Recorder::Sink() : [&output](std::string_view line) {
        output.Write(FormatLine(Out::kRecord, line));
        return true;
      });
      return vconf::Status();
    }
    // Waits before the request begins, so that changes by others during the wait are recorded separately.
    shutdown.WaitFor(-1, Latency(request));
    Recorder* const recorder = output.recorder();
    return recorder != nullptr ? recorder->Handle(*session, line, request) : session->Handle(request);
  };
  bool all_done = ReadRequests(STDIN_FILENO, shutdown, handle, [&](const Json& error) { output.Write(ToText(error)); });
  session.reset();
  vconf::CloseStore();
  if (output.recorder() != nullptr && output.recorder()->has_failed()) {
    PrintError(options.record + ": the recording is incomplete, because writing it failed");
    all_done = false;
  }
  if (output.error() != 0) {
    PrintError(OutputError(output.error()).text());
    return kCannotWork;
  }
  return all_done ? kDone : kRefused;
}

}  // namespace

void AddHostCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<HostOptions>();
  auto* command = app.add_subcommand("host", "Run the plug-in for one page, which sends and receives JSON lines");
  command->footer(R"(Standard input has one request in each line:
  {"send": MESSAGE}       a message whose reply the page waits for; the reply is {"reply": REPLY}
  {"post": MESSAGE}       a message that the page does not wait for
  {"set": {PATH: VALUE}}  a change of the store, as if another program made it
  {"settle": true}        waits until all requests and changes are handled; then {"settled": true}
Standard output has the replies, and {"message": MESSAGE} for each message that the plug-in posts to the page.
For a line that is invalid or refused it has {"error": {"line": 7, "text": ...}}. Log lines go to stderr; with
--report they are {"log": ...} on standard output, and {"watches": [PATH, ...]} lists the subscriptions when they change.
The session ends at the end of the input, or on SIGINT or SIGTERM. Exit status: 0 success, 1 a line was invalid or
refused, or the recording is incomplete, 2 wrong command line, 3 the plug-in cannot be loaded, FILE is not empty,
or FILE or the output cannot be written.)");
  AddPluginOption(*command, options->plugin);
  AddStoreOption(*command, options->store);
  AddLogLevelOption(*command, options->log_level);
  command->add_flag("--report", options->report,
                    "Print log lines and subscriptions as JSON lines, and accept {\"record\": ...}");
  command->add_option("--record", options->record, "Record the session in FILE, for `mirado replay`")
      ->type_name("FILE");
  command->callback([options, &run] { run = [options] { return Host(*options); }; });
}

}  // namespace desk::cli
