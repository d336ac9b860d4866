// Changes of keys on disk, and publishing commits that another writer did not publish.
#include <algorithm>
#include <thread>
#include <utility>

#include "store.h"

namespace vconf {
namespace {

// Values of `Header::committing`: a commit may be only in the database, or a process is publishing it.
constexpr std::uint32_t kCommitting = 1;
constexpr std::uint32_t kRecovering = 2;

}  // namespace

Status Store::ChangeOnDisk(Region& region, const Plan& plan) {
  layout::Header& header = region.header();
  // First the lock with a time limit: otherwise the threads of this process would wait one after the other.
  const SharedLock lock(header.disk_lock, "writing to disk");
  const std::lock_guard mine(database_mutex_);
  Status status = lock.status(region.file());
  if (status.ok() && !region.IsWhole()) {
    return {Code::kRemoved, region.file() + ": was replaced; repeat the call"};
  }
  if (status.ok()) {
    status = Connect(region);
  }
  if (status.ok() && header.committing != 0) {
    status = Recover(region);
  }
  std::vector<Row> rows;
  std::vector<std::uint32_t> keys;
  if (status.ok()) {
    status = plan(region, &rows);
  }
  if (!status.ok() || rows.empty()) {
    return status;
  }
  {
    const Publisher publisher(region);
    status = publisher.status().ok() ? Prepare(Home::kDisk, region, rows, &keys) : publisher.status();
    if (!status.ok()) {
      return status;
    }
    header.committing = kCommitting;  // with the lock held, so that no `Sweep` frees what is prepared
  }
  const std::uint64_t number = header.published + 1;
  status = database_->Write(rows, number);
  if (!status.ok()) {
    // If the outcome is not known, the next change reads it from the database.
    header.committing = database_->may_be_in_log() ? kCommitting : 0;
    return status;
  }
  Publisher publisher(region);
  if (publisher.status().ok()) {
    publisher.Publish(keys);
    header.published = number;
    header.committing = 0;
  }
  return publisher.status();
}

Status Store::Connect(const Region& region) {
  const Folder& folder = opened_.back().folder;
  struct stat about = {};
  if (!folder.Check(Folder::kDatabase, &about).ok() || about.st_ino != region.header().database) {
    database_.reset();
    return {Code::kRemoved,
            folder.File(Folder::kDatabase) + ": was removed or replaced while it was in use; restart this program"};
  }
  if (database_ != nullptr && database_->HasIndex(folder)) {
    return database_->CheckHead();
  }
  database_.reset();
  auto opened = Database::Open(folder, true);
  if (!opened.ok()) {
    return opened.status();
  }
  const auto number = (*opened)->LastNumber();
  Status status = number.ok() ? (*opened)->CheckNumber(*number, region.header().published) : number.status();
  if (status.ok()) {
    database_ = *std::move(opened);
    database_->ReserveLog();
  }
  return status;
}

// Publishes commits that a dead or failed writer did not publish.
Status Store::Recover(Region& region) {
  layout::Header& header = region.header();
  header.committing = kRecovering;
  Status status = PublishFromDisk(region);
  header.committing = kCommitting;
  // A commit whose sync failed may be in the log behind its end, where SQLite finds it when it opens the log anew.
  // Another commit overwrites it.
  const std::uint64_t number = header.published + 1;
  if (status.ok()) {
    status = database_->Write({}, number);
  }
  if (status.ok()) {
    header.published = number;
    header.committing = 0;
  }
  return status;
}

Status Store::PublishFromDisk(Region& region) {
  std::vector<Row> rows;
  std::uint64_t number = 0;
  Status status = database_->Read(false, &rows, &number);
  if (!status.ok()) {
    return status;
  }
  Wanted wanted;
  for (Row& row : rows) {
    wanted.insert_or_assign(std::move(row.path), *std::move(row.value));
  }
  Publisher publisher(region);
  std::vector<Entry> held;
  std::vector<Row> changes;
  std::vector<std::uint32_t> keys;
  Code code = Code::kOk;
  for (const std::string_view prefix : {std::string_view("db/"), std::string_view("set/"), kFaultPrefix}) {
    code = code == Code::kOk ? Table(region).List(prefix, &held) : code;
  }
  status = publisher.status().ok() ? ToStatus(code, "", region) : publisher.status();
  if (status.ok()) {
    Difference(held, wanted, &changes);
    status = Prepare(Home::kDisk, region, changes, &keys);
  }
  if (status.ok()) {
    publisher.Publish(keys);
    region.header().published = std::max<std::uint64_t>(number, region.header().published);
  }
  return status;
}

// Commits that were not published are published when a store is opened, or before the next write.
void Store::RecoverIfNeeded() {
  Region& now = region();
  while (now.writable() && now.is_shared()) {
    const SharedLock lock(now.header().disk_lock, "writing to disk", false);
    if (lock.held()) {
      if (now.header().committing != 0) {
        Status status = Connect(now);
        static_cast<void>(LogWrite(Home::kDisk, status.ok() ? Recover(now) : status));
      }
      return;
    }
    // Another process holds the lock. Waits only if it is publishing such commits.
    if (now.header().committing != kRecovering || WaitLimit::Left().count() == 0) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace vconf
