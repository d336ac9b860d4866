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
  int Release() { return std::exchange(number_, -1); }  ///< The caller owns it from now on.
  int get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }

 private:
  int number_ = -1;
};

/// Becomes true when the program is asked to end: by SIGINT or SIGTERM, or because nobody reads what it writes.
///
/// Make it before the first other thread, since it takes both signals for the whole process, and ignores SIGPIPE.
class ShutdownSignal {
 public:
  ShutdownSignal();

  /// Any thread.
  void Raise();

  bool Asked() const;

  /// Waits until `fd` can be read (true), or until the end is asked for or `limit` has passed (false). An `fd` below 0
  /// is never readable, and a `limit` below 0 never passes.
  bool WaitFor(int fd, std::chrono::milliseconds limit = std::chrono::milliseconds(-1)) const;

 private:
  UniqueFd signals_;
  UniqueFd raised_;
};

/// Reads lines from a file descriptor, in bounded memory whatever comes.
class LineReader {
 public:
  static constexpr std::size_t kMaxLine = 524'288;  ///< bytes, without the newline

  enum class Result { kLine, kTooLong, kEnd };

  LineReader(int fd, const ShutdownSignal& end) : fd_(fd), end_(end) {}

  /// Puts the next line into `line`, without its newline; the last one may lack it. A line that is too long is read to
  /// its end and dropped. The input ends at its end, at an error, or when the end of the program is asked for.
  Result Next(std::string& line);

 private:
  bool Fill();

  int fd_;
  const ShutdownSignal& end_;
  std::string buffer_;
  std::size_t position_ = 0;
};

/// Writes whole lines to a file descriptor. Any thread; lines do not mix.
class LineWriter {
 public:
  /// `on_broken` runs once, when a write fails; nothing is written afterwards.
  LineWriter(int fd, std::function<void()> on_broken) : fd_(fd), on_broken_(std::move(on_broken)) {}

  /// `line` comes without its newline.
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
