#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "result.h"

/// The control interface of the store, for a runtime, a shell or a test: selects the store of this process, accesses
/// values of every type and prefix, watches prefixes, and sets faults.
///
/// In addition to `db/` and `memory/`, the store holds the rest of the simulated set under `set/` (kept on disk), which
/// the `vconf_*` functions do not access. A path has at most 511 bytes, a text 65,536 bytes. Every function may be
/// called on any thread.
namespace vconf {

using Value = std::variant<int, bool, std::string>;

struct Entry {
  std::string path;
  Value value;
  bool operator==(const Entry&) const = default;
};

/// One change by any process. A removed key has no value. A text of more than 128 bytes is not stored with its change:
/// `value` is the key's value at delivery, and empty if the key no longer exists.
struct Change {
  std::uint64_t sequence;
  std::string path;
  std::optional<Value> value;
};

/// Opens the store in `directory` for this process. The folder must contain one, otherwise `kMissing`. After a failure
/// this process has no store, and every later call returns a failure. A process has one store at a time.
///
/// The owner and root may write it; others read what they can open. A store that cannot be written is opened for
/// reading. A store of the previous version is converted once. After a fork the child has the store open without its
/// parent's subscriptions.
Status OpenStore(const std::string& directory);

/// The same, but if the folder does not exist or is empty, a new store with `initial` is created atomically for other
/// processes. An existing store is never filled, emptied or replaced, and a folder with any other content is refused
/// and left unchanged.
Status OpenOrCreateStore(const std::string& directory, const std::vector<Entry>& initial);

/// Ends all subscriptions and closes the store. No call may be running on another thread. Must not be called on the
/// notification thread.
void CloseStore();

/// Moves the files of the store in `directory`, damaged or not, to a new folder beside it and returns its name; deletes
/// nothing. Creates a new store with `initial` in their place. Works whether or not this process has that store open. A
/// process that has the old store open continues with the new one; its listeners are called once for each key, as after
/// falling behind.
Result<std::string> ReplaceStore(const std::string& directory, const std::vector<Entry>& initial);

/// Whether the open store can still be used: ok, or the failure of a call that needs it. Costs a system call.
Status CheckStore();

/// `kMissing` if the key does not exist.
Result<Value> Get(const std::string& path);

/// A key keeps its type: another type is an error, and so is a path with another prefix. A change under `db/` or `set/`
/// is durable when the call returns. It may still take effect after `kBusy`, when the process named in the text goes
/// on, and after a failure of the disk.
Status Set(const std::string& path, const Value& value);
Status Remove(const std::string& path);

/// Removes every key of the store and writes `entries`: first those in memory, then those on disk; the second step may
/// fail after the first. Each step is atomic, the first for up to 1,024 keys. Makes one change for each key that
/// differs. Faults are kept.
Status Reset(const std::vector<Entry>& entries);

/// All keys that begin with `prefix`, in byte order; a failure if not all of them could be read. Each value is one that
/// its key had during the call; it is not a snapshot if there are concurrent writes. Faults are not included.
Result<std::vector<Entry>> List(const std::string& prefix);

/// Calls `on_change` on the notification thread for each change of a path that begins with `prefix`, until the result
/// is destroyed; the destructor waits for a running call, except on the notification thread itself. A watch that falls
/// behind by more than 65,536 changes gets one call for each key under `prefix` instead.
class Watch {
 public:
  virtual ~Watch() = default;
};
Result<std::unique_ptr<Watch>> WatchPrefix(const std::string& prefix, std::function<void(const Change&)> on_change);

/// Waits until all callbacks and watches of this process have received every change made, by any process, before the
/// call. Wakes no other process. Must not be called on the notification thread.
void Settle();

/// How many `vconf_notify_key_changed` subscriptions this process has now.
std::size_t SubscriptionCount();

/// Their paths, without duplicates, in byte order.
std::vector<std::string> SubscribedPaths();

/// Makes the call named `call` return `answer` for `path`. A fault is kept in the store, so it affects every process at
/// once. It is removed after `times` calls; with 0 it stays until it is cleared. `call` is the name of a C function:
/// one of the seven of the store, or one of another service that uses `TakeFault`. The path "*" means every path; a
/// fault for one path has precedence. Any answer is accepted here, even if it is not a failure of the call.
struct Fault {
  std::string call;
  std::string path;
  int answer = 0;
  unsigned times = 0;
  bool operator==(const Fault&) const = default;
};
Status SetFault(const Fault& fault);                                  ///< replaces a fault for the same call and path
Status ClearFault(const std::string& call, const std::string& path);  ///< no error when there is none
Status ClearFaults();
Result<std::vector<Fault>> ListFaults();  ///< all, or a failure

/// The answer of the fault for this call, whose remaining count is decremented; empty if there is none.
std::optional<int> TakeFault(std::string_view call, std::string_view path);

}  // namespace vconf
