#pragma once

#include <filesystem>
#include <string_view>

#include "vconf_control.h"

namespace desk {

/// A new folder, readable by this user alone, that is removed with all that it holds when this object goes. It lies in
/// memory where TMPDIR names no other place.
class TemporaryFolder {
 public:
  /// `name` begins the folder's name.
  explicit TemporaryFolder(std::string_view name);
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  /// Ok, or why there is no such folder.
  const vconf::Status& status() const { return status_; }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  vconf::Status status_;
};

}  // namespace desk
