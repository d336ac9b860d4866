#include "folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "shared_lock.h"

namespace vconf {
namespace {

namespace fs = std::filesystem;

Status Foreign(const std::string& file) {
  return {Code::kNotPermitted,
          file + ": is a symbolic link, is not a regular file, or belongs to another user than its folder; remove it"};
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  std::swap(number_, other.number_);
  return *this;
}

UniqueFd::~UniqueFd() {
  if (is_open()) {
    close(number_);
  }
}

Status SystemFailure(const std::string& file, int error) {
  const auto status = [&](Code code, const std::string& text) { return Status(code, file + ": " + text); };
  switch (error) {
    case ENOENT:
      return status(Code::kMissing, "does not exist");
    case EACCES:
    case EPERM:
      return status(Code::kNotPermitted, std::generic_category().message(error));
    case ENOTDIR:
      return status(Code::kFailed, "is not a folder, or its parent is not; use another path");
    case EROFS:
      return status(
          Code::kReadOnly,
          "can only be read by this process; run the program as the owner, or mount the file system for writing");
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return status(Code::kFull,
                    "the disk is full, or a quota or file-size limit is reached; make room or raise the limit");
    default:
      return status(Code::kFailed, std::generic_category().message(error));
  }
}

Result<Folder> Folder::Open(const std::string& directory) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(directory.c_str(), nullptr), std::free);
  UniqueFd opened(real != nullptr ? open(real.get(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1);
  struct stat about = {};
  if (!opened.is_open() || fstat(opened.get(), &about) != 0) {
    return errno == ENOENT ? Status(Code::kMissing, directory + ": there is no store here")
                           : SystemFailure(directory, errno);
  }
  const bool owns = about.st_uid == geteuid() || geteuid() == 0;
  const bool may_write = owns && faccessat(opened.get(), ".", W_OK | X_OK, AT_EACCESS) == 0;
  return Folder(real.get(), std::move(opened), about.st_uid, about.st_gid, may_write);
}

Status Folder::Make(const std::string& directory) {
  std::error_code failed;
  const fs::path path = fs::path(directory + "/").lexically_normal().parent_path();
  if (!path.parent_path().empty()) {
    fs::create_directories(path.parent_path(), failed);
  }
  if (!failed && mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    failed.assign(errno, std::generic_category());
  }
  return failed ? SystemFailure(directory, failed.value()) : Status();
}

Result<UniqueFd> Folder::OpenFile(const std::string& name, int flags, struct stat* about) const {
  // O_NONBLOCK, since opening a named pipe would wait for a process at its other end.
  UniqueFd file(openat(directory_.get(), name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.is_open() || fstat(file.get(), about) != 0) {
    return errno == ELOOP || errno == ENXIO || errno == EISDIR ? Foreign(File(name)) : SystemFailure(File(name), errno);
  }
  if (!S_ISREG(about->st_mode) || about->st_uid != owner_) {
    return Foreign(File(name));
  }
  return file;
}

Result<UniqueFd> Folder::MakeFile(const std::string& name) const {
  Remove(name);
  UniqueFd file(openat(directory_.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.is_open() || (geteuid() == 0 && fchown(file.get(), owner_, group_) != 0)) {
    return SystemFailure(File(name), errno);
  }
  return file;
}

Status Folder::Check(const std::string& name, struct stat* about) const {
  if (fstatat(directory_.get(), name.c_str(), about, AT_SYMLINK_NOFOLLOW) != 0) {
    return SystemFailure(File(name), errno);
  }
  return S_ISREG(about->st_mode) && about->st_uid == owner_ ? Status() : Foreign(File(name));
}

Status Folder::Rename(const std::string& from, const std::string& to) const {
  return renameat(directory_.get(), from.c_str(), directory_.get(), to.c_str()) == 0 ? Status()
                                                                                     : SystemFailure(File(to), errno);
}

void Folder::Remove(const std::string& name) const { unlinkat(directory_.get(), name.c_str(), 0); }

Status Folder::Sync() const { return fsync(directory_.get()) == 0 ? Status() : SystemFailure(path_, errno); }

Result<std::vector<std::string>> Folder::Names() const {
  std::error_code failed;
  std::vector<std::string> names;
  for (fs::directory_iterator at(path_, failed); !failed && at != fs::directory_iterator(); at.increment(failed)) {
    names.push_back(at->path().filename());
  }
  return failed ? Result<std::vector<std::string>>(SystemFailure(path_, failed.value())) : Result(std::move(names));
}

Result<std::string> Folder::MoveAway(const std::function<bool(const std::string& name)>& moves) const {
  const auto names = Names();
  if (!names.ok()) {
    return names.status();
  }
  int error = 0;
  for (const std::string& place : {path_ + ".replaced-", File("replaced-")}) {
    std::string target;
    int number = 0;
    do {
      target = place;
      target += std::to_string(++number);
      error = mkdir(target.c_str(), 0700) == 0 ? 0 : errno;
    } while (error == EEXIST);
    if (error == 0 && geteuid() == 0) {
      const UniqueFd made(open(target.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      error = made.is_open() && fchown(made.get(), owner_, group_) == 0 ? 0 : errno;
    }
    for (const std::string& name : *names) {
      if (error == 0 && moves(name) && rename(File(name).c_str(), (target + '/').append(name).c_str()) != 0) {
        error = errno;
      }
    }
    if (error == 0) {
      return target;
    }
    if (rmdir(target.c_str()) != 0 && errno == ENOTEMPTY) {
      Status status = SystemFailure(path_, error);
      return Status(status.code(), status.text() + "; some of its files are already in " + target);
    }
  }
  return SystemFailure(path_, error);
}

FolderLock::~FolderLock() { flock(folder_.get(), LOCK_UN); }

Result<FolderLock> Folder::Lock() const {
  UniqueFd folder(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  while (folder.is_open() && flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      return SystemFailure(path_, errno);
    }
    if (WaitLimit::Left().count() == 0) {
      return Status(Code::kBusy,
                    path_ + ": " + HolderOf({path_}) +
                        " has been creating, loading or replacing the store for too long; resume or end that process");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return folder.is_open() ? Result(FolderLock(std::move(folder))) : SystemFailure(path_, errno);
}

}  // namespace vconf
