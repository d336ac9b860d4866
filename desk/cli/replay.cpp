#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/terminal.h"
#include "cli/commands.h"
#include "dlog_control.h"
#include "host/recording.h"

namespace desk::cli {
namespace {

struct ReplayOptions {
  std::string plugin;
  int log_level = 7;
  std::vector<std::string> files;
};

int ReplayOne(const std::string& file, const std::string& plugin) {
  const auto recording = ReadRecording(file);
  if (!recording.ok()) {
    PrintError(recording.status().text());
    return kCannotWork;
  }
  const auto difference = Replay(*recording, plugin);
  if (!difference.ok()) {
    PrintError(file + ": cannot be replayed: " + difference.status().text());
    return kCannotWork;
  }
  std::cout << Printable(file) << ": " << recording->in.size() << " requests, "
            << (difference->empty() ? "the same output\n" : "different output\n" + *difference);
  return difference->empty() ? kDone : kRefused;
}

/// Runs in a separate process, so that neither the plug-in's state nor a crash affects the next recording.
int ReplayInChild(const std::string& file, const ReplayOptions& options) {
  std::cout.flush();  // otherwise the child would print it too
  const pid_t child = fork();
  if (child == 0) {
    dlog::SetThreshold(options.log_level);
    std::exit(WithCheckedOutput([&] { return ReplayOne(file, options.plugin); }));
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    PrintError(file + ": cannot be replayed: " + std::strerror(errno));
    return kCannotWork;
  }
  if (WIFSIGNALED(status)) {
    std::cout << Printable(file) << ": the replay crashed: " << strsignal(WTERMSIG(status)) << '\n';
    return kRefused;
  }
  return WEXITSTATUS(status);
}

}  // namespace

void AddReplayCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<ReplayOptions>();
  auto* command = app.add_subcommand("replay", "Replay recorded sessions and compare the output");
  command->footer(
      "Each recording is replayed on a new store with the recorded content. Replies, deliveries and events are each\n"
      "compared in order; log lines and times are not compared.\n"
      "Exit status: 0 all outputs are the same, 1 one differs, 3 a recording cannot be replayed.");
  AddPluginOption(*command, options->plugin);
  AddLogLevelOption(*command, options->log_level);
  command
      ->add_option("FILE", options->files, "Recordings, written by `mirado host --record` or saved on the desk's page")
      ->required();
  command->callback([options, &run] {
    run = [options] {
      int worst = kDone;
      for (const std::string& file : options->files) {
        worst = std::max(worst, ReplayInChild(file, *options));
      }
      return worst;
    };
  });
}

}  // namespace desk::cli
