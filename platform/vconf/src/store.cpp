#include "store.h"

#include <algorithm>
#include <array>
#include <map>
#include <thread>
#include <utility>

#include "dlog.h"

namespace vconf {
namespace {

struct Room {
  std::string_view prefix;
  bool control_only;
};
constexpr std::string_view kMemory = "memory/";
constexpr std::array<Room, 3> kRooms{{{"db/", false}, {kMemory, false}, {"set/", true}}};

// What `Header::committing` says: that a commit may be in the database alone, or that somebody is publishing it.
constexpr std::uint32_t kCommitting = 1;
constexpr std::uint32_t kRecovering = 2;

Status BadPath(std::string_view path) { return {Code::kBadName, std::string(path) + ": is no path of the store"}; }

Status CheckValue(std::string_view path, const Value& value) {
  const auto* const text = std::get_if<std::string>(&value);
  return text == nullptr || text->size() <= layout::kMaxText
             ? Status()
             : Status(Code::kBadValue,
                      std::string(path) + ": the text is longer than " + std::to_string(layout::kMaxText) + " bytes");
}

const Value* ValueOf(const Row& row) { return row.value ? &*row.value : nullptr; }

Code PrepareAll(Table& table, const std::vector<Row>& rows, std::vector<std::uint32_t>* keys) {
  Code code = Code::kOk;
  for (const Row& row : rows) {
    std::uint32_t key = 0;
    code = code == Code::kOk ? table.Prepare(row.path, ValueOf(row), &key) : code;
    if (code == Code::kOk) {
      keys->push_back(key);
    }
  }
  if (code != Code::kOk) {
    table.Drop(*keys);
  }
  return code;
}

void PublishAll(Turn& turn, const std::vector<Row>& rows, const std::vector<std::uint32_t>& keys) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].path.starts_with(kFaultPrefix)) {
      turn.PublishUntold(keys[i]);
    } else {
      turn.Publish(keys[i]);
    }
  }
}

// What makes `held` hold what `wanted` does, and nothing else.
void Difference(const std::vector<Entry>& held, std::map<std::string, Value, std::less<>> wanted,
                std::vector<Row>* rows) {
  std::map<std::string, std::optional<Value>, std::less<>> changes(wanted.begin(), wanted.end());
  for (const Entry& entry : held) {
    const auto keep = wanted.find(entry.path);
    if (keep == wanted.end()) {
      changes.emplace(entry.path, std::nullopt);
    } else if (keep->second == entry.value) {
      changes.erase(entry.path);
    }
  }
  for (auto& [path, value] : changes) {
    rows->push_back({path, std::move(value)});
  }
}

}  // namespace

bool IsPath(std::string_view path, bool control) {
  const auto* const room = std::find_if(kRooms.begin(), kRooms.end(), [&](const Room& each) {
    return (control || !each.control_only) && path.starts_with(each.prefix);
  });
  return room != kRooms.end() && path.size() > room->prefix.size() && path.size() <= layout::kMaxPath &&
         path.find('\0') == std::string_view::npos;
}

Status CheckEntries(const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) {
    if (Status status = IsPath(entry.path, true) ? CheckValue(entry.path, entry.value) : BadPath(entry.path);
        !status.ok()) {
      return status;
    }
  }
  return {};
}

Store::Home Store::HomeOf(std::string_view path) { return path.starts_with(kMemory) ? Home::kMemory : Home::kDisk; }

// ---- opening

Result<std::unique_ptr<Store>> Store::Open(const std::string& directory, const std::vector<Entry>* initial) {
  if (Status status = initial != nullptr ? CheckEntries(*initial) : Status(); !status.ok()) {
    return status;
  }
  auto place = making::Attach(directory, initial);
  if (!place.ok()) {
    return place.status();
  }
  std::unique_ptr<Store> store(new Store((*place)->folder.path()));
  store->region_ = (*place)->region.get();
  store->places_.push_back(*std::move(place));
  store->RecoverIfNeeded();
  return store;
}

Region& Store::region() {
  Region& region = *region_.load(std::memory_order_acquire);
  return region.IsWhole() ? region : Renew(region);
}

