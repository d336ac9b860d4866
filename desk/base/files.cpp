#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "base/unique_fd.h"

namespace desk {

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = TEMP_FAILURE_RETRY(write(fd, bytes.data(), bytes.size()));
    if (count < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

vconf::Status FileStatus(int error, const std::string& file) {
  const auto code = [error] {
    switch (error) {
      case ENOENT:
        return vconf::Code::kMissing;
      case EACCES:
      case EPERM:
        return vconf::Code::kNotPermitted;
      case EROFS:
        return vconf::Code::kReadOnly;
      case ENOSPC:
      case EDQUOT:
        return vconf::Code::kFull;
      default:
        return vconf::Code::kFailed;
    }
  };
  return {code(), file + ": " + std::generic_category().message(error)};
}

vconf::Result<std::string> ReadFile(const std::string& file) {
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!fd || fstat(fd.get(), &status) != 0) {
    return FileStatus(errno, file);
  }
  if (!S_ISREG(status.st_mode)) {
    return vconf::Status(vconf::Code::kFailed,
                         file + (S_ISDIR(status.st_mode) ? ": is a folder, not a file" : ": is not a regular file"));
  }
  std::string content;
  std::array<char, 16'384> chunk{};
  ssize_t count = 0;
  while ((count = TEMP_FAILURE_RETRY(read(fd.get(), chunk.data(), chunk.size()))) > 0) {
    content.append(chunk.data(), static_cast<std::size_t>(count));
  }
  return count < 0 ? vconf::Result<std::string>(FileStatus(errno, file)) : std::move(content);
}

vconf::Status ReplaceFile(const std::string& file, std::string_view content) {
  const UniqueFd folder(open(std::filesystem::path(file).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::string building = file + "~XXXXXX";
  const UniqueFd fd(folder ? mkostemp(building.data(), O_CLOEXEC) : -1);
  if (!fd) {
    return FileStatus(errno, file);
  }
  if (WriteAll(fd.get(), content) && fsync(fd.get()) == 0 && rename(building.c_str(), file.c_str()) == 0 &&
      fsync(folder.get()) == 0) {
    return {};
  }
  const int error = errno;
  unlink(building.c_str());
  return FileStatus(error, file);
}

}  // namespace desk
