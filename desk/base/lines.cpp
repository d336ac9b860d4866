#include "base/lines.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace desk {
namespace {

int BlockedSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return signalfd(-1, &set, SFD_CLOEXEC);
}

}  // namespace

void UniqueFd::Close() {
  if (number_ >= 0) {
    close(std::exchange(number_, -1));
  }
}

ShutdownSignal::ShutdownSignal() : signals_(BlockedSignals()), raised_(eventfd(0, EFD_CLOEXEC)) {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

void ShutdownSignal::Raise() {
  const std::uint64_t once = 1;
  static_cast<void>(!write(raised_.get(), &once, sizeof once));
}

// Neither of the two descriptors is ever read, so that they stay readable after the request to exit.
bool ShutdownSignal::Asked() const {
  std::array<pollfd, 2> polled = {{{signals_.get(), POLLIN, 0}, {raised_.get(), POLLIN, 0}}};
  return poll(polled.data(), polled.size(), 0) > 0;
}

bool ShutdownSignal::WaitFor(int fd, std::chrono::milliseconds limit) const {
  std::array<pollfd, 3> polled = {{{signals_.get(), POLLIN, 0}, {raised_.get(), POLLIN, 0}, {fd, POLLIN, 0}}};
  int ready = 0;
  do {
    ready = poll(polled.data(), polled.size(), static_cast<int>(limit.count()));
  } while (ready < 0 && errno == EINTR);
  return ready > 0 && polled[0].revents == 0 && polled[1].revents == 0;
}

LineReader::Result LineReader::Next(std::string& line) {
  line.clear();
  bool any = false;
  bool too_long = false;
  while (true) {
    if (position_ == buffer_.size() && !Fill()) {
      break;
    }
    any = true;
    const auto newline = buffer_.find('\n', position_);
    const auto stop = newline == std::string::npos ? buffer_.size() : newline;
    too_long = too_long || line.size() + (stop - position_) > kMaxLine;
    if (!too_long) {
      line.append(buffer_, position_, stop - position_);
    }
    position_ = newline == std::string::npos ? stop : stop + 1;
    if (newline != std::string::npos) {
      break;
    }
  }
  // A line that was cut off by the request to exit is dropped.
  if (!any || end_.Asked()) {
    return Result::kEnd;
  }
  return too_long ? Result::kTooLong : Result::kLine;
}

bool LineReader::Fill() {
  constexpr std::size_t kChunk = 16'384;
  buffer_.resize(kChunk);
  position_ = 0;
  ssize_t count = 0;
  do {
    count = end_.WaitFor(fd_) ? read(fd_, buffer_.data(), buffer_.size()) : 0;
  } while (count < 0 && (errno == EINTR || errno == EAGAIN));
  buffer_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return count > 0;
}

void LineWriter::Write(std::string line) {
  line += '\n';
  const std::lock_guard lock(mutex_);
  const char* rest = line.data();
  std::size_t size = line.size();
  while (size > 0 && error_ == 0) {
    const ssize_t count = write(fd_, rest, size);
    if (count >= 0) {
      rest += count;
      size -= static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      error_ = errno;
      on_broken_();
    }
  }
}

int LineWriter::error() {
  const std::lock_guard lock(mutex_);
  return error_;
}

}  // namespace desk