Region& Store::Renew(Region& old) {
  const std::scoped_lock lock(database_mutex_, places_mutex_);
  Region* const now = region_.load(std::memory_order_acquire);
  if (now != &old || now->IsWhole()) {
    return *now;
  }
  const bool replaced = old.header().state == layout::kReplaced;
  database_.reset();  // its locks on the file end when this process closes any other descriptor of it
  auto place = making::Attach(directory_, nullptr);
  if (!place.ok()) {
    static_cast<void>(NoteRead(replaced ? Status(Code::kRemoved, place.status().text()) : place.status()));
    return old;
  }
  if (!replaced) {
    __dlog_print(2, 6, "VCONF", "%s: is damaged; db/ and set/ were read from disk again, memory/ is lost",
                 old.file().c_str());
  }
  places_.push_back(*std::move(place));
  region_.store(places_.back()->region.get(), std::memory_order_release);
  return *places_.back()->region;
}

void Store::BeforeFork() {
  database_mutex_.lock();
  places_mutex_.lock();
  database_.reset();
}

void Store::AfterFork() {
  places_mutex_.unlock();
  database_mutex_.unlock();
}

// ---- reading

Status Store::Note(std::atomic<Code>& last, Status status) {
  const Code code = status.code();
  const bool of_the_file = code >= Code::kFull;
  if ((of_the_file || code == Code::kOk) && last.load(std::memory_order_relaxed) != code &&
      last.exchange(code) != code && of_the_file) {
    __dlog_print(2, 6, "VCONF", "%s", status.text().c_str());
  }
  return status;
}

Status Store::ToStatus(Code code, std::string_view path, const Region& region) const {
  switch (code) {
    case Code::kOk:
      return {};
    case Code::kMissing:
      return {code, std::string(path) + ": no such key"};
    case Code::kWrongType:
      return {code, std::string(path) + ": holds a value of another type"};
    case Code::kFull:
      return {code, region.file() + ": is full; remove keys"};
    default:
      return {Code::kDamaged, region.file() + ": is damaged"};
  }
}

Code Store::GetNumber(std::string_view path, layout::Kind kind, int* number) {
  while (true) {
    Region& now = region();
    const Code code = Table(now).ReadNumber(path, kind, number);
    if (code == Code::kOk || now.IsWhole()) {
      return code == Code::kDamaged ? NoteRead(ToStatus(code, path, now)).code() : code;
    }
    if (&region() == &now) {
      return Code::kDamaged;
    }
  }
}

Status Store::Get(std::string_view path, std::optional<Value>* value) {
  if (!IsPath(path, true)) {
    return BadPath(path);
  }
  while (true) {
    Region& now = region();
    const Code code = Table(now).Read(path, value);
    if (code == Code::kOk || now.IsWhole()) {
      return NoteRead(ToStatus(code, path, now));
    }
    if (&region() == &now) {
      return ToStatus(Code::kDamaged, path, now);
    }
  }
}

Status Store::List(std::string_view prefix, std::vector<Entry>* entries) {
  Region& now = region();
  Code code = Code::kOk;
  for (const Room& room : kRooms) {
    const bool within = prefix.starts_with(room.prefix);
    if (code == Code::kOk && (within || room.prefix.starts_with(prefix))) {
      code = Table(now).List(within ? prefix : room.prefix, entries);
    }
  }
  return NoteRead(ToStatus(now.IsWhole() ? code : Code::kDamaged, prefix, now));
}

// ---- writing

Status Store::ForWriting(Region** region) {
  *region = &this->region();
  if (!(*region)->IsWhole()) {
    return {Code::kRemoved, (*region)->file() + ": was removed or damaged; restart this program"};
  }
  if ((*region)->IsRemoved()) {
    return {Code::kRemoved, (*region)->file() + ": was removed while it was in use; restart this program"};
  }
  return (*region)->writable() && (*region)->is_shared()
             ? Status()
             : Status(Code::kReadOnly, directory_ + "/" + Folder::kDatabase + ": may only be read by this process");
}

