#include "store.h"

#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <utility>

#include "dlog.h"
#include "record.h"

namespace vconf {
namespace {

namespace fs = std::filesystem;

// Where the memory environments lie, unless the environment variable names another place.
constexpr const char* kMemoryRoot = "/dev/shm";
constexpr const char* kMemoryRootVariable = "MIRADO_MEMORY_ROOT";
constexpr std::string_view kMemoryName = "mirado-";
constexpr const char* kBackLink = "store";
constexpr std::size_t kIdBytes = 16;
constexpr std::string_view kHexDigits = "0123456789abcdef";

// The store's own records stand beside the keys, which begin with a letter.
constexpr std::string_view kFormatKey = "!format";
constexpr std::string_view kIdKey = "!id";
constexpr std::string_view kHeadKey = "!head";
constexpr std::string_view kFaultPrefix = "!fault/";
constexpr std::string_view kAnyPath = "*";
constexpr std::uint64_t kFormatNumber = 1;

// The journal is a ring of slots behind all other keys.
constexpr char kJournalPrefix = '\x7f';
constexpr std::uint64_t kJournalSlots = 65536;

// A number beyond this was not counted up to.
constexpr std::uint64_t kMaxSequence = std::uint64_t{1} << 62U;

constexpr std::size_t kMaxPath = kMaxKey;

struct Room {
  std::string_view prefix;
  Environment::Kind kind;
  bool control_only;
};
constexpr std::array<Room, 3> kRooms{{{"db/", Environment::Kind::kDisk, false},
                                      {"memory/", Environment::Kind::kMemory, false},
                                      {"set/", Environment::Kind::kDisk, true}}};

const Room* RoomOf(std::string_view path) {
  const auto* const room =
      std::find_if(kRooms.begin(), kRooms.end(), [&](const Room& each) { return path.starts_with(each.prefix); });
  return room != kRooms.end() ? room : nullptr;
}

bool IsInMemory(std::string_view path) { return path.starts_with("memory/"); }

std::array<char, 3> JournalKey(std::uint64_t sequence) {
  const std::uint64_t slot = sequence % kJournalSlots;
  return {kJournalPrefix, static_cast<char>(slot >> 8U), static_cast<char>(slot & 0xffU)};
}
std::string_view View(const std::array<char, 3>& key) { return {key.data(), key.size()}; }

std::string FaultKey(std::string_view call, std::string_view path) {
  std::string key(kFaultPrefix);
  key.append(call).push_back('\0');
  return key.append(path);
}

bool CheckValue(const Value& value) {
  const auto* const text = std::get_if<std::string>(&value);
  return text == nullptr || text->size() <= record::kMaxText;
}

// A number record, or `absent` when there is none.
Cause GetNumber(Transaction& transaction, std::string_view key, std::uint64_t absent, std::uint64_t* number) {
  RecordBuffer record;
  const Cause status = transaction.Get(key, &record);
  if (status == kNoKey) {
    *number = absent;
    return kOk;
  }
  if (status != kOk) {
    return status;
  }
  const auto decoded = record::DecodeNumber(key, record.view());
  *number = decoded.value_or(absent);
  return decoded ? kOk : kDamaged;
}

template <typename... State>  // when `source` is an environment
Cause GetValue(auto& source, std::string_view path, std::optional<Value>* value, State*... state) {
  RecordBuffer record;
  const Cause status = source.Get(path, &record, state...);
  if (status != kOk) {
    return status;
  }
  *value = record::DecodeValue(path, record.view());
  return *value ? kOk : kDamaged;
}

/// A number or a flag that a thread has read, and from which state. While that is still the last one, it need not be
/// looked up again.
class Noted {
 public:
  bool Is(const Environment::State& state, std::string_view path) const {
    return state_ == state && std::string_view(path_.data(), size_) == path;
  }
  Value value() const { return is_flag_ ? Value(number_ != 0) : Value(number_); }

  void Note(const Environment::State& state, std::string_view path, const Value& value) {
    if (path.size() > path_.size() || std::holds_alternative<std::string>(value)) {
      return;
    }
    state_ = state;
    size_ = static_cast<std::uint8_t>(path.copy(path_.data(), path_.size()));
    is_flag_ = std::holds_alternative<bool>(value);
    number_ = is_flag_ ? static_cast<int>(std::get<bool>(value)) : std::get<int>(value);
  }

