#include "database.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "shared_lock.h"

namespace vconf {
namespace {

constexpr std::uint32_t kApplication = 0x6d697261;

// The size of the log in pages at which a checkpoint is made.
constexpr int kLogPages = 256;

constexpr const char* kPut = "INSERT OR REPLACE INTO entries VALUES (?1, ?2, ?3, ?4)";
constexpr const char* kRemove = "DELETE FROM entries WHERE path = ?1";

// The row with the number of the last commit that only removed rows. It is not a key.
constexpr const char* kRemoval = "!removal";

std::uint64_t Mix(std::uint64_t hash, std::string_view bytes) {
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15U;
  hash = (hash ^ bytes.size()) * kOdd;
  for (const char byte : bytes) {
    hash = (hash ^ static_cast<unsigned char>(byte)) * kOdd;
    hash ^= hash >> 32U;
  }
  return hash;
}

// A bool is stored as 'true' or 'false', so that its type is known and a person can read it; a text begins with a
// quote.
std::string TextOf(const Value& value) {
  if (const int* const number = std::get_if<int>(&value)) {
    return std::to_string(*number);
  }
  if (const bool* const flag = std::get_if<bool>(&value)) {
    return *flag ? "true" : "false";
  }
  return '"' + std::get<std::string>(value);
}

Value ValueOf(const std::string& text) {
  if (text.starts_with('"')) {
    return text.substr(1);
  }
  if (text == "true" || text == "false") {
    return text == "true";
  }
  return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

sqlite3_int64 Checksum(std::string_view path, std::uint64_t number, std::string_view value) {
  return static_cast<sqlite3_int64>(Mix(Mix(Mix(0, path), std::to_string(number)), value));
}

void Bind(sqlite3_stmt* statement, int at, std::string_view text) {
  sqlite3_bind_text(statement, at, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string Column(sqlite3_stmt* statement, int at) {
  const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement, at));
  return text != nullptr ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, at))) : "";
}

// The header of the file, with the application id. It also has the number of pages, but during a checkpoint, or after
// an interrupted one, only the log has the right number.
using Head = std::array<unsigned char, 100>;
bool IsHead(const Head& head) {
  constexpr std::array<unsigned char, 4> kWhose = {kApplication >> 24U, (kApplication >> 16U) & 0xffU,
                                                   (kApplication >> 8U) & 0xffU, kApplication & 0xffU};
  return std::memcmp(head.data(), "SQLite format 3", 16) == 0 &&
         std::memcmp(head.data() + 68, kWhose.data(), kWhose.size()) == 0;
}

Status Damaged(const std::string& file) {
  return {Code::kDamaged, file + ": is damaged; restore it, or replace the store"};
}

}  // namespace

Status CheckDatabase(const Folder& folder, ino_t* inode) {
  struct stat about = {};
  const auto file = folder.OpenFile(Folder::kDatabase, O_RDONLY, &about);
  if (!file.ok()) {
    return file.status();
  }
  *inode = about.st_ino;
  Head head{};
  if (pread(file->get(), head.data(), head.size(), 0) != static_cast<ssize_t>(head.size()) || !IsHead(head)) {
    return Damaged(folder.File(Folder::kDatabase));
  }
  for (const char* const suffix : {"-wal", "-shm"}) {
    Status status = folder.Check(std::string(Folder::kDatabase) + suffix, &about);
    if (!status.ok() && status.code() != Code::kMissing) {
      return status;
    }
  }
  return {};
}

Result<std::unique_ptr<Database>> Database::Connect(const std::string& file, int flags) {
  sqlite3* connection = nullptr;
  const int result = sqlite3_open_v2(
      file.c_str(), &connection, flags | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE, "unix");
  std::unique_ptr<Database> database(new Database(connection, file));
  if (result != SQLITE_OK) {
    return database->Failure(result);
  }
  sqlite3_extended_result_codes(connection, 1);
  sqlite3_busy_handler(
      connection,
      [](void*, int) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return WaitLimit::Left().count() > 0 ? 1 : 0;
      },
      nullptr);
  // Only statements of this file are run: a schema changed by another program must not run its own.
  sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  Status status = database->Run("PRAGMA synchronous = FULL");
  if (status.ok()) {
    sqlite3_wal_autocheckpoint(connection, kLogPages);
  }
  return status.ok() ? Result(std::move(database)) : std::move(status);
}

