#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "changes.h"
#include "database.h"
#include "region.h"
#include "store_files.h"
#include "table.h"
#include "vconf_control.h"

namespace vconf {

/// The keys and the faults of the store that this process has open. Any thread.
///
/// Reads use the region and do not wait. A change in memory acquires the region's lock; a change on disk acquires the
/// disk lock, commits to the database and acquires the region's lock to publish.
class Store {
 public:
  /// Without `initial`, the store must exist.
  static Result<std::unique_ptr<Store>> Open(const std::string& directory, const std::vector<Entry>* initial);

  Result<Value> Get(std::string_view path);
  Code GetNumber(std::string_view path, layout::Kind kind, int* number);
  Status Set(std::string_view path, const Value& value);
  Status Remove(std::string_view path);
  Status Reset(const std::vector<Entry>& entries);

  /// Appends all that can be read, also when it fails.
  Status List(std::string_view prefix, std::vector<Entry>* entries);

  /// Fails if the store no longer exists or can no longer be read.
  Status Check();

  Status SetFault(const Fault& fault);
  Status ClearFault(std::string_view call, std::string_view path);
  Status ClearFaults();
  Result<std::vector<Fault>> ListFaults();

  /// While there are no faults, this only reads one word.
  std::optional<int> TakeFault(std::string_view call, std::string_view path) {
    return region_.load(std::memory_order_acquire)->header().no_faults.load(std::memory_order_acquire) != 0
               ? std::nullopt
               : ConsumeFault(call, path);
  }

  /// The current region. Replaced regions stay mapped until the store is closed. It may be damaged if there is no
  /// replacement.
  Region& region();

  /// Around a fork: closes SQLite for both processes, and locks the mutex, so that the state is consistent.
  void BeforeFork();
  void AfterFork();

 private:
  // Appends the changes to make to `rows`. It is called with the locks held, so the state that it reads does not
  // change.
  using Plan = std::function<Status(Region& region, std::vector<Row>* rows)>;
  enum class Home : std::uint8_t { kDisk, kMemory };  // where a key is kept
  static Home HomeOf(std::string_view path);
  using Wanted = std::map<std::string, Value, std::less<>>;

  /// Appends to `rows` the changes that turn `held` into `wanted`.
  static void Difference(const std::vector<Entry>& held, const Wanted& wanted, std::vector<Row>* rows);

  /// Prepares all of `rows`, so that publishing them cannot fail. Requires the region's lock.
  Status Prepare(Home home, Region& region, const std::vector<Row>& rows, std::vector<std::uint32_t>* keys) const;

  explicit Store(std::string directory) : directory_(std::move(directory)) {}

  template <typename Read>
  Code ReadKey(std::string_view path, const Read& read);
  Region& Renew(Region& old);
  std::optional<store_files::Opened> Successor(Region& old);
  Status ForWriting(Region** region);
  Status Change(Home home, const Plan& plan);
  Status ChangeInMemory(Region& region, const Plan& plan);
  Status ChangeOnDisk(Region& region, const Plan& plan);
  Status Connect(const Region& region);
  Status Recover(Region& region);
  Status PublishFromDisk(Region& region);
  void RecoverIfNeeded();
  Status ToStatus(Code code, std::string_view path, const Region& region) const;
  Status LogRead(Status status) { return LogIfNew(last_read_, std::move(status)); }
  Status LogWrite(Home home, Status status) {
    return LogIfNew(home == Home::kDisk ? last_disk_write_ : last_memory_write_, std::move(status));
  }
  // Logs a failure of the store's files or locks, unless the last such call failed with the same code.
  static Status LogIfNew(std::atomic<Code>& last, Status status);
  std::optional<int> ConsumeFault(std::string_view call, std::string_view path);

  const std::string directory_;

  std::atomic<Region*> region_{nullptr};
  std::atomic<std::chrono::steady_clock::time_point> look_again_{};  // no search for a new region before this time

  std::mutex database_mutex_;                // guards these two
  std::vector<store_files::Opened> opened_;  // the last one is in use
  std::unique_ptr<Database> database_;       // opened for the first change on disk

  std::atomic<Code> last_read_{Code::kOk};
  std::atomic<Code> last_disk_write_{Code::kOk};
  std::atomic<Code> last_memory_write_{Code::kOk};
};

/// Whether `path` is valid: a known prefix, a name, and no more than 511 bytes. `set/` is valid only with `control`,
/// for the control interface.
bool IsPath(std::string_view path, bool control);

/// Whether all of `entries` are valid; otherwise the failure of the first invalid one.
Status CheckEntries(const std::vector<Entry>& entries);

}  // namespace vconf
