#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <utility>

namespace desk {

/// Writes whole lines to a file descriptor. Any thread; lines are not interleaved.
class LineWriter {
 public:
  /// `on_error` is called once, on the first failed write; nothing is written after that. It must not call this object.
  LineWriter(int fd, std::function<void()> on_error) : fd_(fd), on_error_(std::move(on_error)) {}

  /// `line` has no newline.
  void Write(std::string line);

  /// The errno of the write that failed, or 0.
  int error();

 private:
  int fd_;
  std::function<void()> on_error_;
  std::mutex mutex_;
  int error_ = 0;
};

}  // namespace desk
