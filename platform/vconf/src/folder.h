#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "result.h"

namespace vconf {

/// Owns a file descriptor.
class UniqueFd {
 public:
  explicit UniqueFd(int number = -1) : number_(number) {}
  UniqueFd(UniqueFd&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  ~UniqueFd();

  int get() const { return number_; }
  bool is_open() const { return number_ >= 0; }

 private:
  int number_;
};

/// Holds the `flock` of a folder for its scope. It is released at the end even if a forked child has the descriptor.
class FolderLock {
 public:
  explicit FolderLock(UniqueFd folder) : folder_(std::move(folder)) {}
  FolderLock(FolderLock&&) = default;
  ~FolderLock();

 private:
  UniqueFd folder_;
};

/// The failure of a system call on `file`, from errno.
Status SystemFailure(const std::string& file, int error);

/// The folder of a store. Its files are opened without following links, and only when they belong to its owner.
///
/// The owner, or root on the owner's behalf, creates and writes the files. Others may read what they can open.
class Folder {
 public:
  static constexpr const char* kDatabase = "keys.db";
  static constexpr const char* kRegion = "live";
  static constexpr const char* kOldStore = "data.mdb";

  /// The suffix of a file's name until the file is complete.
  static constexpr const char* kUnfinished = ".new";

  /// `kMissing` if it does not exist.
  static Result<Folder> Open(const std::string& directory);

  /// Creates the folder, and its parents, unless it exists.
  static Status Make(const std::string& directory);

  /// Absolute and without symbolic links.
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

  /// Whether this process may create and write files here.
  bool may_write() const { return may_write_; }

  /// Opens a file of the folder. `kMissing`, or `kNotPermitted` if it is not a regular file of the owner.
  Result<UniqueFd> OpenFile(const std::string& name, int flags, struct stat* about) const;

  /// Creates a file of the owner, and replaces an existing one of this name.
  Result<UniqueFd> MakeFile(const std::string& name) const;

  /// `kMissing` if there is no such file, `kNotPermitted` if it is a link, not a regular file, or not the owner's.
  Status Check(const std::string& name, struct stat* about) const;

  Status Rename(const std::string& from, const std::string& to) const;
  void Remove(const std::string& name) const;

  /// Makes the names of the files durable (syncs the folder).
  Status Sync() const;

  Result<std::vector<std::string>> Names() const;

  /// Moves the files that `moves` selects to a new folder beside this one and returns its name. If the file system does
  /// not allow that, the new folder is inside this one.
  Result<std::string> MoveAway(const std::function<bool(const std::string& name)>& moves) const;

  /// Prevents other processes from creating or replacing the store until the result is destroyed.
  Result<FolderLock> Lock() const;

 private:
  Folder(std::string path, UniqueFd directory, uid_t owner, gid_t group, bool may_write)
      : path_(std::move(path)), directory_(std::move(directory)), owner_(owner), group_(group), may_write_(may_write) {}

  std::string path_;
  UniqueFd directory_;
  uid_t owner_;
  gid_t group_;
  bool may_write_;
};

}  // namespace vconf
