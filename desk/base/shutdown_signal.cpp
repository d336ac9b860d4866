#include "base/shutdown_signal.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

namespace desk {
namespace {

int BlockSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  struct sigaction hangup = {};
  if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) {
    sigaddset(&set, SIGHUP);
  }
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return signalfd(-1, &set, SFD_CLOEXEC);
}

}  // namespace

ShutdownSignal::ShutdownSignal() : signals_(BlockSignals()), raised_(eventfd(0, EFD_CLOEXEC)) {
  if (!signals_ || !raised_) {
    throw std::system_error(errno, std::generic_category(), "signals cannot be received");
  }
}

// A SIGHUP that is pending now has its usual effect and status, after everything was put in order.
ShutdownSignal::~ShutdownSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGHUP);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void ShutdownSignal::Raise() {
  const std::uint64_t once = 1;
  static_cast<void>(!write(raised_.get(), &once, sizeof once));
}

// Neither descriptor is ever read, so a signal stays pending and this stays true.
bool ShutdownSignal::IsRaised() const {
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

}  // namespace desk
