#pragma once

#include <cstddef>
#include <string>

#include "base/shutdown_signal.h"

namespace desk {

/// Reads lines from a file descriptor, in bounded memory for any input. One thread.
class LineReader {
 public:
  static constexpr std::size_t kMaxLine = 524'288;  ///< bytes, without the newline

  enum class Result { kLine, kTooLong, kEnd };

  LineReader(int fd, const ShutdownSignal& shutdown) : fd_(fd), shutdown_(shutdown) {}

  /// Reads the next line into `line`, without its newline, which the last line may lack. A line that is too long is
  /// read to its end and dropped. The input ends at end of file, at a read error, or on the shutdown signal; the last
  /// two also drop a line that is not complete.
  Result Next(std::string& line);

  /// The errno of the read that failed, or 0.
  int error() const { return error_; }

 private:
  bool Fill();

  int fd_;
  const ShutdownSignal& shutdown_;
  std::string buffer_;
  std::size_t position_ = 0;
  int error_ = 0;
};

}  // namespace desk
