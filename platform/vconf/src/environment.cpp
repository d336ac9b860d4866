#include "environment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>

#include "dlog.h"
#include "guard.h"
#include "pages.h"

namespace vconf {

const Cause kNoKey = MDB_NOTFOUND;

namespace {

// Address space, not memory: a store that outgrows it answers with an error.
constexpr std::size_t kMapSize = std::size_t{256} << 20U;
constexpr unsigned kMaxReaders = 2048;
constexpr mode_t kFileMode = 0600;

// Who may still hand a reader back: threads end when they like, environments too.
struct Registry {
  std::mutex mutex;
  std::map<std::uint64_t, Environment*> environments;
  std::vector<MDB_txn*> lost;  // readers that LMDB could not take back, since its table of them is gone
};
Registry& TheRegistry() {
  static auto* const registry = new Registry;
  return *registry;
}

std::uint64_t NextId() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

MDB_val ToVal(std::string_view bytes) { return {bytes.size(), const_cast<char*>(bytes.data())}; }

template <typename Step>
Cause Guarded(Step&& step) {
  Cause status = kOk;
  return Guard::Run([&] { status = step(); }) ? status : kDamaged;
}

// For what only gives something back: after a fault there is nothing left to give.
template <typename Step>
void Quietly(Step&& step) {
  static_cast<void>(Guard::Run(step));
}

// With the registry's lock held.
void Abort(MDB_txn* reader) {
  if (!Guard::Run([reader] { mdb_txn_abort(reader); })) {
    TheRegistry().lost.push_back(reader);
  }
}

void CheckReaders(MDB_env* env) {
  Quietly([env] {
    int dead = 0;
    mdb_reader_check(env, &dead);
  });
}

void OnAssertion(MDB_env* /*env*/, const char* /*message*/) { Guard::Leave(); }

Cause SyncDirectory(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const Cause status = fd >= 0 && fsync(fd) == 0 ? kOk : errno;
  if (fd >= 0) {
    close(fd);
  }
  return status;
}

// Takes all room for LMDB's table of readers: LMDB leaves the file sparse, and a page of it that a full disk cannot
// give would be missed where a lock is held. Only before LMDB has the file open, since a `close` ends its locks on it.
Cause ReserveLock(const std::string& file) {
  constexpr off_t kSize = (kMaxReaders + 2) * off_t{64};  // a cache line for each, and for each of two locks
  const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
  if (fd < 0) {
    return errno;
  }
  const bool full = fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, kSize) != 0 && (errno == ENOSPC || errno == EDQUOT);
  close(fd);
  return full ? ENOSPC : kOk;
}

}  // namespace

std::string CauseText(Cause cause) {
  switch (cause) {
    case kBadPath:
      return "is no path of the store";
    case kBadValue:
      return "the text is longer than " + std::to_string(record::kMaxText) + " bytes";
    case kOtherType:
      return "holds a value of another type";
    case kNoMemory:
      return "the memory file system gave no store";
    case kReadOnly:
      return "may only be read by this process";
    case kDamaged:
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case MDB_PANIC:
    case MDB_INVALID:
    case MDB_VERSION_MISMATCH:
    case MDB_BAD_TXN:
    case MDB_CURSOR_FULL:
    case MDB_MAP_RESIZED:  // its size never changes
      return "is damaged";
    case kGone:
      return "was removed while it was in use";
    case kNoStore:
      return "no store is open";
    case kFormat:
      return "was made by another version";
    case MDB_NOTFOUND:
      return "no such key";
    case MDB_MAP_FULL:
      return "is full";
    default:
      return cause > 0 ? std::generic_category().message(cause) : mdb_strerror(cause);
  }
}