Status Store::Change(Home home, const Plan& plan) {
  constexpr int kTries = 3;
  for (int tries = 0;; ++tries) {
    Region* region = nullptr;
    Status status = ForWriting(&region);
    if (status.ok()) {
      status = home == Home::kDisk ? ChangeOnDisk(*region, plan) : ChangeInMemory(*region, plan);
    }
    // One that was replaced meanwhile has a successor, which knows nothing of the change.
    if (status.code() != Code::kRemoved || region->IsWhole() || tries == kTries) {
      return NoteWrite(home, std::move(status));
    }
  }
}

Status Store::ChangeInMemory(Region& region, const Plan& plan) {
  Turn turn(region);
  Table table(region);
  std::vector<Row> rows;
  std::vector<std::uint32_t> keys;
  Status status = turn.status().ok() ? plan(region, &rows) : turn.status();
  if (status.ok() && !rows.empty()) {
    status = ToStatus(turn.Reserve() ? PrepareAll(table, rows, &keys) : Code::kFull, rows.front().path, region);
  }
  if (status.ok()) {
    PublishAll(turn, rows, keys);
  }
  return status;
}

Status Store::ChangeOnDisk(Region& region, const Plan& plan) {
  layout::Header& header = region.header();
  const std::lock_guard mine(database_mutex_);
  const SharedLock lock(header.disk_lock, "writing to disk");
  Status status = lock.status(region.file());
  if (status.ok() && !region.IsWhole()) {
    return {Code::kRemoved, region.file() + ": was replaced"};
  }
  if (status.ok()) {
    status = Connect(region);
  }
  if (status.ok() && (lock.inherited() || header.committing != 0)) {
    status = Recover(region);
  }
  Table table(region);
  std::vector<Row> rows;
  std::vector<std::uint32_t> keys;
  if (status.ok()) {
    status = plan(region, &rows);
  }
  if (!status.ok() || rows.empty()) {
    return status;
  }
  {
    Turn turn(region);
    status = turn.status();
    if (status.ok()) {
      status = ToStatus(turn.Reserve() ? PrepareAll(table, rows, &keys) : Code::kFull, rows.front().path, region);
    }
  }
  const std::uint64_t number = header.published + 1;
  if (status.ok()) {
    header.committing = kCommitting;
    status = database_->Write(rows, number);
    // Where the disk failed, only the database knows what became of it: the next change looks.
    if (!status.ok() && status.code() != Code::kFailed) {
      header.committing = 0;
    }
  }
  Turn turn(region);
  if (!status.ok()) {
    if (turn.status().ok()) {
      table.Drop(keys);
    }
    return status;
  }
  if (turn.status().ok()) {
    PublishAll(turn, rows, keys);
    header.published = number;
    header.committing = 0;
  }
  return turn.status();
}

Status Store::Connect(const Region& region) {
  const Folder* folder = nullptr;
  {
    const std::lock_guard lock(places_mutex_);
    folder = &places_.back()->folder;
  }
  struct stat about = {};
  if (!folder->Check(Folder::kDatabase, &about).ok() || about.st_ino != region.header().database) {
    database_.reset();
    return {Code::kRemoved, folder->File(Folder::kDatabase) + ": was removed or replaced while it was in use"};
  }
  if (database_ != nullptr && database_->IsCurrent(*folder)) {
    return database_->CheckHead();
  }
  database_.reset();
  auto opened = Database::Open(*folder, true);
  if (opened.ok()) {
    database_ = *std::move(opened);
    database_->ReserveLog();
  }
  return opened.status();
}

// Publishes what a writer that died, or failed, left in the database alone.
Status Store::Recover(Region& region) {
  layout::Header& header = region.header();
  header.committing = kRecovering;
  std::vector<Row> rows;
  std::uint64_t number = header.published;
  Status status = database_->Read(false, &rows, &number);
  if (!status.ok()) {
    header.committing = kCommitting;
    return status;
  }
  std::map<std::string, Value, std::less<>> wanted;
  for (Row& row : rows) {
    wanted.insert_or_assign(std::move(row.path), *std::move(row.value));
  }
  Turn turn(region);
  Table table(region);
  std::vector<Entry> held;
  std::vector<Row> changes;
  std::vector<std::uint32_t> keys;
  Code code = Code::kOk;
  for (const std::string_view prefix : {std::string_view("db/"), std::string_view("set/"), kFaultPrefix}) {
    code = code == Code::kOk ? table.List(prefix, &held) : code;
  }
  status = turn.status().ok() ? ToStatus(code, "", region) : turn.status();
  if (status.ok()) {
    table.DropPrepared();
    Difference(held, std::move(wanted), &changes);
    status = ToStatus(PrepareAll(table, changes, &keys), "", region);
  }
  if (status.ok()) {
    PublishAll(turn, changes, keys);
    header.published = std::max<std::uint64_t>(number, header.published);
  }
  header.committing = status.ok() ? 0 : kCommitting;
  return status;
}

