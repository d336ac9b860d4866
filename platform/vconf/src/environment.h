#pragma once

#include <lmdb.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cause.h"
#include "pages.h"
#include "record.h"

namespace vconf {

class RecordBuffer;

/// One LMDB environment with one tree of records, and the shield round it: whatever stands in its files, a step ends in
/// a status. Any thread.
class Environment {
 public:
  enum class Kind : std::uint8_t {
    kDisk,    ///< survives the power; a commit may be lost with it until `Sync`
    kMemory,  ///< on a memory file system; nothing is ever synced
  };
  using Records = std::vector<std::pair<std::string, std::string>>;

  /// What is committed at one time, in one environment of this process. Each commit makes another one.
  struct State {
    std::uint64_t environment = 0;
    std::uint64_t number = 0;
    bool operator==(const State&) const = default;
  };

  /// Makes `directory` with an environment that holds `records`, in one step and durably. EEXIST when it is there.
  static Cause Create(const std::string& directory, Kind kind, const Records& records);

  /// Opens what `Create` made; read-only where this process may not write. One environment of a kind at a time.
  static Cause Open(const std::string& directory, Kind kind, std::unique_ptr<Environment>* environment);

  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;
  ~Environment();

  const std::string& file() const { return file_; }

  /// One record as it stands now, as a `ReadTransaction` for it alone would give it. Not within one of this thread.
  /// `state` is what it was read from; only when it goes well.
  Cause Get(std::string_view key, RecordBuffer* record, State* state);

  /// The state that a reader would see now, for little more than a look at two words. Empty when it cannot be told.
  State LastState() const;

  /// Lets everybody see a commit whose writer died before it had said so, as the next writer here would. Costs next to
  /// nothing where there is none. Not within a transaction of this thread.
  void SeeLastCommit();

  /// Makes all commits durable.
  Cause Sync();

  /// Logs a failure that has to do with the file, once for each cause in a row, and hands the status on.
  Cause NoteRead(Cause status) { return Note(last_read_, status); }
  Cause NoteWrite(Cause status) { return Note(last_write_, status); }

  static std::string FileIn(const std::string& directory) { return directory + "/data.mdb"; }

 private:
  friend class Transaction;
  friend class ReadTransaction;
  friend class WriteTransaction;
  struct ThreadReaders;

  Environment(std::string directory, Kind kind);

  Cause OpenFiles(unsigned flags);
  Cause FileSize(std::size_t* size) const;
  Cause CheckWhole();
  Cause Note(std::atomic<Cause>& last, Cause status);

  // A reader stays with its thread, so that beginning to read is no system call.
  Cause BeginRead(MDB_txn** reader);
  Cause MakeReader(MDB_txn** reader);
  void DropReader(MDB_txn* reader);

  const std::string directory_;
  const std::string file_;
  const Kind kind_;
  const std::uint64_t id_;
  MDB_env* env_ = nullptr;
  MDB_dbi tree_ = 0;
  std::unique_ptr<Pages> pages_;  // guarded by the lock of the writer
  bool read_only_ = false;
  std::atomic<bool> write_broken_{false};
  std::atomic<Cause> last_read_{kOk};
  std::atomic<Cause> last_write_{kOk};
  std::vector<MDB_txn*> readers_;  // guarded by the registry's mutex
};

/// The bytes of one record, copied out of the map. Short ones need no allocation.
class RecordBuffer {
 public:
  std::string_view view() const { return {size_ <= small_.size() ? small_.data() : large_.data(), size_}; }

 private:
  friend class Environment;
  friend class Transaction;
  std::array<char, 256> small_;
  std::string large_;
  std::size_t size_ = 0;
};

/// What reading and writing transactions have in common. One thread, within one scope.
class Transaction {
 public:
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  /// How it began; after a failure every call fails with the same status.
  Cause status() const { return status_; }

  /// Which state of the environment it sees; a writer's is the one that its commit makes. Only while it goes well.
  std::uint64_t number() const { return mdb_txn_id(txn_); }

  /// `kNoKey` when there is no such record.
  Cause Get(std::string_view key, RecordBuffer* record);

  /// Visits the records whose keys begin with `prefix`, which is not empty, in the order of their bytes. `visit` must
  /// not write.
  Cause ForEach(std::string_view prefix, const std::function<void(std::string_view, std::string_view)>& visit);

 protected:
  explicit Transaction(Environment& environment) : environment_(environment) {}
  ~Transaction() = default;

  Environment& environment_;
  MDB_txn* txn_ = nullptr;
  Cause status_ = kOk;

 private:
  friend class Environment;
  static Cause Find(MDB_txn* txn, MDB_dbi tree, std::string_view key, MDB_val* value, RecordBuffer* record);
  Cause Finish(const MDB_val& value, RecordBuffer* record);
};

/// One view of the environment as it was at the beginning. Not nested in another one of the same thread.
class ReadTransaction : public Transaction {
 public:
  explicit ReadTransaction(Environment& environment);
  ~ReadTransaction();
};

/// The one writer over all processes; dropped unless it was committed.
class WriteTransaction : public Transaction {
 public:
  explicit WriteTransaction(Environment& environment);
  ~WriteTransaction();

  /// `last` says that no key in the tree is higher, which packs the pages.
  Cause Put(std::string_view key, std::string_view bytes, bool last = false);
  Cause Delete(std::string_view key);

  /// Makes everything visible at once, or nothing.
  Cause Commit();

 private:
  template <typename Step>
  Cause Run(Step&& step);
  Cause CheckBeforeChange(std::string_view key);
  Cause CheckBeforeDelete();
  void Drop();

  bool head_checked_ = false;
  bool tree_checked_ = false;
};

}  // namespace vconf