Code CodeOf(Cause cause) {
  switch (cause) {
    case kOk:
      return Code::kOk;
    case kBadPath:
      return Code::kBadName;
    case kBadValue:
      return Code::kBadValue;
    case kOtherType:
      return Code::kWrongType;
    case kReadOnly:
    case EROFS:
      return Code::kReadOnly;
    case kGone:
      return Code::kRemoved;
    case kDamaged:
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case MDB_PANIC:
    case MDB_INVALID:
    case MDB_VERSION_MISMATCH:
    case MDB_BAD_TXN:
    case MDB_CURSOR_FULL:
    case MDB_MAP_RESIZED:
      return Code::kDamaged;
    case MDB_NOTFOUND:
    case ENOENT:
      return Code::kMissing;
    case MDB_MAP_FULL:
    case ENOSPC:
    case EDQUOT:
      return Code::kFull;
    case MDB_READERS_FULL:
      return Code::kBusy;
    case EACCES:
    case EPERM:
      return Code::kNotPermitted;
    default:
      return Code::kFailed;
  }
}

Status ToStatus(Cause cause, const std::string& about) {
  return cause == kOk ? Status() : Status(CodeOf(cause), about + ": " + CauseText(cause));
}

// ---- the readers of one thread

struct Environment::ThreadReaders {
  struct Reader {
    std::uint64_t environment = 0;
    MDB_txn* txn = nullptr;
  };
  // Plain memory, so that reading costs no check of whether it was built.
  [[gnu::tls_model("initial-exec")]] static thread_local constinit std::array<Reader, 2> readers;

  // Gives the readers back when the thread ends.
  struct Reaper {
    bool armed = false;
    ~Reaper() {
      auto& registry = TheRegistry();
      const std::lock_guard lock(registry.mutex);
      for (Reader& reader : readers) {
        if (const auto found = registry.environments.find(reader.environment); found != registry.environments.end()) {
          found->second->DropReader(reader.txn);
        }
        reader = {};
      }
    }
  };
  static thread_local Reaper reaper;
};
thread_local constinit std::array<Environment::ThreadReaders::Reader, 2> Environment::ThreadReaders::readers{};
thread_local Environment::ThreadReaders::Reaper Environment::ThreadReaders::reaper;

// ---- Environment

Environment::Environment(std::string directory, Kind kind)
    : directory_(std::move(directory)), file_(FileIn(directory_)), kind_(kind), id_(NextId()) {
  Guard::Install();
}

Environment::~Environment() {
  {
    auto& registry = TheRegistry();
    const std::lock_guard lock(registry.mutex);
    registry.environments.erase(id_);
    for (MDB_txn* reader : readers_) {
      Abort(reader);
    }
  }
  if (env_ != nullptr) {
    Quietly([this] { mdb_env_close(env_); });
  }
}

Cause Environment::Create(const std::string& directory, Kind kind, const Records& records) {
  std::error_code failed;
  auto target = std::filesystem::absolute(directory, failed);
  if (!failed) {
    target = std::filesystem::weakly_canonical(target, failed);
  }
  if (!target.has_filename()) {  // it ended with a slash
    target = target.parent_path();
  }
  if (!failed) {
    std::filesystem::create_directories(target.parent_path(), failed);
  }
  if (failed) {
    return failed.value();
  }
  std::string building = target.string() + ".new-XXXXXX";
  if (mkdtemp(building.data()) == nullptr) {
    return errno;
  }
  const auto build = [&] {
    Environment environment(building, kind);
    if (const Cause status = environment.OpenFiles(0); status != kOk) {
      return status;
    }
    WriteTransaction write(environment);
    for (const auto& [key, bytes] : records) {
      if (const Cause status = write.Put(key, bytes); status != kOk) {
        return status;
      }
    }
    if (const Cause status = write.Commit(); status != kOk) {
      return status;
    }
    if (kind == Kind::kMemory) {
      return kOk;
    }
    const Cause status = environment.Sync();
    return status == kOk ? SyncDirectory(building) : status;
  };
  Cause status = build();
  // Fails when another process was faster, and when anything but an empty folder stands there.
  if (status == kOk && rename(building.c_str(), target.c_str()) != 0) {
    status = errno == ENOTEMPTY ? EEXIST : errno;
  }
  if (status == kOk) {
    return kind == Kind::kDisk ? SyncDirectory(target.parent_path()) : kOk;
  }
  std::filesystem::remove_all(building, failed);
  return status;
}

