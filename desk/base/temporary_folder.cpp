#include "base/temporary_folder.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

#include "base/files.h"
#include "base/standard_streams.h"

namespace desk {
namespace {

// A store syncs its files, which is fastest in memory.
std::filesystem::path Parent() {
  const char* named = getenv("TMPDIR");
  const char* usual = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
  return named != nullptr && *named != '\0' ? named : usual;
}

}  // namespace

TemporaryFolder::TemporaryFolder(std::string_view name) {
  std::string pattern = Parent() / (std::string(name) + "-XXXXXX");
  if (mkdtemp(pattern.data()) == nullptr) {
    status_ = FileStatus(errno, pattern);
  }
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
  if (status_.ok()) {
    std::error_code error;
    if (std::filesystem::remove_all(path_, error); error) {
      PrintError(path_.string() + ": the temporary folder cannot be removed: " + error.message());
    }
  }
}

}  // namespace desk