Status Database::Make(const Folder& folder, const std::string& name, const std::vector<Row>& rows) {
  for (const char* const suffix : {"-wal", "-shm", "-journal"}) {
    folder.Remove(name + suffix);
  }
  const auto file = folder.MakeFile(name);
  if (!file.ok()) {
    return file.status();
  }
  auto made = Connect(folder.File(name), SQLITE_OPEN_READWRITE);
  if (!made.ok()) {
    return made.status();
  }
  Database& database = **made;
  // Nobody uses the file before it is renamed, so one sync at the end makes it durable. The database shrinks when keys
  // are removed: otherwise, on a full disk, the log could not be copied to it.
  const std::string head =
      "PRAGMA synchronous = OFF; PRAGMA auto_vacuum = FULL; PRAGMA application_id = " + std::to_string(kApplication) +
      "; PRAGMA journal_mode = WAL; CREATE TABLE entries (path TEXT PRIMARY KEY, number INTEGER, "
      "value TEXT, checksum INTEGER) WITHOUT ROWID";
  Status status = database.Run(head.c_str());
  if (status.ok()) {
    status = database.Write(rows, 1);
  }
  if (status.ok()) {
    status = database.Run("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  made->reset();
  return !status.ok() || fsync(file->get()) == 0 ? status : SystemFailure(folder.File(name), errno);
}

Result<std::unique_ptr<Database>> Database::Open(const Folder& folder, bool writable) {
  ino_t inode = 0;
  if (Status status = CheckDatabase(folder, &inode); !status.ok()) {
    return status;
  }
  auto opened = Connect(folder.File(Folder::kDatabase), writable ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY);
  if (opened.ok()) {
    // No checkpoint at the last close: the regular checkpoints are sufficient.
    sqlite3_db_config((*opened)->connection_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  }
  return opened;
}

// Fills the log with zeros, which SQLite does not take for commits. The transaction keeps all other writers out.
void Database::ReserveLog() {
  constexpr sqlite3_int64 kLogSize = 32 + (kLogPages + 2) * (4096 + 24);  // header; a page and its frame header each
  constexpr int kStep = 65536;
  sqlite3_file* log = nullptr;
  sqlite3_int64 size = 0;
  if (Run("BEGIN IMMEDIATE").ok() &&
      sqlite3_file_control(connection_, nullptr, SQLITE_FCNTL_JOURNAL_POINTER, &log) == SQLITE_OK &&
      log->pMethods != nullptr && log->pMethods->xFileSize(log, &size) == SQLITE_OK && size < kLogSize) {
    const std::string zeros(kStep, '\0');
    while (size < kLogSize && log->pMethods->xWrite(log, zeros.data(), kStep, size) == SQLITE_OK) {
      size += kStep;
    }
    static_cast<void>(log->pMethods->xSync(log, SQLITE_SYNC_NORMAL));
  }
  static_cast<void>(Run("COMMIT"));
}

Database::~Database() {
  sqlite3_finalize(put_);
  sqlite3_finalize(remove_);
  sqlite3_close(connection_);
}

Status Database::Failure(int result) const {
  const int last = errno;
  const int known = sqlite3_system_errno(connection_);  // 0 if it was the commit that failed
  const int error = known != 0 ? known : last;
  switch (result & 0xff) {
    case SQLITE_FULL:
      return SystemFailure(file_, ENOSPC);
    case SQLITE_READONLY:
      return SystemFailure(file_, EROFS);
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_SCHEMA:
    case SQLITE_ERROR:  // such as a missing table
      return Damaged(file_);
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_PROTOCOL:  // was locked while it was being opened
      return {Code::kBusy, file_ + ": " + HolderOf({file_, file_ + "-shm"}) +
                               " has kept it locked too long; resume or end that process"};
    case SQLITE_IOERR:
      if (result == SQLITE_IOERR_SHORT_READ) {
        return Damaged(file_);
      }
      [[fallthrough]];
    case SQLITE_CANTOPEN:
      if (error != 0) {
        return SystemFailure(file_, error);
      }
      [[fallthrough]];
    default:
      return {Code::kFailed, file_ + ": " + sqlite3_errstr(result)};
  }
}

Status Database::Run(const char* statement) {
  const int result = sqlite3_exec(connection_, statement, nullptr, nullptr, nullptr);
  return result == SQLITE_OK ? Status() : Failure(result);
}

Status Database::Prepare(const char* text, sqlite3_stmt** statement) {
  const int result = *statement != nullptr
                         ? SQLITE_OK
                         : sqlite3_prepare_v3(connection_, text, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr);
  return result == SQLITE_OK ? Status() : Failure(result);
}

// Calls `on_row` with each row, until it fails.
Status Database::Query(const char* text, const std::function<Status(sqlite3_stmt*)>& on_row) {
  sqlite3_stmt* statement = nullptr;
  Status status = Prepare(text, &statement);
  int result = SQLITE_DONE;
  while (status.ok() && (result = sqlite3_step(statement)) == SQLITE_ROW) {
    status = on_row(statement);
  }
  if (status.ok() && result != SQLITE_DONE) {
    status = Failure(result);
  }
  sqlite3_finalize(statement);
  return status;
}

Status Database::Read(bool thorough, std::vector<Row>* rows, std::uint64_t* number) {
  Status status = !thorough ? Status() : Query("PRAGMA quick_check(1)", [this](sqlite3_stmt* result) {
    return Column(result, 0) == "ok" ? Status() : Damaged(file_);
  });
  if (!status.ok()) {
    return status;
  }
  return Query("SELECT path, number, value, checksum FROM entries ORDER BY number", [&](sqlite3_stmt* result) {
    std::string path = Column(result, 0);
    *number = static_cast<std::uint64_t>(sqlite3_column_int64(result, 1));
    const std::string value = Column(result, 2);
    if (sqlite3_column_int64(result, 3) != Checksum(path, *number, value)) {
      return Damaged(file_);
    }
    if (path != kRemoval) {
      rows->push_back({std::move(path), ValueOf(value)});
    }
    return Status();
  });
}

Result<std::uint64_t> Database::LastNumber() {
  std::uint64_t number = 0;
  Status status = Query("SELECT max(number) FROM entries", [&](sqlite3_stmt* result) {
    number = static_cast<std::uint64_t>(sqlite3_column_int64(result, 0));
    return Status();
  });
  return status.ok() ? Result(number) : std::move(status);
}

Status Database::CheckNumber(std::uint64_t number, std::uint64_t known) const {
  return number >= known
             ? Status()
             : Status(Code::kDamaged,
                      file_ + ": lacks the last " + std::to_string(known - number) + " of " + std::to_string(known) +
                          " commits, so its log (-wal) is damaged or missing; restore the files of the "
                          "store, or remove the file `live` in the store's folder to continue without these commits");
}

Status Database::WriteRow(const Row& row, std::uint64_t number) {
  sqlite3_stmt*& statement = row.value ? put_ : remove_;
  if (Status status = Prepare(row.value ? kPut : kRemove, &statement); !status.ok()) {
    return status;
  }
  Bind(statement, 1, row.path);
  if (row.value) {
    const std::string value = TextOf(*row.value);
    sqlite3_bind_int64(statement, 2, static_cast<sqlite3_int64>(number));
    Bind(statement, 3, value);
    sqlite3_bind_int64(statement, 4, Checksum(row.path, number, value));
  }
  const int result = sqlite3_step(statement);
  sqlite3_reset(statement);
  return result == SQLITE_DONE ? Status() : Failure(result);
}

Status Database::WriteRows(const std::vector<Row>& rows, std::uint64_t number) {
  const bool removes = std::none_of(rows.begin(), rows.end(), [](const Row& row) { return row.value.has_value(); });
  const bool alone = rows.size() == 1 && !removes;  // commits by itself
  Status status = alone ? Status() : Run("BEGIN IMMEDIATE");
  for (const Row& row : rows) {
    if (status.ok()) {
      status = WriteRow(row, number);
    }
  }
  if (status.ok() && removes) {
    status = WriteRow({kRemoval, 0}, number);
  }
  if (status.ok() && !alone) {
    status = Run("COMMIT");
  }
  may_be_in_log_ = may_be_in_log_ || (!status.ok() && (sqlite3_errcode(connection_) & 0xff) == SQLITE_IOERR);
  if (!status.ok() && sqlite3_get_autocommit(connection_) == 0) {
    static_cast<void>(Run("ROLLBACK"));
  }
  return status;
}

Status Database::Write(const std::vector<Row>& rows, std::uint64_t number) {
  may_be_in_log_ = false;
  Status status = WriteRows(rows, number);
  if (status.code() == Code::kFull) {
    // On a full disk the log has space again after its content was copied to the database.
    static_cast<void>(Run("PRAGMA wal_checkpoint(RESTART)"));
    status = WriteRows(rows, number);
  }
  sqlite3_db_release_memory(
      connection_);  // drops cached pages, so that the next commit reads the file and detects damage
  return status;
}

Status Database::CheckHead() const {
  sqlite3_file* file = nullptr;
  Head head{};
  const bool sound = sqlite3_file_control(connection_, nullptr, SQLITE_FCNTL_FILE_POINTER, &file) == SQLITE_OK &&
                     file->pMethods->xRead(file, head.data(), head.size(), 0) == SQLITE_OK && IsHead(head);
  return sound ? Status() : Damaged(file_);
}

bool Database::HasIndex(const Folder& folder) const {
  struct stat about = {};
  constexpr off_t kIndexPage = 32768;  // the index grows in units of this
  const Status index = folder.Check(std::string(Folder::kDatabase) + "-shm", &about);
  return index.ok() ? about.st_size >= kIndexPage : put_ == nullptr && remove_ == nullptr;
}

}  // namespace vconf