Cause Environment::Open(const std::string& directory, Kind kind, std::unique_ptr<Environment>* environment) {
  const auto attempt = [&](unsigned flags) {
    std::unique_ptr<Environment> opened(new Environment(directory, kind));
    // LMDB takes an empty file for a new environment and fills it; a store must not begin anew by itself.
    struct stat file = {};
    if (stat(opened->file_.c_str(), &file) != 0) {
      return errno;
    }
    if (file.st_size == 0) {
      return kDamaged;
    }
    Cause status = opened->OpenFiles(flags);
    if (status == kOk) {
      status = opened->CheckWhole();
    }
    if (status == kOk) {
      *environment = std::move(opened);
    }
    return status;
  };
  Cause status = attempt(0);
  if (status == EACCES || status == EROFS || status == EPERM || status == ENOSPC) {
    // Without a place in the table of readers a view may be torn by a writer; the checksums tell.
    status = attempt(MDB_RDONLY | MDB_NOLOCK);
  }
  return status;
}

Cause Environment::OpenFiles(unsigned flags) {
  read_only_ = (flags & MDB_RDONLY) != 0;
  if (const Cause status = mdb_env_create(&env_); status != kOk) {
    return status;
  }
  mdb_env_set_mapsize(env_, kMapSize);
  mdb_env_set_maxreaders(env_, kMaxReaders);
  mdb_env_set_assert(env_, OnAssertion);
  flags |= MDB_NOTLS | MDB_NORDAHEAD | (kind_ == Kind::kDisk ? MDB_NOMETASYNC : MDB_NOSYNC);
  Cause status = read_only_ ? kOk : ReserveLock(directory_ + "/lock.mdb");
  if (status != kOk) {
    return status;
  }
  status = Guarded([&] { return mdb_env_open(env_, directory_.c_str(), flags, kFileMode); });
  if (status != kOk) {
    return status;
  }
  mdb_filehandle_t fd = -1;
  mdb_env_get_fd(env_, &fd);
  MDB_stat shape = {};
  status = Guarded([&] { return mdb_env_stat(env_, &shape); });
  if (status != kOk) {
    return status;
  }
  pages_ = Pages::Map(fd, kMapSize, shape.ms_psize);
  if (pages_ == nullptr) {
    return ENOMEM;
  }
  CheckReaders(env_);
  status = Guarded([&] {
    MDB_txn* txn = nullptr;
    Cause begun = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
    if (begun == kOk) {
      begun = mdb_dbi_open(txn, nullptr, 0, &tree_);
      mdb_txn_abort(txn);
    }
    return begun;
  });
  if (status == kOk) {
    auto& registry = TheRegistry();
    const std::lock_guard lock(registry.mutex);
    registry.environments.emplace(id_, this);
  }
  return status;
}

Cause Environment::Sync() {
  return read_only_ ? kReadOnly : NoteWrite(Guarded([this] { return mdb_env_sync(env_, 1); }));
}

Cause Environment::FileSize(std::size_t* size) const {
  mdb_filehandle_t fd = -1;
  struct stat file = {};
  if (mdb_env_get_fd(env_, &fd) != kOk || fstat(fd, &file) != 0) {
    return errno;
  }
  *size = static_cast<std::size_t>(file.st_size);
  return file.st_nlink == 0 ? kGone : kOk;
}