 private:
  Environment::State state_;
  int number_ = 0;
  bool is_flag_ = false;
  std::uint8_t size_ = 0;
  std::array<char, 66> path_{};
};

/// Where this thread notes `path`, and some others.
Noted& NotedOf(std::string_view path) {
  static thread_local constinit std::array<Noted, 32> noted;
  return noted[(path.size() * 29 + static_cast<unsigned char>(path.back())) % noted.size()];
}

std::string NewId() {
  std::array<unsigned char, kIdBytes> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    return {};
  }
  std::string id;
  for (const unsigned char byte : bytes) {
    id += {kHexDigits[byte >> 4U], kHexDigits[byte & 0xfU]};
  }
  return id;
}

Environment::Records FoundingRecords(const std::string& id, std::uint64_t head) {
  return {{std::string(kFormatKey), record::EncodeNumber(kFormatKey, kFormatNumber)},
          {std::string(kIdKey), record::EncodeText(kIdKey, id)},
          {std::string(kHeadKey), record::EncodeNumber(kHeadKey, head)}};
}

std::string MemoryRoot() {
  const char* const root = std::getenv(kMemoryRootVariable);
  return root != nullptr ? root : kMemoryRoot;
}

// Its name cannot be guessed by who may not read the store, and is the same for all who may.
std::string MemoryDirectory(const std::string& id, uid_t owner) {
  return MemoryRoot() + "/" + std::string(kMemoryName) + id + "-" + std::to_string(owner);
}

// Whether it is such a name of this user, or one that such a folder has while it is built.
bool IsMemoryName(std::string_view name) {
  const std::size_t id_end = kMemoryName.size() + 2 * kIdBytes;
  const std::string owner = "-" + std::to_string(getuid());
  return name.starts_with(kMemoryName) && name.find_first_not_of(kHexDigits, kMemoryName.size()) == id_end &&
         name.substr(id_end, name.find(".new-") - id_end) == owner;
}

// The memory file system keeps what it is given until the power goes, also for stores that are long removed, or have
// been by the time that one is made in the same `directory`. What is not linked back to a store yet is spared for the
// moment that it may take to be, and so is the memory that is wanted, which another process may just have made.
void SweepMemory(const fs::path& directory, const fs::path& wanted) {
  constexpr std::time_t kMoment = 60;
  std::error_code ignored;
  for (fs::directory_iterator at(MemoryRoot(), ignored); at != fs::directory_iterator(); at.increment(ignored)) {
    const fs::path& memory = at->path();
    struct stat status = {};
    if (!IsMemoryName(memory.filename().string()) || memory == wanted || lstat(memory.c_str(), &status) != 0 ||
        !S_ISDIR(status.st_mode) || status.st_uid != getuid()) {
      continue;
    }
    const fs::path store = fs::read_symlink(memory / kBackLink, ignored);
    const bool old = std::time(nullptr) - status.st_mtime > kMoment;
    if (store.empty() ? old : store == directory || !fs::exists(fs::symlink_status(store, ignored))) {
      fs::remove_all(memory, ignored);
    }
  }
}

// Not where the memory file system should be and is not.
Cause MakeMemory(const std::string& memory_directory, const Environment::Records& records) {
  return access(MemoryRoot().c_str(), W_OK | X_OK) == 0
             ? Environment::Create(memory_directory, Environment::Kind::kMemory, records)
             : errno;
}

void LinkBack(const std::string& memory_directory, const std::string& store) {
  std::error_code ignored;
  const fs::path link = fs::path(memory_directory) / kBackLink;
  const fs::path target = fs::canonical(store, ignored);
  if (!target.empty() && fs::read_symlink(link, ignored) != target) {
    fs::remove(link, ignored);
    fs::create_symlink(target, link, ignored);
  }
}

// Whether a store may be made here: where nothing is, or an empty folder.
bool IsFree(const fs::path& directory) {
  std::error_code failed;
  const auto type = fs::status(directory, failed).type();
  return type == fs::file_type::not_found ||
         (type == fs::file_type::directory && fs::is_empty(directory, failed) && !failed);
}

}  // namespace

