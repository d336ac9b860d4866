#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

namespace desk {

/// Owns a file descriptor, or none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int number) : number_(number) {}
  UniqueFd(UniqueFd&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Close(); }

  void Close();
  int Release() { return std::exchange(number_, -1); }  ///< transfers ownership to the caller
  int get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }

 private:
  int number_ = -1;
};

/// Becomes true when the program is asked to exit: by SIGINT or SIGTERM, or because its output was closed.
///
/// Must be created before any other thread, since it handles both signals for the whole process, and ignores SIGPIPE.
class ShutdownSignal {
 public:
  ShutdownSignal();

  /// Any thread.
  void Raise();

  bool Asked() const;

  /// Waits until `fd` is readable (true), or until the program is asked to exit or `limit` has passed (false). A
  /// negative `fd` is never readable, and a negative `limit` never passes.
  bool WaitFor(int fd, std::chrono::milliseconds limit = std::chrono::milliseconds(-1)) const;

 private:
  UniqueFd signals_;
  UniqueFd raised_;
};

/// Reads lines from a file descriptor, in bounded memory for any input.
class LineReader {
 public:
  static constexpr std::size_t kMaxLine = 524'288;  ///< bytes, without the newline

  enum class Result { kLine, kTooLong, kEnd };

  LineReader(int fd, const ShutdownSignal& end) : fd_(fd), end_(end) {}

  /// Reads the next line into `line`, without its newline, which the last line may lack. A line that is too long is
  /// read to its end and dropped. The input ends at end of file, at an error, or when the program is asked to exit.
  Result Next(std::string& line);

 private:
  bool Fill();

  int fd_;
  const ShutdownSignal& end_;
  std::string buffer_;
  std::size_t position_ = 0;
};

/// Writes whole lines to a file descriptor. Any thread; lines are not interleaved.
class LineWriter {
 public:
  /// `on_broken` is called once, after the first failed write; nothing is written afterwards.
  LineWriter(int fd, std::function<void()> on_broken) : fd_(fd), on_broken_(std::move(on_broken)) {}

  /// `line` has no newline.
  void Write(std::string line);

  /// The errno of the write that failed, or 0.
  int error();

 private:
  int fd_;
  std::function<void()> on_broken_;
  std::mutex mutex_;
  int error_ = 0;
};

}  // namespace desk