void Environment::SeeLastCommit() {
  std::uint64_t seen = 0;
  {
    const ReadTransaction view(*this);
    if (view.status() != kOk) {
      return;
    }
    seen = view.number();
  }
  if (const State last = LastState(); last.number != 0 && last.number != seen) {
    const WriteTransaction lock(*this);  // LMDB puts it right for the first who takes the lock after the dead
  }
}

// A file that ends before its last page may still hold all pages that are in use; else it was cut short. What a view
// sees is not written to, but its head is, by the second change that others make meanwhile; then another view is taken.
Cause Environment::CheckWhole() {
  constexpr int kAttempts = 5;
  Cause status = kDamaged;
  for (int i = 0; i < kAttempts && status == kDamaged; ++i) {
    const ReadTransaction view(*this);
    std::size_t size = 0;
    status = view.status() == kOk ? FileSize(&size) : view.status();
    if (status == kOk) {
      status = Guarded([&] {
        const bool whole = pages_->Begin(size, view.number()) && (pages_->IsWhole() || pages_->TreeIsSound());
        return whole ? kOk : kDamaged;
      });
    }
  }
  return status;
}

Cause Environment::Note(std::atomic<Cause>& last, Cause status) {
  const bool of_the_file =
      status > 0 || status == kDamaged || status == kGone || (status < kFormat && status != kNoKey);
  if (of_the_file && last.exchange(status) != status) {
    __dlog_print(2, 6, "VCONF", "%s: %s", file_.c_str(), CauseText(status).c_str());
  }
  if (status == MDB_MAP_FULL || status == ENOSPC) {
    CheckReaders(env_);  // one that was killed may hold old pages
  }
  return status;
}

Cause Environment::BeginRead(MDB_txn** reader) {
  auto& mine = ThreadReaders::readers[static_cast<std::size_t>(kind_)];
  if (mine.environment != id_) {
    const Cause status = MakeReader(&mine.txn);
    if (status != kOk) {
      return status;
    }
    mine.environment = id_;
    ThreadReaders::reaper.armed = true;
    *reader = mine.txn;
    return kOk;
  }
  *reader = mine.txn;
  const Cause status = Guarded([&] { return mdb_txn_renew(mine.txn); });
  if (status != kOk) {
    Quietly([&] { mdb_txn_reset(mine.txn); });
  }
  return status;
}

Cause Environment::MakeReader(MDB_txn** reader) {
  // LMDB would lose the reader that it is about to make where the file or the table of readers was cut short.
  const auto begin = [&] {
    struct stat lock = {};
    if (!read_only_ && stat((directory_ + "/lock.mdb").c_str(), &lock) == 0 && lock.st_size == 0) {
      return kDamaged;
    }
    return Guarded([&] {
      pages_->TouchHeads();
      return mdb_txn_begin(env_, nullptr, MDB_RDONLY, reader);
    });
  };
  Cause status = begin();
  if (status == MDB_READERS_FULL) {
    CheckReaders(env_);
    status = begin();
  }
  if (status == kOk) {
    const std::lock_guard lock(TheRegistry().mutex);
    readers_.push_back(*reader);
  }
  return status;
}

// What is usual takes one guarded step; the rest, and to tell what is wrong, is left to a transaction.
Cause Environment::Get(std::string_view key, RecordBuffer* record, State* state) {
  const auto& mine = ThreadReaders::readers[static_cast<std::size_t>(kind_)];
  if (mine.environment == id_) {
    MDB_val value = {};
    const Cause status = Guarded([&] {
      Cause found = mdb_txn_renew(mine.txn);
      if (found == kOk) {
        *state = {.environment = id_, .number = mdb_txn_id(mine.txn)};
        found = Transaction::Find(mine.txn, tree_, key, &value, record);
      }
      mdb_txn_reset(mine.txn);
      return found;
    });
    if (status == kOk && value.mv_size <= record->small_.size()) {
      record->size_ = value.mv_size;
      return kOk;
    }
    if (status == kDamaged) {
      Quietly([&] { mdb_txn_reset(mine.txn); });
    }
  }
  ReadTransaction view(*this);
  const Cause status = view.Get(key, record);
  if (status == kOk) {
    *state = {.environment = id_, .number = view.number()};
  }
  return status;
}