bool IsPath(std::string_view path, bool control) {
  const Room* const room = RoomOf(path);
  return room != nullptr && (control || !room->control_only) && path.size() > room->prefix.size() &&
         path.size() <= kMaxPath && path.find('\0') == std::string_view::npos;
}

Status CheckEntries(const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) {
    const bool is_path = IsPath(entry.path, true);
    if (!is_path || !CheckValue(entry.value)) {
      return ToStatus(is_path ? kBadValue : kBadPath, entry.path);
    }
  }
  return {};
}

// ---- Batch

/// Changes that become visible together: the keys, their journal entries and the head of the journal.
class Store::Batch {
 public:
  /// `disk` and `memory` say where changes are to be made. The order of all changes hangs on the lock of the disk
  /// environment, so it is taken for a change in memory too, unless this process cannot write there at all.
  Batch(Store& store, bool disk, bool memory) : store_(store) {
    disk_.emplace(*store.disk_);
    if (disk_->status() != kOk) {
      if (disk) {
        status_ = disk_->status();
        return;
      }
      disk_.reset();
    }
    if (memory) {
      if (store.memory_ == nullptr) {
        status_ = kNoMemory;
        return;
      }
      memory_.emplace(*store.memory_);
      status_ = memory_->status();
    }
    if (status_ == kOk) {
      status_ = FindSequence();
    }
  }

  Cause status() const { return status_; }
  Transaction& disk() { return *disk_; }
  Transaction* memory() { return memory_ ? &*memory_ : nullptr; }

  /// Writes `value` under `path`, or removes it, whatever type stands there.
  Cause Change(std::string_view path, const std::optional<Value>& value) {
    WriteTransaction& home = HomeOf(path);
    Cause status = value ? home.Put(path, record::EncodeValue(path, *value)) : home.Delete(path);
    if (status == kOk) {
      ++sequence_;
      const auto key = JournalKey(sequence_);
      status = home.Put(View(key), record::EncodeChange(View(key), sequence_, path, value), sequence_ < kJournalSlots);
      (IsInMemory(path) ? memory_head_ : disk_head_) = sequence_;
    }
    return status;
  }

  Cause Set(std::string_view path, const Value& value) {
    std::optional<Value> old;
    const Cause status = GetValue(HomeOf(path), path, &old);
    if (status != kOk && status != kNoKey) {
      return status;
    }
    return old && old->index() != value.index() ? kOtherType : Change(path, value);
  }

  /// The changes in memory must have come before those on disk, since they are committed first.
  Cause Commit() {
    store_.commits_.fetch_add(1, std::memory_order_release);
    std::uint64_t committed = 0;
    Cause status = kOk;
    for (const auto& [write, head] : {std::pair(&memory_, memory_head_), std::pair(&disk_, disk_head_)}) {
      if (head != 0 && status == kOk) {
        status = CommitOne(**write, head);
        committed = status == kOk ? head : committed;
      }
    }
    disk_.reset();
    if (committed != 0) {
      store_.bell_->Ring(committed);
    }
    return status;
  }

 private:
  WriteTransaction& HomeOf(std::string_view path) { return IsInMemory(path) ? *memory_ : *disk_; }

  static Cause CommitOne(WriteTransaction& write, std::uint64_t head) {
    const Cause status = write.Put(kHeadKey, record::EncodeNumber(kHeadKey, head));
    return status == kOk ? write.Commit() : status;
  }

  Cause FindSequence() {
    std::uint64_t disk = 0;
    std::uint64_t memory = 0;
    const auto read = [](std::optional<WriteTransaction>& write, Environment& environment, std::uint64_t* head) {
      if (write) {
        return GetNumber(*write, kHeadKey, 0, head);
      }
      environment.SeeLastCommit();  // else its numbers would be given again
      ReadTransaction view(environment);
      return GetNumber(view, kHeadKey, 0, head);
    };
    if (const Cause status = read(disk_, *store_.disk_, &disk); status != kOk) {
      return status;
    }
    const Cause status = store_.memory_ != nullptr ? read(memory_, *store_.memory_, &memory) : kNoMemory;
    if (status != kOk) {
      if (memory_) {
        return status;
      }
      // Without the memory the bell knows best what other processes have counted up to there.
      const std::uint64_t rung = store_.bell_->LastSequence();
      memory = rung < kMaxSequence ? rung : 0;
    }
    sequence_ = std::max(disk, memory);
    return kOk;
  }

