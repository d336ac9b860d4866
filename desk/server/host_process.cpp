#include "server/host_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>
#include <utility>

#include <boost/asio/write.hpp>

#include "base/unique_fd.h"

extern "C" {  // missing in this header
#include <sys/pidfd.h>
}

namespace desk {
namespace {

using Error = boost::system::error_code;

constexpr std::chrono::seconds kTimeToEnd(2);
// A longer line is passed on in several parts, so that memory stays bounded.
constexpr std::size_t kMaxLine = 8UL * 1024 * 1024;
// The capacity of a pipe: one read gets all that it holds.
constexpr std::size_t kPipeSize = 64UL * 1024;

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

[[noreturn]] void ThrowErrno(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

Pipe MakePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    ThrowErrno("a pipe cannot be created");
  }
  return {.read = UniqueFd(ends[0]), .write = UniqueFd(ends[1])};
}

// Runs in the child between fork and exec, where only calls that are safe in a signal handler are allowed.
[[noreturn]] void BecomeProgram(char* const* arguments, int input, int output, int log, pid_t parent) {
  // Ctrl-C in a terminal is for the desk, which asks its children to exit.
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(127);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  std::signal(SIGPIPE, SIG_DFL);
  if (dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 && dup2(log, STDERR_FILENO) >= 0) {
    // Otherwise connections would stay open in the child after the desk has closed them. Where the kernel or a sandbox
    // does not allow this call, the desk works nevertheless.
    static_cast<void>(close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC));
    execv(arguments[0], arguments);
  }
  const char* const cause = strerrordesc_np(errno);
  for (const char* const part : {"cannot run ", static_cast<const char*>(arguments[0]), ": ", cause, "\n"}) {
    if (write(STDERR_FILENO, part, std::strlen(part)) < 0) {
      break;
    }
  }
  _exit(127);
}

}  // namespace

HostProcess::HostProcess(boost::asio::io_context& loop, Listener& listener)
    : listener_(&listener),
      input_(loop),
      output_{.pipe = Descriptor(loop), .on_line = &Listener::OnLine, .rest = {}},
      log_{.pipe = Descriptor(loop), .on_line = &Listener::OnLogLine, .rest = {}},
      child_(loop),
      kill_timer_(loop) {}

// The child still runs only if `Start` failed after the fork, or if the loop was destroyed.
HostProcess::~HostProcess() {
  if (pid_ > 0 && listener_ != nullptr) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::shared_ptr<HostProcess> HostProcess::Start(boost::asio::io_context& loop, const std::vector<std::string>& command,
                                                Listener& listener) {
  std::shared_ptr<HostProcess> process(new HostProcess(loop, listener));
  process->Run(command);
  return process;
}

void HostProcess::Run(const std::vector<std::string>& command) {
  Pipe input = MakePipe();
  Pipe output = MakePipe();
  Pipe log = MakePipe();
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& part : command) {
    arguments.push_back(const_cast<char*>(part.c_str()));  // execv's old signature; it changes nothing
  }
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    BecomeProgram(arguments.data(), input.read.get(), output.write.get(), log.write.get(), parent);
  }
  if (pid_ < 0) {
    ThrowErrno("a process cannot be started");
  }
  const int child = pidfd_open(pid_, 0);
  if (child < 0) {
    ThrowErrno("the process cannot be watched");
  }
  child_.assign(child);
  input_.assign(input.write.Release());
  output_.pipe.assign(output.read.Release());
  log_.pipe.assign(log.read.Release());
  output_.pipe.native_non_blocking(true);
  log_.pipe.native_non_blocking(true);
  AwaitOutput(output_);
  AwaitOutput(log_);
  AwaitEnd();
}

void HostProcess::AwaitOutput(Output& output) {
  output.pipe.async_wait(Descriptor::wait_read, [self = shared_from_this(), &output](Error error) {
    if (!error && self->listener_ != nullptr && self->ReadOnce(output)) {
      self->AwaitOutput(output);
    }
  });
}

// False at the end of the pipe, and after an error.
bool HostProcess::ReadOnce(Output& output) {
  static std::array<char, kPipeSize> chunk;  // for all processes: nothing else reads during the calls of `on_line`
  const ssize_t size = read(output.pipe.native_handle(), chunk.data(), chunk.size());
  if (size < 0) {
    return errno == EAGAIN || errno == EINTR;
  }
  std::string_view text(chunk.data(), static_cast<std::size_t>(size));
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    if (output.rest.empty()) {
      (listener_->*output.on_line)(text.substr(0, end));
    } else {
      (listener_->*output.on_line)(std::exchange(output.rest, {}).append(text.substr(0, end)));
    }
    text.remove_prefix(end + 1);
  }
  output.rest.append(text);
  if (output.rest.size() > kMaxLine) {
    (listener_->*output.on_line)(std::exchange(output.rest, {}));
  }
  return size > 0;
}

// Passes on what is left in the pipe, with an unfinished line.
void HostProcess::Drain(Output& output) {
  ReadOnce(output);
  if (!output.rest.empty()) {
    (listener_->*output.on_line)(std::exchange(output.rest, {}));
  }
  output.pipe.close();
}

void HostProcess::Write(std::string_view line) {
  if (ending_) {
    return;
  }
  queue_.append(line).push_back('\n');
  if (writing_.empty()) {
    WriteQueued();
  }
}

void HostProcess::WriteQueued() {
  writing_ = std::exchange(queue_, {});
  if (writing_.empty()) {
    return ending_ ? input_.close() : void();
  }
  boost::asio::async_write(input_, boost::asio::buffer(writing_), [self = shared_from_this()](Error, std::size_t) {
    if (self->listener_ == nullptr) {
      return;
    }
    const bool had_room = self->HasRoom();
    self->WriteQueued();  // also after an error: the child has closed its input, so this drops what is queued
    if (!had_room && self->HasRoom()) {
      self->listener_->OnRoom();
    }
  });
}

void HostProcess::End() {
  if (ending_ || listener_ == nullptr) {
    return;
  }
  ending_ = true;
  if (writing_.empty()) {
    input_.close();
  }
  kill_timer_.expires_after(kTimeToEnd);
  kill_timer_.async_wait([self = shared_from_this()](Error error) {
    if (!error) {
      self->Kill();
    }
  });
}

void HostProcess::Kill() {
  if (listener_ != nullptr) {
    pidfd_send_signal(child_.native_handle(), SIGKILL, nullptr, 0);
  }
}

void HostProcess::AwaitEnd() {
  child_.async_wait(Descriptor::wait_read, [self = shared_from_this()](Error error) {
    if (error) {
      return;
    }
    int status = 0;
    // WNOHANG, because the wait may have ended too early: Asio reuses the state of a closed descriptor for a new one.
    // If epoll reports two descriptors at once, and the handler of the first closes the second and opens a new one, the
    // new one is taken for ready.
    if (waitpid(self->pid_, &status, WNOHANG) == 0) {
      return self->AwaitEnd();
    }
    // Passes on the rest of stdout and stderr. Their end is not awaited: a grandchild may hold the pipes open.
    self->log_.pipe.cancel();
    self->output_.pipe.cancel();
    self->Drain(self->log_);
    self->Drain(self->output_);
    self->ending_ = true;
    self->kill_timer_.cancel();
    self->input_.close();
    std::exchange(self->listener_, nullptr)->OnEnd(status);
  });
}

}  // namespace desk
