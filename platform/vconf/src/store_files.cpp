#include "store_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include "changes.h"
#include "dlog.h"
#include "shared_lock.h"

namespace vconf::store_files {
namespace {

const std::string kNewDatabase = std::string(Folder::kDatabase) + Folder::kUnfinished;
const std::string kNewRegion = std::string(Folder::kRegion) + Folder::kUnfinished;

using RegionResult = Result<std::unique_ptr<Region>>;

RegionResult IfOk(Status status, RegionResult region) { return status.ok() ? std::move(region) : std::move(status); }

bool IsUnfinished(const std::string& name) { return name.find(Folder::kUnfinished) != std::string::npos; }
// Whether it is the name of a file of the previous version.
bool IsOld(const std::string& name) { return name == Folder::kOldStore || name == "lock.mdb" || name == "bell"; }

// Fills a region that no other process uses yet. Its change numbers are above `last` and begin at a multiple of the
// ring's full size, so that the ring is doubled before it overwrites a change. `number` is that of the last commit.
Status Fill(Region& region, const std::vector<Row>& rows, std::uint64_t number, std::uint64_t last) {
  last = (last + layout::kMaxRecords - 1) / layout::kMaxRecords * layout::kMaxRecords;
  region.header().last = last;
  region.header().first_kept = last + 1;
  Publisher publisher(region);
  Table table(region);
  std::vector<std::uint32_t> keys;
  const bool fits = publisher.status().ok() && std::all_of(rows.begin(), rows.end(), [&](const Row& row) {
                      return table.Prepare(row.path, &*row.value, &keys.emplace_back());
                    });
  if (fits) {
    publisher.Publish(keys);
  }
  region.header().published = number;
  return fits ? Status() : Status(Code::kFull, region.file() + ": there is no space for it; make room on its disk");
}

// Creates a region from `rows` under a temporary name.
RegionResult MakeRegion(const Folder& folder, ino_t database, const std::vector<Row>& rows, std::uint64_t number,
                        std::uint64_t last) {
  auto region = Region::Make(folder, kNewRegion, database);
  Status status = region.ok() ? Fill(**region, rows, number, last) : region.status();
  return IfOk(std::move(status), std::move(region));
}

// The counters that a new region takes from the old one, which may be of another boot or missing; 0 if not known.
struct Counters {
  std::uint64_t last = 0;       // the number of its last change, from which the next region continues
  std::uint64_t published = 0;  // the number of its last commit
};
Counters CountersOf(const RegionResult& region) {
  constexpr std::uint64_t kBelievable = std::uint64_t{1} << 48U;
  if (!region.ok()) {
    return {};
  }
  const layout::Header& header = (*region)->header();
  const bool known = header.format == layout::kFormat && ((*region)->IsWhole() || header.state == layout::kReplaced);
  return {header.last < kBelievable ? header.last.load() : 0,
          known && header.published < kBelievable ? header.published.load() : 0};
}

// A folder in which the creation of a store was interrupted counts as empty.
Result<bool> IsEmpty(const Folder& folder) {
  const auto names = folder.Names();
  if (!names.ok()) {
    return names.status();
  }
  const bool begun = std::find(names->begin(), names->end(), kNewDatabase) != names->end();
  return std::all_of(names->begin(), names->end(),
                     [&](const std::string& name) { return IsUnfinished(name) || (begun && name == Folder::kRegion); });
}

// A new store, complete except for the final names of its files.
RegionResult Build(const Folder& folder, const std::vector<Row>& rows, std::uint64_t last) {
  std::vector<Row> lasting;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(lasting),
               [](const Row& row) { return !row.path.starts_with(kMemoryPrefix); });
  struct stat about = {};
  Status status = Database::Make(folder, kNewDatabase, lasting);
  if (status.ok()) {
    status = folder.Check(kNewDatabase, &about);
  }
  return status.ok() ? MakeRegion(folder, about.st_ino, rows, 1, last) : status;
}

// A store exists as soon as there is a database, so the database is renamed last.
Status Establish(const Folder& folder) {
  Status status = folder.Rename(kNewRegion, Folder::kRegion);
  if (status.ok()) {
    status = folder.Rename(kNewDatabase, Folder::kDatabase);
  }
  return status.ok() ? folder.Sync() : status;
}

RegionResult Create(const Folder& folder, const std::vector<Row>& rows) {
  auto region = Build(folder, rows, 0);
  return IfOk(region.ok() ? Establish(folder) : Status(), std::move(region));
}

RegionResult Convert(const Folder& folder) {
  std::vector<Row> rows;
  Status status = ReadOldStore(folder, [&](Row row) { rows.push_back(std::move(row)); });
  auto region = status.ok() ? Create(folder, rows) : std::move(status);
  if (region.ok()) {
    const auto moved = folder.MoveAway(IsOld);
    __dlog_print(
        2, 4, "VCONF", "%s: was converted from an earlier version; its old files %s%s", folder.path().c_str(),
        moved.ok() ? "are in " : "could not be moved: ", moved.ok() ? moved->c_str() : moved.status().text().c_str());
  }
  return region;
}

// The keys on disk. SQLite takes damage in the log for its end; the previous region has the real number of commits.
Status ReadAll(Database& database, const RegionResult& before, std::vector<Row>* rows, std::uint64_t* number) {
  Status status = database.Read(true, rows, number);
  return status.ok() ? database.CheckNumber(*number, CountersOf(before).published) : status;
}

bool HasOldStore(const Folder& folder) {
  struct stat about = {};
  return folder.Check(Folder::kOldStore, &about).ok();
}

// A private, read-only region, for a folder in which this process may not create one.
RegionResult MakePrivate(const Folder& folder) {
  auto database = Database::Open(folder, false);
  if (database.status().code() == Code::kMissing) {
    return HasOldStore(folder)
               ? Status(Code::kReadOnly,
                        folder.File(Folder::kOldStore) +
                            ": has the format of an earlier version; its owner must open it once to convert it")
               : Status(Code::kMissing,
                        folder.path() + ": there is no store here, and this process may not create one");
  }
  auto region = Region::MakePrivate(folder);
  std::vector<Row> rows;
  std::uint64_t number = 0;
  Status status = !database.ok() ? database.status() : region.status();
  if (status.ok()) {
    status = ReadAll(**database, Region::OpenAny(folder), &rows, &number);
  }
  if (status.ok()) {
    status = Fill(**region, rows, number, 0);
  }
  return IfOk(std::move(status), std::move(region));
}

// The last value of each path.
std::vector<Row> RowsOf(const std::vector<Entry>& entries) {
  std::map<std::string, Value> last;
  for (const Entry& entry : entries) {
    last.insert_or_assign(entry.path, entry.value);
  }
  std::vector<Row> rows;
  rows.reserve(last.size());
  for (auto& [path, value] : last) {
    rows.push_back({path, std::move(value)});
  }
  return rows;
}

// For the first process: a new store, an old one, or a store without a region of this boot.
RegionResult MakeFirst(const Folder& folder, const std::vector<Entry>* initial) {
  const auto lock = folder.Lock();
  const auto free = lock.ok() ? IsEmpty(folder) : lock.status();
  ino_t inode = 0;
  Status status = free.ok() ? CheckDatabase(folder, &inode) : free.status();
  if (status.code() == Code::kMissing && free.ok()) {
    return HasOldStore(folder) ? Convert(folder)
           : !*free
               ? Status(
                     Code::kMissing,
                     folder.path() +
                         ": has files in it but no keys.db, so it is not a store; use another folder, or an empty one")
           : initial != nullptr ? Create(folder, RowsOf(*initial))
                                : Status(Code::kMissing, folder.path() + ": there is no store here");
  }
  auto region = status.ok() ? Region::Open(folder, inode) : std::move(status);
  if (region.status().code() != Code::kMissing) {
    return region;  // of another process that was faster
  }
  const auto before = Region::OpenAny(folder);
  if (before.ok() && (*before)->writable()) {
    (*before)->MarkReplaced();
  }
  std::vector<Row> rows;
  std::uint64_t number = 0;
  {
    const auto database = Database::Open(folder, true);
    status = database.ok() ? ReadAll(**database, before, &rows, &number) : database.status();
  }
  if (status.ok()) {
    region = MakeRegion(folder, inode, rows, number, CountersOf(before).last);
    status = region.ok() ? folder.Rename(kNewRegion, Folder::kRegion) : region.status();
  }
  // With a full disk the store can at least be read.
  return status.code() == Code::kFull ? MakePrivate(folder) : IfOk(std::move(status), std::move(region));
}

Result<Folder> OpenOrMakeFolder(const std::string& directory, bool make) {
  auto folder = Folder::Open(directory);
  if (!folder.ok() && folder.status().code() == Code::kMissing && make) {
    if (Status made = Folder::Make(directory); !made.ok()) {
      return made;
    }
    folder = Folder::Open(directory);
    if (const auto above = folder.ok() ? Folder::Open(folder->path() + "/..") : folder.status(); above.ok()) {
      static_cast<void>(above->Sync());
    }
  }
  return folder;
}

}  // namespace

