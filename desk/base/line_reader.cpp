#include "base/line_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace desk {

LineReader::Result LineReader::Next(std::string& line) {
  line.clear();
  bool is_empty = true;
  bool is_too_long = false;
  bool is_complete = false;
  while (!is_complete && (position_ < buffer_.size() || Fill())) {
    is_empty = false;
    const std::size_t end = std::min(buffer_.find('\n', position_), buffer_.size());
    is_complete = end < buffer_.size();
    is_too_long = is_too_long || line.size() + (end - position_) > kMaxLine;
    if (!is_too_long) {
      line.append(buffer_, position_, end - position_);
    }
    position_ = is_complete ? end + 1 : end;
  }
  if (is_empty || error_ != 0 || shutdown_.IsRaised()) {
    return Result::kEnd;
  }
  return is_too_long ? Result::kTooLong : Result::kLine;
}

/// Reads the next part of the input; false at its end and after an error.
bool LineReader::Fill() {
  constexpr std::size_t kChunk = 16'384;
  buffer_.resize(kChunk);
  position_ = 0;
  ssize_t count = 0;
  do {
    count = shutdown_.WaitFor(fd_) ? read(fd_, buffer_.data(), buffer_.size()) : 0;
  } while (count < 0 && (errno == EINTR || errno == EAGAIN));
  error_ = count < 0 ? errno : 0;
  buffer_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return count > 0;
}

}  // namespace desk
