#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

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

/// In a process of its own: what one recording leaves in the plug-in must not reach the next, nor its crash.
int ReplayAlone(const std::string& file, const ReplayOptions& options) {
  const pid_t child = fork();
  if (child == 0) {
    dlog::SetThreshold(options.log_level);
    std::exit(Replay(file, options.plugin));
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    std::cerr << file << ": cannot be played: " << std::strerror(errno) << '\n';
    return kCannotWork;
  }
  if (WIFSIGNALED(status)) {
    std::cout << file << ": the plug-in crashed: " << strsignal(WTERMSIG(status)) << '\n';
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
      "the same, 1 when one did not, 3 when one cannot be played.");
  AddPluginOption(*command, options->plugin);
  command->add_option("--log-level", options->log_level, "Drop log lines below this priority")->capture_default_str();
  command->add_option("FILE", options->files, "Recordings, as `mirado host --record` writes them")->required();
  command->callback([options, &run] {
    run = [options] {
      int worst = kDone;
      for (const std::string& file : options->files) {
        worst = std::max(worst, ReplayAlone(file, *options));
      }
      return worst;
    };
  });
}

}  // namespace desk::cli
