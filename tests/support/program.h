#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/json.h"
#include "support/files.h"
#include "support/process.h"

/// A running `mirado` with any arguments, with pipes to its input and output. Its stderr is written to a file.
class Program {
 public:
  Program(std::vector<std::string> arguments, const std::string& log) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    EXPECT_EQ(pipe2(in.data(), O_CLOEXEC) | pipe2(out.data(), O_CLOEXEC), 0);
    arguments.insert(arguments.begin(), MIRADO_PROGRAM);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    process_.emplace([&] {
      setpgid(0, 0);
      static_cast<void>(std::signal(SIGINT, SIG_DFL));
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
      execv(MIRADO_PROGRAM, argv.data());
      return 127;
    });
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() {
    process_.reset();
    CloseInput();
    CloseOutput();
  }

  void WriteLine(const std::string& line) const { Write(line + "\n"); }

  void Write(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t count = write(in_, text.data(), text.size());
      ASSERT_GT(count, 0);
      text.remove_prefix(static_cast<std::size_t>(count));
    }
  }

  /// The next line of output; empty at its end, or after a long time without one.
  std::string ReadLine() {
    std::size_t newline = 0;
    while ((newline = received_.find('\n')) == std::string::npos) {
      if (!Receive()) return "";
    }
    std::string line = received_.substr(0, newline);
    received_.erase(0, newline + 1);
    return line;
  }

  /// All output until its end.
  std::string ReadAll() {
    while (Receive()) {
    }
    return std::exchange(received_, {});
  }

  void CloseInput() { Close(in_); }
  void CloseOutput() { Close(out_); }
  void Signal(int signal) const { process_->Signal(signal); }

  /// The exit status, or minus the signal that ended it.
  int Wait() { return process_->Wait(); }

 private:
  bool Receive() {
    constexpr int kLongTime = 30'000;
    pollfd polled{out_, POLLIN, 0};
    std::array<char, 4096> chunk{};
    const ssize_t count =
        TEMP_FAILURE_RETRY(poll(&polled, 1, kLongTime)) > 0 ? read(out_, chunk.data(), chunk.size()) : 0;
    received_.append(chunk.data(), static_cast<std::size_t>(std::max(count, ssize_t{0})));
    return count > 0;
  }

  static void Close(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
  }

  std::optional<Process> process_;
  int in_ = -1;
  int out_ = -1;
  std::string received_;
};

/// A test that runs the program on a temporary store.
class ProgramTest : public testing::Test {
 protected:
  struct Outcome {
    int status;
    std::string out;
    std::string log;
  };

  /// Runs a command to its end. The option for the store is appended to `words`.
  Outcome Run(std::vector<std::string> words, const std::string& input = "") const {
    words.insert(words.end(), {"--store", store()});
    return RunAsIs(std::move(words), input);
  }
  Outcome RunAsIs(std::vector<std::string> words, const std::string& input = "") const {
    Program program(std::move(words), log());
    program.Write(input);
    program.CloseInput();
    std::string out = program.ReadAll();
    const int status = program.Wait();
    return {status, std::move(out), Contents(log())};
  }

  std::string store() const { return folder_ / "store"; }
  std::string log() const { return folder_ / "log"; }
  const TemporaryFolder& folder() const { return folder_; }

 private:
  TemporaryFolder folder_;
};
