#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/shutdown_signal.h"
#include "base/temporary_folder.h"
#include "base/terminal.h"
#include "cli/commands.h"
#include "dlog_control.h"
#include "host/recording.h"

extern "C" {  // missing in this header
#include <sys/pidfd.h>
}

namespace desk::cli {
namespace {

struct ReplayOptions {
  std::string plugin;
  int log_level = 7;
  std::vector<std::string> files;
};

int ReplayOne(const std::string& file, const std::string& plugin, const std::string& store) {
  const auto recording = ReadRecording(file);
  if (!recording.ok()) {
    PrintError(recording.status().text());
    return kCannotWork;
  }
  const auto difference = Replay(*recording, plugin, store);
  if (!difference.ok()) {
    PrintError(file + ": cannot be replayed: " + difference.status().text());
    return kCannotWork;
  }
  std::cout << Printable(file) << ": " << recording->in.size() << " requests, "
            << (difference->empty() ? "the same output\n" : "different output\n" + *difference);
  return difference->empty() ? kDone : kRefused;
}

/// Replays `file` in a child process, so that neither the plug-in's state nor a crash affects the next recording. The
/// parent removes the store, even if the child crashes.
int ReplayInChild(const std::string& file, const ReplayOptions& options, const ShutdownSignal& shutdown) {
  const TemporaryFolder folder("mirado-replay");
  if (!folder.status().ok()) {
    PrintError(file + ": cannot be replayed: " + folder.status().text());
    return kCannotWork;
  }
  std::cout.flush();  // otherwise the child would print it too
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(kCannotWork);
    }
    dlog::SetThreshold(options.log_level);
    try {
      std::exit(WithCheckedOutput([&] { return ReplayOne(file, options.plugin, folder.path() / "store"); }));
    } catch (...) {
      std::abort();  // a crash of the replay; the folder is the parent's
    }
  }
  const UniqueFd child_exit(child > 0 ? pidfd_open(child, 0) : -1);
  std::string error = child_exit ? "" : std::strerror(errno);
  if (child_exit && !shutdown.WaitFor(child_exit.get())) {
    error = "a signal stopped it";
  }
  if (child > 0 && !error.empty()) {
    kill(child, SIGKILL);
  }
  int status = 0;
  if (child > 0 && waitpid(child, &status, 0) < 0) {
    error = std::strerror(errno);
  }
  if (!error.empty()) {
    PrintError(file + ": cannot be replayed: " + error);
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
      const ShutdownSignal shutdown;
      int worst = kDone;
      for (const std::string& file : options->files) {
        worst = std::max(worst, ReplayInChild(file, *options, shutdown));
        if (shutdown.IsRaised()) {
          break;
        }
      }
      return worst;
    };
  });
}

}  // namespace desk::cli
