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

#include "base/unique_fd.h"

extern "C" {  // which this header forgets
#include <sys/pidfd.h>
}

namespace desk {
namespace {

using Error = boost::system::error_code;

constexpr std::chrono::seconds kTimeToEnd(2);
// A line that never ends is cut here, so that memory stays bounded.
constexpr std::size_t kMaxLine = 8UL * 1024 * 1024;
// What one turn of the loop reads of one child, so that one that never stops talking leaves room for the others.
constexpr std::size_t kTurn = 64UL * 1024;

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

[[noreturn]] void ThrowErrno(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

Pipe MakePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    ThrowErrno("no more pipes");
  }
  return {.read = UniqueFd(ends[0]), .write = UniqueFd(ends[1])};
}

int NonBlocking(UniqueFd descriptor) {
  fcntl(descriptor.get(), F_SETFL, fcntl(descriptor.get(), F_GETFL) | O_NONBLOCK);
  return descriptor.Release();
}

// Runs in the child between fork and exec, where only calls that are safe in a signal handler are allowed.
[[noreturn]] void BecomeProgram(char* const* arguments, int input, int output, int log, pid_t parent) {
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

HostProcess::HostProcess(boost::asio::io_context& loop, Listener& listener)
    : listener_(&listener),
      input_(loop),
      output_{.pipe = Descriptor(loop), .rest = {}},
      log_{.pipe = Descriptor(loop), .rest = {}},
      child_(loop),
      kill_timer_(loop) {}

// Before its end only when starting it has failed half-way, or the loop is no more.
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
    ThrowErrno("no more processes");
  }
  const int child = pidfd_open(pid_, 0);
  if (child < 0) {
    ThrowErrno("no more descriptors");
  }
  child_.assign(child);
  input_.assign(NonBlocking(std::move(input.write)));
  output_.pipe.assign(NonBlocking(std::move(output.read)));
  log_.pipe.assign(NonBlocking(std::move(log.read)));
  AwaitOutput(output_, &Listener::OnLine);
  AwaitOutput(log_, &Listener::OnLogLine);
  AwaitEnd();
}

void HostProcess::AwaitOutput(Lines& lines, void (Listener::*hand_on)(std::string_view)) {
  lines.pipe.async_wait(Descriptor::wait_read, [self = shared_from_this(), &lines, hand_on](Error error) {
    if (!error && self->listener_ != nullptr && self->ReadOnce(lines, hand_on)) {
      self->AwaitOutput(lines, hand_on);
    }
  });
}

// False at the end of the pipe.
bool HostProcess::ReadOnce(Lines& lines, void (Listener::*hand_on)(std::string_view)) {
  static std::array<char, kTurn> chunk;
  const ssize_t size = read(lines.pipe.native_handle(), chunk.data(), chunk.size());
  if (size < 0) {
    return errno == EAGAIN || errno == EINTR;
  }
  std::string_view text(chunk.data(), static_cast<std::size_t>(size));
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    if (lines.rest.empty()) {
      (listener_->*hand_on)(text.substr(0, end));
    } else {
      (listener_->*hand_on)(std::exchange(lines.rest, {}).append(text.substr(0, end)));
    }
    text.remove_prefix(end + 1);
  }
  lines.rest.append(text);
  if (lines.rest.size() > kMaxLine || (size == 0 && !lines.rest.empty())) {
    (listener_->*hand_on)(std::exchange(lines.rest, {}));
  }
  return size > 0;
}

// What a full pipe holds, and no more: a grandchild may write on for ever.
void HostProcess::Drain(Lines& lines, void (Listener::*hand_on)(std::string_view)) {
  constexpr int kReads = 16;  // of at least a page each
  for (int left = kReads; left > 0; --left) {
    errno = 0;
    if (!ReadOnce(lines, hand_on) || errno == EAGAIN) {
      break;
    }
  }
  if (!lines.rest.empty()) {
    (listener_->*hand_on)(std::exchange(lines.rest, {}));
  }
  lines.pipe.close();
}

void HostProcess::Write(std::string_view line) {
  if (ending_) {
    return;
  }
  queue_.append(line).push_back('\n');
  was_full_ = !HasRoom();
  if (!writing_) {
    WriteQueued();
  }
}

void HostProcess::WriteQueued() {
  while (written_ < queue_.size()) {
    const ssize_t size = write(input_.native_handle(), queue_.data() + written_, queue_.size() - written_);
    if (size > 0) {
      written_ += static_cast<std::size_t>(size);
    } else if (errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      written_ = queue_.size();  // The child reads no more; its end is on the way.
    }
  }
  writing_ = written_ < queue_.size();
  if (writing_ && written_ > queue_.size() / 2) {
    queue_.erase(0, std::exchange(written_, 0));
  } else if (!writing_) {
    written_ = 0;
    queue_.capacity() > kTurn ? queue_ = std::string() : queue_.erase();
  }
  if (writing_) {
    input_.async_wait(Descriptor::wait_write, [self = shared_from_this()](Error error) {
      if (!error && self->listener_ != nullptr) {
        self->WriteQueued();
      }
    });
  } else if (ending_) {
    input_.close();
  }
  if (was_full_ && HasRoom()) {
    was_full_ = false;
    listener_->OnRoom();
  }
}

void HostProcess::End() {
  if (ending_ || listener_ == nullptr) {
    return;
  }
  ending_ = true;
  if (!writing_) {
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
    // The loop must never wait here, and a wait in it may end early: Asio keeps the state of a closed descriptor for
    // the next one. When one turn of epoll reports several descriptors, and the handler of the first closes the second
    // and opens a third, then the third is taken for ready, since it has the state with which the second was reported.
    // Reads and writes find out that it is not, a wait does not.
    if (waitpid(self->pid_, &status, WNOHANG) == 0) {
      return self->AwaitEnd();
    }
    // What it still had to say comes before its end. A process of its own may hold the pipe open, so what is there
    // counts and not the end of the pipe.
    self->log_.pipe.cancel();
    self->output_.pipe.cancel();
    self->Drain(self->log_, &Listener::OnLogLine);
    self->Drain(self->output_, &Listener::OnLine);
    self->ending_ = true;
    self->kill_timer_.cancel();
    self->input_.close();
    std::exchange(self->listener_, nullptr)->OnEnd(status);
  });
}

}  // namespace desk