  Store& store_;
  Cause status_ = kOk;
  std::optional<WriteTransaction> disk_;
  std::optional<WriteTransaction> memory_;
  std::uint64_t sequence_ = 0;
  std::uint64_t disk_head_ = 0;
  std::uint64_t memory_head_ = 0;
};

// ---- opening

Result<std::unique_ptr<Store>> Store::Open(const std::string& directory, const std::vector<Entry>* initial) {
  std::unique_ptr<Store> store(new Store(directory));
  if (Status opened = store->OpenDisk(initial); !opened.ok()) {
    return opened;
  }
  store->bell_ = Bell::Open(directory + "/bell");
  if (store->bell_ == nullptr) {
    return ToStatus(errno, directory + "/bell");
  }
  if (const Cause status = store->OpenMemory(); status != kOk) {
    __dlog_print(2, 6, "VCONF", "%s: %s", Environment::FileIn(store->memory_directory_).c_str(),
                 CauseText(status).c_str());
  }
  for (Environment* const environment : {store->disk_.get(), store->memory_.get()}) {
    if (environment != nullptr) {
      environment->SeeLastCommit();
    }
  }
  if (!store->bell_->KnownFaultless()) {
    store->NoteFaultless();
  }
  return store;
}

Status Store::OpenDisk(const std::vector<Entry>* initial) {
  if (IsFree(directory_) && initial == nullptr) {
    return {Code::kMissing, directory_ + ": there is no store here"};
  }
  if (IsFree(directory_)) {
    if (Status wrong = CheckEntries(*initial); !wrong.ok()) {
      return wrong;
    }
    const Cause made = MakeStore(*initial);
    if (made != kOk && made != EEXIST) {
      return ToStatus(made, directory_);
    }
  }
  const std::string file = Environment::FileIn(directory_);
  std::error_code failed;
  if (fs::status(file, failed).type() == fs::file_type::not_found) {
    return {Code::kMissing, file + ": is not there, so the folder holds no store; name another one"};
  }
  Cause opened = Environment::Open(directory_, Environment::Kind::kDisk, &disk_);
  if (opened == kOk) {
    opened = CheckFormat(*disk_, &id_);
  }
  return ToStatus(opened, file);
}

Cause Store::MakeStore(const std::vector<Entry>& initial) {
  const std::string id = NewId();
  if (id.empty()) {
    return EIO;
  }
  Environment::Records disk = FoundingRecords(id, 0);
  Environment::Records memory = disk;
  bool has_memory = false;
  for (const Entry& entry : initial) {
    (IsInMemory(entry.path) ? memory : disk).emplace_back(entry.path, record::EncodeValue(entry.path, entry.value));
    has_memory = has_memory || IsInMemory(entry.path);
  }
  // Nobody knows the id yet, so the memory is there unseen before the store is.
  const std::string memory_directory = MemoryDirectory(id, getuid());
  if (has_memory) {
    SweepMemory({}, memory_directory);
    if (const Cause status = MakeMemory(memory_directory, memory); status != kOk) {
      __dlog_print(2, 6, "VCONF", "%s: %s", memory_directory.c_str(), CauseText(status).c_str());
    }
  }
  const Cause status = Environment::Create(directory_, Environment::Kind::kDisk, disk);
  if (status != kOk) {
    std::error_code ignored;
    fs::remove_all(memory_directory, ignored);
  }
  return status;
}

