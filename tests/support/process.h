#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <type_traits>
#include <utility>

/// Whether the kernel releases the locks of a process that dies. The user mode of qemu does not.
inline bool HasRobustLocks() {
  void* list = nullptr;
  std::size_t size = 0;
  return syscall(SYS_get_robust_list, 0, &list, &size) == 0;
}
constexpr const char* kNoRobustLocks = "skipped: the kernel does not release the lock of a process that dies";

/// A child process that runs `body` and can write records to its parent through a pipe. The destructor kills it, and so
/// does the end of the thread that made it; Ctrl-C does not.
class Process {
 public:
  /// `body` may take the pipe's writing end. Its result is the exit status. If it returns nothing, the status is 1
  /// after a failed expectation and otherwise 0.
  template <typename Body>
  explicit Process(const Body& body) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    id_ = fork();
    EXPECT_GE(id_, 0);
    if (id_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      static_cast<void>(std::signal(SIGINT, SIG_IGN));
      close(ends[0]);
      _exit(Result(body, ends[1]));
    }
    close(ends[1]);
    pipe_ = ends[0];
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    Kill();
    Wait();
  }

  /// Waits for the next record on the pipe; false when the process has ended and all records have been read.
  template <typename Record>
  bool Read(Record* record) const {
    return read(pipe_, record, sizeof *record) == static_cast<ssize_t>(sizeof *record);
  }

  pid_t id() const { return id_; }

  void Signal(int signal) const {
    if (id_ > 0) kill(id_, signal);
  }
  void Kill() const { Signal(SIGKILL); }

  /// Stops the process and returns when it has stopped.
  void Stop() const {
    Signal(SIGSTOP);
    waitpid(id_, nullptr, WUNTRACED);
  }

  /// The exit status, or minus the signal that ended it. Closes the pipe.
  int Wait() {
    int status = 0;
    if (id_ > 0) {
      EXPECT_EQ(waitpid(id_, &status, 0), id_);
      id_ = -1;
      close(std::exchange(pipe_, -1));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  template <typename Body>
  static int Result(const Body& body, int pipe) {
    const auto run = [&] {
      if constexpr (std::is_invocable_v<Body, int>) {
        return body(pipe);
      } else {
        return body();
      }
    };
    if constexpr (std::is_void_v<decltype(run())>) {
      run();
      return testing::Test::HasFailure() ? 1 : 0;
    } else {
      return run();
    }
  }

  pid_t id_ = -1;
  int pipe_ = -1;
};

/// Lets a parent and its child wait for each other. Make it before the fork.
class Steps {
 public:
  Steps() { EXPECT_EQ(pipe2(to_parent_.data(), O_CLOEXEC) | pipe2(to_child_.data(), O_CLOEXEC), 0); }
  Steps(const Steps&) = delete;
  Steps& operator=(const Steps&) = delete;
  ~Steps() {
    for (const int end : {to_parent_[0], to_parent_[1], to_child_[0], to_child_[1]}) close(end);
  }
  void SignalChild() const { Put(to_child_[1]); }
  void AwaitChild() const { Take(to_parent_[0]); }
  void SignalParent() const { Put(to_parent_[1]); }
  void AwaitParent() const { Take(to_child_[0]); }

 private:
  static void Put(int end) { EXPECT_EQ(write(end, "s", 1), 1); }
  static void Take(int end) {
    constexpr int kLongTime =
        120'000;  // this process has both ends, so the death of the other one does not end the read
    pollfd polled{end, POLLIN, 0};
    char byte = 0;
    EXPECT_TRUE(TEMP_FAILURE_RETRY(poll(&polled, 1, kLongTime)) == 1 && read(end, &byte, 1) == 1)
        << "no signal from the other process";
  }
  std::array<int, 2> to_parent_{};
  std::array<int, 2> to_child_{};
};
