#pragma once

#include <string>
#include <string_view>

#include "vconf_control.h"

namespace desk {

/// The failure of a call on `file` that left `error` in errno.
vconf::Status FileStatus(int error, const std::string& file);

/// Writes all of `bytes` to `fd`; false after an error, which is in errno.
bool WriteAll(int fd, std::string_view bytes);

/// All bytes of a regular file.
vconf::Result<std::string> ReadFile(const std::string& file);

/// Replaces the content of `file` atomically and durably: a reader sees the old or the new content, also after a crash.
/// The folder must exist.
vconf::Status ReplaceFile(const std::string& file, std::string_view content);

}  // namespace desk
