#include "base/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <system_error>

#include "base/exit_status.h"
#include "base/terminal.h"

namespace desk {

void PrepareStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) < 0) {
      // Opened in the wrong direction, so that using it still fails. `open` takes the lowest free number: the stream's.
      if (open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0) {
        throw std::system_error(errno, std::generic_category(), "/dev/null cannot be opened");
      }
    }
  }
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
}

int WithCheckedOutput(const std::function<int()>& work) {
  const int status = work();
  errno = 0;
  if (std::cout.flush()) {
    return status;
  }
  PrintError(OutputError(errno).text());
  return kCannotWork;
}

void PrintError(const std::string& text) { std::cerr << Printable(text) << '\n'; }

vconf::Status OutputError(int error) {
  return {vconf::Code::kFailed,
          std::string("the output is incomplete, because writing it failed: ") +
              (error != 0 ? std::strerror(error) : "the disk is full, or the reader has closed the pipe")};
}

}  // namespace desk
