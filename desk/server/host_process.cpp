#include "server/host_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <future>
#include <system_error>

extern "C" {  // which this header forgets
#include <sys/pidfd.h>
}

namespace desk {
namespace {

constexpr std::chrono::seconds kTimeToEnd(2);
constexpr std::size_t kMaxQueue = 8UL * 1024 * 1024;
constexpr std::size_t kMaxLine = 8UL * 1024 * 1024;

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe MakePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  return {.read = UniqueFd(ends[0]), .write = UniqueFd(ends[1])};
}

void SetNonBlocking(const UniqueFd& descriptor) {
  fcntl(descriptor.get(), F_SETFL, fcntl(descriptor.get(), F_GETFL) | O_NONBLOCK);
}

// A pipe holds 64 KiB; two more reads see its end.
constexpr int kChunks = 10;

// Cuts what comes in at the newlines. A line that never ends is cut at kMaxLine, so that memory stays bounded.
class PipeReader {
 public:
  explicit PipeReader(UniqueFd source) : source_(std::move(source)) { SetNonBlocking(source_); }

  int descriptor() const { return source_.get(); }

  /// Reads what there is, up to what a full pipe holds, so that a child that never stops talking cannot keep the thread
  /// from its other work.
  void Read() {
    std::array<char, 8UL * 1024> chunk;  // NOLINT(*-member-init): filled by read
    for (int left = kChunks; source_ && left > 0; --left) {
      const ssize_t size = read(source_.get(), chunk.data(), chunk.size());
      if (size > 0) {
        text_.append(chunk.data(), static_cast<std::size_t>(size));
      } else if (size < 0 && errno == EAGAIN) {
        return;
      } else if (size == 0 || errno != EINTR) {
        source_.Close();
      }
    }
  }

  /// Hands on the lines that were read; at the end of the input also the piece that has no newline.
  template <typename Handler>
  void HandOn(const Handler& on_line) {
    const std::string_view text(text_);
    std::size_t start = 0;
    for (std::size_t end = text.find('\n', searched_); end != std::string_view::npos; end = text.find('\n', start)) {
      on_line(text.substr(start, end - start));
      start = end + 1;
    }
    if (const std::string_view rest = text.substr(start); rest.size() > kMaxLine || (!source_ && !rest.empty())) {
      on_line(rest);
      start = text.size();
    }
    text_.erase(0, start);
    searched_ = text_.size();
  }

 private:
  UniqueFd source_;
  std::string text_;          // read and not handed on
  std::size_t searched_ = 0;  // how much of it holds no newline
};

// Runs in the child between fork and exec, where only calls that are safe in a signal handler are allowed.
[[noreturn]] void BecomeProgram(char* const* arguments, int input, int output, int log, int kept, pid_t parent) {
  // Ctrl-C in a terminal is for the desk; it ends its children in good order.
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(127);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  std::signal(SIGPIPE, SIG_DFL);
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  // The sockets of other pages would stay open in the child after the server has closed them.
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  if (kept >= 0) {
    fcntl(kept, F_SETFD, 0);
  }
  execv(arguments[0], arguments);
  const char* const cause = strerrordesc_np(errno);
  for (const char* const part : {"cannot run ", static_cast<const char*>(arguments[0]), ": ", cause, "\n"}) {
    if (write(STDERR_FILENO, part, std::strlen(part)) < 0) {
      break;
    }
  }
  _exit(127);
}

}  // namespace

/// This side's ends.
struct HostProcess::Pipes {
  UniqueFd input;
  UniqueFd output;
  UniqueFd log;
};

HostProcess::HostProcess(std::vector<std::string> command, int kept_descriptor, Listener& listener)
    : command_(std::move(command)), listener_(listener), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  std::promise<void> started;
  // The child is told to die with the thread that started it, so that thread must be one that lives as long.
  thread_ = std::thread([this, kept_descriptor, &started] {
    Pipes pipes;
    try {
      pipes = Start(kept_descriptor);
    } catch (const std::system_error&) {
      started.set_exception(std::current_exception());
      return;
    }
    started.set_value();
    Run(std::move(pipes));
  });
  try {
    started.get_future().get();
  } catch (...) {
    thread_.join();
    throw;
  }
}

