#include "base/line_writer.h"

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace desk {

void LineWriter::Write(std::string line) {
  line += '\n';
  const std::lock_guard lock(mutex_);
  for (std::string_view rest = line; !rest.empty() && error_ == 0;) {
    const ssize_t count = TEMP_FAILURE_RETRY(write(fd_, rest.data(), rest.size()));
    if (count < 0) {
      error_ = errno;
      on_error_();
    } else {
      rest.remove_prefix(static_cast<std::size_t>(count));
    }
  }
}

int LineWriter::error() {
  const std::lock_guard lock(mutex_);
  return error_;
}

}  // namespace desk