Result<Opened> Attach(const std::string& directory, const std::vector<Entry>* initial, bool may_be_private) {
  auto folder = OpenOrMakeFolder(directory, initial != nullptr);
  if (!folder.ok()) {
    return folder.status();
  }
  ino_t inode = 0;
  Status status = CheckDatabase(*folder, &inode);
  auto region = status.ok() ? Region::Open(*folder, inode) : std::move(status);
  if (region.status().code() == Code::kMissing && (folder->may_write() || may_be_private)) {
    region = folder->may_write() ? MakeFirst(*folder, initial) : MakePrivate(*folder);
  }
  return region.ok() ? Result(Opened{*std::move(folder), *std::move(region)}) : region.status();
}

Result<std::string> Replace(const std::string& directory, const std::vector<Entry>& initial) {
  auto folder = Folder::Open(directory);
  if (!folder.ok()) {
    return folder.status();
  }
  if (!folder->may_write()) {
    return SystemFailure(directory, EROFS);
  }
  const auto lock = folder->Lock();
  const auto is_ours = [](const std::string& name) {
    return !IsUnfinished(name) && (name.starts_with(Folder::kDatabase) || name == Folder::kRegion || IsOld(name));
  };
  const auto names = folder->Names();
  if (!lock.ok() || !names.ok()) {
    return lock.ok() ? names.status() : lock.status();
  }
  if (std::none_of(names->begin(), names->end(), is_ours)) {
    return Status(Code::kMissing, directory + ": there is no store here");
  }
  const auto before = Region::OpenAny(*folder);
  const auto region = Build(*folder, RowsOf(initial), CountersOf(before).last);
  if (!region.ok()) {
    return region.status();
  }
  // Waits for a running commit, up to the time limit.
  std::optional<SharedLock> writing;
  if (before.ok() && (*before)->IsWhole() && (*before)->writable()) {
    writing.emplace((*before)->header().disk_lock, "writing to disk");
  }
  // Done first, so that no process continues with a region that is no longer in the folder. A process that looks for
  // the new region waits for the folder's lock; if this process dies before, that one creates a region from the files.
  if (before.ok() && (*before)->writable()) {
    (*before)->MarkReplaced();
  }
  auto moved = folder->MoveAway(is_ours);
  if (!moved.ok()) {
    return moved;
  }
  Status status = Establish(*folder);
  return status.ok() ? std::move(moved) : Result<std::string>(std::move(status));
}

}  // namespace vconf::store_files
