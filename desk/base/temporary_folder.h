#pragma once

#include <filesystem>
#include <string_view>

#include "vconf_control.h"

namespace desk {

/// A new folder that only this user can read. The destructor removes it with its content. It is in TMPDIR; if that is
/// not set, in /dev/shm or /tmp.
class TemporaryFolder {
 public:
  /// The folder's name begins with `name`.
  explicit TemporaryFolder(std::string_view name);
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  /// Why the folder could not be created, or ok.
  const vconf::Status& status() const { return status_; }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  vconf::Status status_;
};

}  // namespace desk
