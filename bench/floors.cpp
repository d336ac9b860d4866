#include "floors.h"

#include <stdexcept>
#include <utility>

namespace bench {
namespace {

void Need(int status) {
  if (status != MDB_SUCCESS) throw std::runtime_error(std::string("the bare store: ") + mdb_strerror(status));
}

MDB_val Bytes(std::string& text) { return {text.size(), text.data()}; }

}  // namespace

SpinPartner::SpinPartner(std::function<void()> work)
    : thread_([this, work = std::move(work)] {
        while (true) {
          Turn turn = kAsker;
          while ((turn = turn_.load(std::memory_order_acquire)) == kAsker) {
          }
          if (turn == kEnd) return;
          work();
          turn_.store(kAsker, std::memory_order_release);
        }
      }) {}

SpinPartner::~SpinPartner() {
  turn_.store(kEnd, std::memory_order_release);
  thread_.join();
}

CondvarPartner::CondvarPartner()
    : thread_([this] {
        std::unique_lock lock(mutex_);
        while (true) {
          partner_.wait(lock, [this] { return partners_turn_ || end_; });
          if (end_) return;
          woke_ = Clock::now();
          partners_turn_ = false;
          // Without the lock, which the woken thread acquires at once.
          lock.unlock();
          asker_.notify_one();
          lock.lock();
        }
      }) {}

CondvarPartner::~CondvarPartner() {
  {
    const std::lock_guard lock(mutex_);
    end_ = true;
  }
  partner_.notify_one();
  thread_.join();
}

Clock::time_point CondvarPartner::Ask() {
  std::unique_lock lock(mutex_);
  partners_turn_ = true;
  lock.unlock();
  partner_.notify_one();
  lock.lock();
  asker_.wait(lock, [this] { return !partners_turn_; });
  return woke_;
}

BareStore::BareStore(const std::string& directory, unsigned flags, std::string key, int keys) : key_(std::move(key)) {
  Need(mdb_env_create(&env_));
  Need(mdb_env_set_mapsize(env_, std::size_t{1} << 28U));
  Need(mdb_env_open(env_, directory.c_str(), flags | MDB_NOTLS, 0600));
  MDB_txn* txn = nullptr;
  Need(mdb_txn_begin(env_, nullptr, 0, &txn));
  Need(mdb_dbi_open(txn, nullptr, 0, &tree_));
  for (int i = 0; i <= keys; ++i) {
    std::string name = i == keys ? key_ : "db/menu/other/setting/number/" + std::to_string(i);
    MDB_val at = Bytes(name);
    MDB_val value{sizeof i, &i};
    Need(mdb_put(txn, tree_, &at, &value, 0));
  }
  Need(mdb_txn_commit(txn));
  Need(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_));
  mdb_txn_reset(reader_);
}

BareStore::~BareStore() {
  mdb_txn_abort(reader_);
  mdb_env_close(env_);
}

int BareStore::Read(std::string& key) {
  MDB_val at = Bytes(key);
  MDB_val value{};
  mdb_txn_renew(reader_);
  const int status = mdb_get(reader_, tree_, &at, &value);
  const int number = status == MDB_SUCCESS ? *static_cast<const int*>(value.mv_data) : status;
  mdb_txn_reset(reader_);
  return number;
}

void BareStore::Write(int number) {
  MDB_val at = Bytes(key_);
  MDB_val value{sizeof number, &number};
  MDB_txn* txn = nullptr;
  Need(mdb_txn_begin(env_, nullptr, 0, &txn));
  Need(mdb_put(txn, tree_, &at, &value, 0));
  Need(mdb_txn_commit(txn));
}

}  // namespace bench
