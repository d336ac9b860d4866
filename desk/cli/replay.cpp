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
  std::cout << Printable(file) << ": " << recording->in.size() << " lines in, "
            << (difference->empty() ? "the same came out\n" : "something else came out\n" + *difference);
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
    std::cout << Printable(file) << ": crashed while it was played: " << strsignal(WTERMSIG(status)) << '\n';
    return kRefused;
  }
  return WEXITSTATUS(status);
}

}  // namespace

void AddReplayCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<ReplayOptions>();
  auto* command = app.add_subcommand("replay", "Play recorded sessions again and compare what comes out");
  command->footer(
      "Each recording runs on a fresh store that starts as the recorded one did. Replies, deliveries and events\n"
      "are compared each in their own order; times and log lines do not count. Exit status: 0 when all came out\n"
      "the same, 1 when one did not, 3 when one cannot be replayed.");
  AddPluginOption(*command, options->plugin);
  AddLogLevelOption(*command, options->log_level);
  command->add_option("FILE", options->files, "Recordings, as `mirado host --record` writes them")->required();
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