Cause Store::OpenMemory() {
  struct stat disk = {};
  if (stat(disk_->file().c_str(), &disk) != 0) {
    return errno;
  }
  memory_directory_ = MemoryDirectory(id_, disk.st_uid);
  struct stat memory = {};
  if (stat(memory_directory_.c_str(), &memory) != 0) {
    if (errno != ENOENT) {
      return errno;
    }
    std::error_code ignored;
    SweepMemory(fs::canonical(directory_, ignored), memory_directory_);
    const std::uint64_t rung = bell_->LastSequence();
    // One number is left out, so that who still follows an earlier memory is told that it is gone.
    const std::uint64_t head = rung == 0 || rung >= kMaxSequence ? 0 : rung + 1;
    const Cause status = MakeMemory(memory_directory_, FoundingRecords(id_, head));
    if (status != kOk && status != EEXIST) {
      return status;
    }
  } else if (memory.st_uid != disk.st_uid) {
    return EPERM;
  }
  std::string id;
  Cause status = Environment::Open(memory_directory_, Environment::Kind::kMemory, &memory_);
  if (status == kOk) {
    status = CheckFormat(*memory_, &id);
  }
  if (status == kOk && id != id_) {
    status = kDamaged;
  }
  if (status != kOk) {
    memory_.reset();
    return status;
  }
  LinkBack(memory_directory_, directory_);
  return kOk;
}

Cause Store::CheckFormat(Environment& environment, std::string* id) {
  ReadTransaction view(environment);
  std::uint64_t format = 0;
  RecordBuffer record;
  Cause status = GetNumber(view, kFormatKey, 0, &format);
  if (status == kOk) {
    status = view.Get(kIdKey, &record);
  }
  if (status != kOk) {
    return status == kNoKey ? kDamaged : status;
  }
  auto found = record::DecodeText(kIdKey, record.view());
  if (format != kFormatNumber || !found) {
    return found ? kFormat : kDamaged;
  }
  *id = *std::move(found);
  return kOk;
}

// ---- keys

Environment* Store::HomeOf(std::string_view path) const { return IsInMemory(path) ? memory_.get() : disk_.get(); }

Cause Store::NoteWrite(std::string_view path, Cause status) const {
  Environment* const home = HomeOf(path);
  return home != nullptr ? home->NoteWrite(status) : status;
}

Cause Store::Get(std::string_view path, std::optional<Value>* value) {
  if (!IsPath(path, true)) {
    return kBadPath;
  }
  Environment* const home = HomeOf(path);
  if (home == nullptr) {
    return kNoMemory;
  }
  Noted& noted = NotedOf(path);
  if (const Environment::State last = home->LastState(); last.number != 0 && noted.Is(last, path)) {
    *value = noted.value();
    return kOk;
  }
  Environment::State state;
  const Cause status = GetValue(*home, path, value, &state);
  if (status == kOk) {
    noted.Note(state, path, **value);
  }
  return home->NoteRead(status);
}

Cause Store::Set(std::string_view path, const Value& value) {
  if (!IsPath(path, true)) {
    return kBadPath;
  }
  if (!CheckValue(value)) {
    return kBadValue;
  }
  Batch batch(*this, !IsInMemory(path), IsInMemory(path));
  Cause status = batch.status();
  if (status == kOk) {
    status = batch.Set(path, value);
  }
  return NoteWrite(path, status == kOk ? batch.Commit() : status);
}

Cause Store::Remove(std::string_view path) {
  if (!IsPath(path, true)) {
    return kBadPath;
  }
  Batch batch(*this, !IsInMemory(path), IsInMemory(path));
  Cause status = batch.status();
  if (status == kOk) {
    status = batch.Change(path, std::nullopt);
  }
  return NoteWrite(path, status == kOk ? batch.Commit() : status);
}