// Of two heads LMDB writes the older one, so a torn number is one that nobody has read from yet, or lower than the
// other. Without a lock a writer that was killed may leave a number behind that the next one gives to something else.
Environment::State Environment::LastState() const {
  MDB_envinfo info = {};
  if (read_only_ || Guarded([&] { return mdb_env_info(env_, &info); }) != kOk) {
    return {};
  }
  return {.environment = id_, .number = info.me_last_txnid};
}

void Environment::DropReader(MDB_txn* reader) {
  Abort(reader);
  std::erase(readers_, reader);
}

// ---- Transaction

Cause Transaction::Find(MDB_txn* txn, MDB_dbi tree, std::string_view key, MDB_val* value, RecordBuffer* record) {
  MDB_val wanted = ToVal(key);
  const Cause status = mdb_get(txn, tree, &wanted, value);
  if (status == kOk && value->mv_size <= record->small_.size()) {
    std::memcpy(record->small_.data(), value->mv_data, value->mv_size);
  }
  return status;
}

Cause Transaction::Get(std::string_view key, RecordBuffer* record) {
  if (status_ != kOk) {
    return status_;
  }
  MDB_val value = {};
  const Cause status = Guarded([&] { return Find(txn_, environment_.tree_, key, &value, record); });
  return environment_.NoteRead(status == kOk ? Finish(value, record) : status);
}

// What was too long for the buffer is copied in a second step, since memory cannot be had inside of a guarded one.
Cause Transaction::Finish(const MDB_val& value, RecordBuffer* record) {
  if (value.mv_size > record::kMaxSize) {
    return kDamaged;
  }
  record->size_ = value.mv_size;
  if (value.mv_size <= record->small_.size()) {
    return kOk;
  }
  record->large_.resize(value.mv_size);
  return Guarded([&] {
    std::memcpy(record->large_.data(), value.mv_data, value.mv_size);
    return kOk;
  });
}

Cause Transaction::ForEach(std::string_view prefix,
                           const std::function<void(std::string_view, std::string_view)>& visit) {
  if (status_ != kOk) {
    return status_;
  }
  MDB_cursor* opened = nullptr;
  if (const Cause status = mdb_cursor_open(txn_, environment_.tree_, &opened); status != kOk) {
    return status;
  }
  const std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)> cursor(opened, mdb_cursor_close);
  RecordBuffer record;
  std::array<char, kMaxKey> bytes;
  std::string last;
  MDB_val key = ToVal(prefix);
  for (MDB_cursor_op move = MDB_SET_RANGE;; move = MDB_NEXT) {
    MDB_val value = {};
    Cause status = Guarded([&] {
      const Cause moved = mdb_cursor_get(cursor.get(), &key, &value, move);
      if (moved != kOk) {
        return moved;
      }
      if (key.mv_size > bytes.size()) {
        return kDamaged;
      }
      std::memcpy(bytes.data(), key.mv_data, key.mv_size);
      if (value.mv_size <= record.small_.size()) {
        std::memcpy(record.small_.data(), value.mv_data, value.mv_size);
      }
      return kOk;
    });
    const std::string_view found(bytes.data(), status == kOk ? key.mv_size : 0);
    if (status == kNoKey || (status == kOk && !found.starts_with(prefix))) {
      return kOk;
    }
    if (status == kOk) {
      // Noise may lead round in a circle, but never in ascending order.
      status = found > last ? Finish(value, &record) : kDamaged;
    }
    if (status != kOk) {
      return environment_.NoteRead(status);
    }
    last = found;
    visit(last, record.view());
  }
}

// ---- ReadTransaction

ReadTransaction::ReadTransaction(Environment& environment) : Transaction(environment) {
  status_ = environment.NoteRead(environment.BeginRead(&txn_));
}