HostProcess::~HostProcess() {
  End();
  thread_.join();
}

HostProcess::Pipes HostProcess::Start(int kept_descriptor) {
  Pipe input = MakePipe();
  Pipe output = MakePipe();
  Pipe log = MakePipe();
  std::vector<char*> arguments;
  arguments.reserve(command_.size() + 1);
  for (const std::string& part : command_) {
    arguments.push_back(const_cast<char*>(part.c_str()));  // execv's old signature; it changes nothing
  }
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    BecomeProgram(arguments.data(), input.read.get(), output.write.get(), log.write.get(), kept_descriptor, parent);
  }
  if (pid_ < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  child_ = UniqueFd(pidfd_open(pid_, 0));
  return {.input = std::move(input.write), .output = std::move(output.read), .log = std::move(log.read)};
}

bool HostProcess::HasRoom(std::string_view line) {
  const std::lock_guard lock(mutex_);
  return ended_ || kill_at_ || queue_.size() + line.size() <= kMaxQueue;
}

void HostProcess::Write(std::string_view line) {
  {
    const std::lock_guard lock(mutex_);
    if (ended_ || kill_at_) {
      return;
    }
    queue_.append(line).push_back('\n');
  }
  eventfd_write(wake_.get(), 1);
}

void HostProcess::End() {
  {
    const std::lock_guard lock(mutex_);
    if (kill_at_) {
      return;
    }
    kill_at_ = std::chrono::steady_clock::now() + kTimeToEnd;
  }
  eventfd_write(wake_.get(), 1);
}

void HostProcess::Kill() { pidfd_send_signal(child_.get(), SIGKILL, nullptr, 0); }

// False when there is nothing left to write.
bool HostProcess::WriteQueued(UniqueFd& input) {
  const std::lock_guard lock(mutex_);
  if (!queue_.empty() && input) {
    const ssize_t written = write(input.get(), queue_.data(), queue_.size());
    if (written > 0) {
      queue_.erase(0, static_cast<std::size_t>(written));
    } else if (errno != EAGAIN && errno != EINTR) {
      queue_.clear();  // The child reads no more; its end is on the way.
      input.Close();
    }
  }
  return !queue_.empty() && input;
}

void HostProcess::Run(Pipes pipes) {
  SetNonBlocking(pipes.input);
  PipeReader output(std::move(pipes.output));
  PipeReader log(std::move(pipes.log));
  const auto drain = [&] {
    // What the plug-in says before it answers is seen before the answer: the log is read after the output, and handed
    // on before it.
    output.Read();
    log.Read();
    log.HandOn([this](std::string_view line) { listener_.OnLogLine(line); });
    output.HandOn([this](std::string_view line) { listener_.OnLine(line); });
  };
  for (bool running = true; running;) {
    const bool more = WriteQueued(pipes.input);
    int timeout = -1;
    {
      const std::lock_guard lock(mutex_);
      if (kill_at_) {
        if (queue_.empty()) {
          pipes.input.Close();
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*kill_at_ - std::chrono::steady_clock::now());
        timeout = static_cast<int>(std::max(left, std::chrono::milliseconds(0)).count());
      }
    }
    if (timeout == 0) {
      Kill();
      timeout = -1;
    }
    std::array<pollfd, 5> waits{{{.fd = child_.get(), .events = POLLIN, .revents = 0},
                                 {.fd = wake_.get(), .events = POLLIN, .revents = 0},
                                 {.fd = output.descriptor(), .events = POLLIN, .revents = 0},
                                 {.fd = log.descriptor(), .events = POLLIN, .revents = 0},
                                 {.fd = more ? pipes.input.get() : -1, .events = POLLOUT, .revents = 0}}};
    poll(waits.data(), waits.size(), timeout);
    eventfd_t ignored = 0;
    eventfd_read(wake_.get(), &ignored);
    running = waits[0].revents == 0;
    drain();
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    queue_.clear();
  }
  listener_.OnEnd(status);
}

}  // namespace desk