Cause Store::Reset(const std::vector<Entry>& entries) {
  std::map<std::string, Value, std::less<>> wanted;
  bool memory = memory_ != nullptr;
  for (const Entry& entry : entries) {
    wanted.insert_or_assign(entry.path, entry.value);
    memory = memory || IsInMemory(entry.path);
  }
  Batch batch(*this, true, memory);
  if (batch.status() != kOk) {
    return batch.status();
  }
  // What is to be removed, changed or added; what is damaged differs from everything.
  std::map<std::string, std::optional<Value>, std::less<>> changes(wanted.begin(), wanted.end());
  for (const Room& room : kRooms) {
    Transaction* const home = room.kind == Environment::Kind::kDisk ? &batch.disk() : batch.memory();
    const Cause status = home == nullptr ? kOk : home->ForEach(room.prefix, [&](std::string_view path, auto bytes) {
      const auto value = record::DecodeValue(path, bytes);
      const auto keep = wanted.find(path);
      if (keep == wanted.end()) {
        changes.emplace(path, std::nullopt);
      } else if (value == keep->second) {
        changes.erase(changes.find(path));
      }
    });
    if (status != kOk) {
      return status;
    }
  }
  for (const bool in_memory : {true, false}) {
    for (const auto& [path, value] : changes) {
      if (IsInMemory(path) == in_memory) {
        if (const Cause status = batch.Change(path, value); status != kOk) {
          return status;
        }
      }
    }
  }
  return batch.Commit();
}

Cause Store::List(std::string_view prefix, std::vector<Entry>* entries) {
  for (const Room& room : kRooms) {
    const bool within = prefix.starts_with(room.prefix);
    if (!within && !room.prefix.starts_with(prefix)) {
      continue;
    }
    Environment* const home = HomeOf(room.prefix);
    if (home == nullptr) {
      return kNoMemory;
    }
    bool damaged = false;
    ReadTransaction view(*home);
    const Cause status = view.ForEach(within ? prefix : room.prefix, [&](std::string_view path, auto bytes) {
      if (auto value = record::DecodeValue(path, bytes)) {
        entries->push_back({std::string(path), *std::move(value)});
      } else {
        damaged = true;
      }
    });
    if (const Cause cause = status == kOk && damaged ? kDamaged : status; cause != kOk) {
      return home->NoteRead(cause);
    }
  }
  return kOk;
}

Cause Store::Sync(std::string_view path) {
  if (!IsPath(path, true)) {
    return kBadPath;
  }
  return IsInMemory(path) ? kOk : disk_->Sync();
}

// ---- faults

Cause Store::SetFault(const Fault& fault) {
  const std::string key = FaultKey(fault.call, fault.path);
  if (fault.call.empty() || fault.path.empty() || key.size() > kMaxPath) {
    return kBadPath;
  }
  WriteTransaction write(*disk_);
  const Cause status = write.Put(key, record::EncodeAnswer(key, {.answer = fault.answer, .times = fault.times}));
  return status == kOk ? CommitFaults(write) : status;
}

Cause Store::ClearFault(std::string_view call, std::string_view path) {
  WriteTransaction write(*disk_);
  const Cause status = write.Delete(FaultKey(call, path));
  return status == kOk ? CommitFaults(write) : status == kNoKey ? kOk : status;
}

Cause Store::ClearFaults() {
  WriteTransaction write(*disk_);
  std::vector<std::string> keys;
  Cause status = write.ForEach(kFaultPrefix, [&](std::string_view key, auto) { keys.emplace_back(key); });
  for (const std::string& key : keys) {
    if (status == kOk) {
      status = write.Delete(key);
    }
  }
  return status == kOk && !keys.empty() ? CommitFaults(write) : status;
}

Cause Store::CommitFaults(WriteTransaction& write) {
  bell_->SetKnownFaultless(false);
  const Cause status = write.Commit();
  if (status == kOk) {
    NoteFaultless();
  }
  return status;
}

// The hint is given about what is committed and under the lock, so that it hides neither a fault whose end was cut off
// nor one that is set next.
void Store::NoteFaultless() {
  WriteTransaction write(*disk_);
  bool faultless = true;
  if (write.ForEach(kFaultPrefix, [&](auto, auto) { faultless = false; }) == kOk && faultless) {
    bell_->SetKnownFaultless(true);
  }
}

Cause Store::ListFaults(std::vector<Fault>* faults) {
  bool damaged = false;
  ReadTransaction view(*disk_);
  const Cause status = view.ForEach(kFaultPrefix, [&](std::string_view key, auto bytes) {
    if (const auto answer = record::DecodeAnswer(key, bytes)) {
      const std::string_view name = key.substr(kFaultPrefix.size());
      const std::size_t end = name.find('\0');
      faults->push_back({.call = std::string(name.substr(0, end)),
                         .path = std::string(name.substr(end + 1)),
                         .answer = answer->answer,
                         .times = answer->times});
    } else {
      damaged = true;
    }
  });
  return disk_->NoteRead(status == kOk && damaged ? kDamaged : status);
}

