#include "base/line_writer.h"

#include <cerrno>

#include "base/files.h"

namespace desk {

void LineWriter::Write(std::string line) {
  line += '\n';
  const std::lock_guard lock(mutex_);
  if (error_ == 0 && !WriteAll(fd_, line)) {
    error_ = errno;
    on_error_();
  }
}

int LineWriter::error() {
  const std::lock_guard lock(mutex_);
  return error_;
}

}  // namespace desk