ReadTransaction::~ReadTransaction() {
  if (status_ == kOk) {
    Quietly([this] { mdb_txn_reset(txn_); });
  }
}

// ---- WriteTransaction

WriteTransaction::WriteTransaction(Environment& environment) : Transaction(environment) {
  if (environment.read_only_) {
    status_ = kReadOnly;
    return;
  }
  // A fault here costs nothing; in LMDB it would come after the lock was taken and where nothing could give it back.
  status_ = Guarded([&] {
    environment.pages_->TouchHeads();
    return kOk;
  });
  if (status_ == kOk) {
    status_ = Run([this] { return mdb_txn_begin(environment_.env_, nullptr, 0, &txn_); });
  }
  environment.NoteWrite(status_);
}

WriteTransaction::~WriteTransaction() { Drop(); }

void WriteTransaction::Drop() {
  if (MDB_txn* const txn = std::exchange(txn_, nullptr); txn != nullptr) {
    // Also after a fault: other processes wait for the lock.
    Quietly([txn] { mdb_txn_abort(txn); });
  }
}

template <typename Step>
Cause WriteTransaction::Run(Step&& step) {
  if (environment_.write_broken_.load(std::memory_order_relaxed)) {
    return kDamaged;
  }
  const Cause status = Guarded(step);
  if (status == kDamaged) {
    // LMDB was left in the middle of a change to its own state, which nothing may build on.
    environment_.write_broken_.store(true, std::memory_order_relaxed);
  }
  return status;
}

// Nothing is written to pages that are not sound. Who only wants the lock pays nothing for it.
Cause WriteTransaction::CheckBeforeChange(std::string_view key) {
  if (status_ != kOk) {
    return status_;
  }
  Pages& pages = *environment_.pages_;
  if (!head_checked_) {
    std::size_t size = 0;
    if (const Cause status = environment_.FileSize(&size); status != kOk) {
      return status;
    }
    const Cause status = Guarded([&] { return pages.Begin(size, number() - 1) ? kOk : kDamaged; });
    if (status != kOk) {
      return status;
    }
    head_checked_ = true;
  }
  return Guarded([&] { return pages.PathIsSound(key) ? kOk : kDamaged; });
}

// What is left of a page may be joined with the pages beside it.
Cause WriteTransaction::CheckBeforeDelete() {
  const Cause status = Guarded([this] { return tree_checked_ || environment_.pages_->TreeIsSound() ? kOk : kDamaged; });
  tree_checked_ = status == kOk;
  return status;
}

Cause WriteTransaction::Put(std::string_view key, std::string_view bytes, bool last) {
  Cause status = CheckBeforeChange(key);
  if (status == kOk) {
    status = Run([&] {
      MDB_val at = ToVal(key);
      MDB_val value = ToVal(bytes);
      return mdb_put(txn_, environment_.tree_, &at, &value, last ? MDB_APPEND : 0);
    });
  }
  return environment_.NoteWrite(status);
}

Cause WriteTransaction::Delete(std::string_view key) {
  Cause status = CheckBeforeChange(key);
  if (status == kOk) {
    status = CheckBeforeDelete();
  }
  if (status == kOk) {
    status = Run([&] {
      MDB_val at = ToVal(key);
      return mdb_del(txn_, environment_.tree_, &at, nullptr);
    });
  }
  return environment_.NoteWrite(status);
}

Cause WriteTransaction::Commit() {
  if (status_ != kOk) {
    return status_;
  }
  const Cause status = Run([this] { return mdb_txn_commit(txn_); });
  if (status != kDamaged) {
    txn_ = nullptr;  // committed or dropped by LMDB
  }
  if (status == kOk) {
    environment_.last_write_.store(kOk, std::memory_order_relaxed);
  }
  return environment_.NoteWrite(status);
}

}  // namespace vconf