std::optional<int> Store::TakeFault(std::string_view call, std::string_view path) {
  if (bell_->KnownFaultless()) {
    return std::nullopt;
  }
  for (const std::string_view at : {path, kAnyPath}) {
    const std::string key = FaultKey(call, at);
    const auto find = [&key](Transaction& transaction) -> std::optional<record::Answer> {
      RecordBuffer record;
      return transaction.Get(key, &record) == kOk ? record::DecodeAnswer(key, record.view()) : std::nullopt;
    };
    std::optional<record::Answer> found;
    if (key.size() <= kMaxPath) {
      ReadTransaction view(*disk_);
      found = find(view);
    }
    if (found && found->times > 0) {
      // Looked up again under the lock: another process may have taken the last use.
      WriteTransaction write(*disk_);
      if (write.status() == kOk) {
        found = find(write);
      }
      if (found && found->times > 0) {
        --found->times;
        const Cause status = found->times > 0 ? write.Put(key, record::EncodeAnswer(key, *found)) : write.Delete(key);
        if (status == kOk) {
          CommitFaults(write);
        }
      }
    }
    if (found) {
      return found->answer;
    }
  }
  return std::nullopt;
}

// ---- the journal

Cause Store::LastSequence(std::uint64_t* sequence) {
  *sequence = 0;
  for (Environment* const environment : {disk_.get(), memory_.get()}) {
    if (environment != nullptr) {
      ReadTransaction view(*environment);
      std::uint64_t head = 0;
      const Cause status = environment->NoteRead(GetNumber(view, kHeadKey, 0, &head));
      if (status == kOk) {
        *sequence = std::max(*sequence, head);
      } else if (environment == disk_.get()) {
        return status;
      }
    }
  }
  return kOk;
}

Cause Store::ReadChanges(std::uint64_t next, std::vector<Change>* changes, bool* fell_behind) {
  *fell_behind = false;
  std::uint64_t last = 0;
  if (const Cause status = LastSequence(&last); status != kOk || last < next) {
    return status;
  }
  // Both views are younger than `last`, so every number up to it stands in one of them, unless it was overwritten.
  ReadTransaction disk(*disk_);
  std::optional<ReadTransaction> memory;
  if (memory_ != nullptr) {
    memory.emplace(*memory_);
  }
  for (std::uint64_t sequence = next; sequence <= last && changes->size() < kMaxChanges; ++sequence) {
    const auto key = JournalKey(sequence);
    RecordBuffer record;
    std::optional<record::JournalEntry> entry;
    for (Transaction* const view :
         {static_cast<Transaction*>(&disk), static_cast<Transaction*>(memory ? &*memory : nullptr)}) {
      if (view != nullptr && view->Get(View(key), &record) == kOk) {
        entry = record::DecodeChange(View(key), record.view());
        if (entry && entry->change.sequence == sequence) {
          break;
        }
        entry.reset();
      }
    }
    if (!entry) {
      *fell_behind = changes->empty();
      break;
    }
    if (entry->value_left_out) {
      GetValue(IsInMemory(entry->change.path) ? static_cast<Transaction&>(*memory) : disk, entry->change.path,
               &entry->change.value);
    }
    changes->push_back(std::move(entry->change));
  }
  static_cast<void>(commits_.load(std::memory_order_acquire));
  return kOk;
}

Status Store::Explain(Cause cause, std::string_view path) const {
  if (cause == kBadPath || cause == kBadValue || cause == kOtherType || cause == kNoKey) {
    return ToStatus(cause, std::string(path));
  }
  // A prefix such as "" stands for all of the store; without its memory part that is what could not be read.
  const Environment* const home = cause == kNoMemory ? nullptr : HomeOf(path);
  return ToStatus(cause, home != nullptr ? home->file() : memory_directory_);
}

}  // namespace vconf