// What a writer left in the database is published when a store is opened, or when the next one writes.
void Store::RecoverIfNeeded() {
  Region& now = region();
  const auto until = std::chrono::steady_clock::now() + kLockLimit;
  while (now.writable() && now.is_shared()) {
    const SharedLock lock(now.header().disk_lock, "writing to disk", std::chrono::milliseconds(0));
    if (lock.held()) {
      if (lock.inherited() || now.header().committing != 0) {
        Status status = Connect(now);
        static_cast<void>(NoteWrite(Home::kDisk, status.ok() ? Recover(now) : status));
      }
      return;
    }
    // Somebody is writing. Only one who publishes what was left is worth waiting for.
    if (now.header().committing != kRecovering || std::chrono::steady_clock::now() > until) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

Status Store::Set(std::string_view path, const Value& value) {
  if (!IsPath(path, true)) {
    return BadPath(path);
  }
  if (Status status = CheckValue(path, value); !status.ok()) {
    return status;
  }
  return Change(HomeOf(path), [&](Region& region, std::vector<Row>* rows) {
    std::optional<Value> old;
    const Code code = Table(region).Read(path, &old);
    if (code != Code::kOk && code != Code::kMissing) {
      return ToStatus(code, path, region);
    }
    if (old && old->index() != value.index()) {
      return ToStatus(Code::kWrongType, path, region);
    }
    rows->push_back({std::string(path), value});
    return Status();
  });
}

Status Store::Remove(std::string_view path) {
  if (!IsPath(path, true)) {
    return BadPath(path);
  }
  return Change(HomeOf(path), [&](Region& region, std::vector<Row>* rows) {
    std::optional<Value> old;
    rows->push_back({std::string(path), std::nullopt});
    const Code code = Table(region).Read(path, &old);
    return ToStatus(code == Code::kDamaged ? Code::kOk : code, path, region);
  });
}

Status Store::Reset(const std::vector<Entry>& entries) {
  for (const Home home : {Home::kMemory, Home::kDisk}) {
    const auto change = [&](bool removals_only) {
      return Change(home, [&](Region& region, std::vector<Row>* rows) {
        std::vector<Entry> held;
        std::map<std::string, Value, std::less<>> wanted;
        for (const Entry& entry : entries) {
          if (HomeOf(entry.path) == home) {
            wanted.insert_or_assign(entry.path, entry.value);
          }
        }
        for (const Room& room : kRooms) {
          if (HomeOf(room.prefix) == home && Table(region).List(room.prefix, &held) != Code::kOk) {
            return ToStatus(Code::kDamaged, room.prefix, region);
          }
        }
        Difference(held, std::move(wanted), rows);
        if (removals_only) {
          std::erase_if(*rows, [](const Row& row) { return row.value.has_value(); });
        }
        return Status();
      });
    };
    Status status = change(false);
    if (status.code() == Code::kFull) {  // what goes makes room for what comes
      status = change(true);
      status = status.ok() ? change(false) : status;
    }
    if (!status.ok()) {
      return status;
    }
  }
  return {};
}

Status Store::Sync(std::string_view path) {
  if (!IsPath(path, true)) {
    return BadPath(path);
  }
  Region* region = nullptr;
  Status status = HomeOf(path) == Home::kDisk ? ForWriting(&region) : Status();
  return status.code() == Code::kReadOnly ? Status() : NoteWrite(Home::kDisk, std::move(status));
}

}  // namespace vconf
