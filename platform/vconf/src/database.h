#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "folder.h"
#include "vconf_control.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vconf {

/// One key on disk, or a change to one; without a value it is removed.
struct Row {
  std::string path;
  std::optional<Value> value;
};

/// The keys on disk: an SQLite database in WAL mode, which is synced with each commit. Each row has the number of its
/// commit, and a checksum, since SQLite has none over its pages. One thread at a time, and one writing process.
class Database {
 public:
  /// Creates a database with `rows` in the file `name`. It is complete and durable when this returns.
  static Status Make(const Folder& folder, const std::string& name, const std::vector<Row>& rows);

  /// Opens the database of `folder`.
  static Result<std::unique_ptr<Database>> Open(const Folder& folder, bool writable);

  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  ~Database();

  /// Appends all rows in the order of their commits, and sets `number` to the highest. `thorough` checks each page.
  Status Read(bool thorough, std::vector<Row>* rows, std::uint64_t* number);

  /// Reads only the highest number.
  Result<std::uint64_t> LastNumber();

  /// `kDamaged` if `number`, the last commit in the database, is less than `known`: the log has lost commits.
  Status CheckNumber(std::uint64_t number, std::uint64_t known) const;

  /// Makes one commit, also without rows. Durable when it returns. After a failure this connection does not see it.
  Status Write(const std::vector<Row>& rows, std::uint64_t number);

  /// Whether the last `Write` failed when it wrote or synced the log. Then the commit may be visible when the database
  /// is opened anew, unless another commit is made before.
  bool may_be_in_log() const { return may_be_in_log_; }

  /// Extends the log to its size before a checkpoint. A sync of a file that does not grow is one write to the disk
  /// instead of several, and the space stays available if the disk gets full.
  void ReserveLog();

  /// `kDamaged` if the file no longer begins with the header of a database.
  Status CheckHead() const;

  /// Whether the index of the log is there and not truncated, or not needed yet: SQLite maps it.
  bool HasIndex(const Folder& folder) const;

 private:
  Database(sqlite3* connection, std::string file) : connection_(connection), file_(std::move(file)) {}

  static Result<std::unique_ptr<Database>> Connect(const std::string& file, int flags);
  Status Run(const char* statement);
  Status Prepare(const char* text, sqlite3_stmt** statement);
  Status Query(const char* text, const std::function<Status(sqlite3_stmt*)>& on_row);
  Status WriteRow(const Row& row, std::uint64_t number);
  Status WriteRows(const std::vector<Row>& rows, std::uint64_t number);
  Status Failure(int result) const;

  sqlite3* connection_;
  const std::string file_;
  sqlite3_stmt* put_ = nullptr;
  sqlite3_stmt* remove_ = nullptr;
  bool may_be_in_log_ = false;
};

/// Whether the file of `folder` has the header of a database of this store. The failure is the one that opening it
/// would give.
Status CheckDatabase(const Folder& folder, ino_t* inode);

}  // namespace vconf
