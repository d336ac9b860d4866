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

/// The side of the store that a runtime, a shell or a test steers: which store this process uses, values of every type
/// and prefix, changes of whole prefixes, and faults.
///
/// Beside `db/` and `memory/` the store holds the rest of the simulated set under `set/` (kept on disk), which the
/// `vconf_*` functions do not serve. A path is at most 511 bytes long, a text 65,536 bytes. Every function may be
/// called on any thread. A failure comes as a code for programs and a text for people that names the file or the path.
namespace vconf {

using Value = std::variant<int, bool, std::string>;

struct Entry {
  std::string path;
  Value value;
  bool operator==(const Entry&) const = default;
};

/// One change, by whatever process. A removed key has no value. A text of more than 128 bytes is not kept with its
/// change: it is the one that the key holds when the change is told, and missing if the key is then gone.
struct Change {
  std::uint64_t sequence;
  std::string path;
  std::optional<Value> value;
};

/// Opens the store in `directory` for this process. It must exist and hold one: `kMissing` otherwise, also for an empty
/// folder. On failure every later call fails by value and this process has no store. One store for a process at a time.
///
/// Its owner, and root, may write it; others read what they can open. What cannot be written is opened for reading. A
/// store of the version before this one is converted once. After a fork the child has the store open without the
/// subscriptions of its parent.
Status OpenStore(const std::string& directory);

/// The same, but a folder that does not exist yet, or is empty, becomes a new store that holds `initial`. That is one
/// step, so that no other process sees half of it. A store that exists is never filled, emptied or replaced, and a
/// folder that holds anything else is refused and left alone.
Status OpenOrCreateStore(const std::string& directory, const std::vector<Entry>& initial);

/// Ends all subscriptions and closes the store. No call may be running on another thread. Not on the notification
/// thread.
void CloseStore();

/// Moves the files of the store in `directory`, damaged or not, to a new folder beside it and returns its name; deletes
/// nothing. In their place a new store with `initial` is made. Works whether or not this process has that store open. A
/// process that has the old one open goes on with the new one; its listeners are called once for each key, as those who
/// fall behind.
Result<std::string> ReplaceStore(const std::string& directory, const std::vector<Entry>& initial);

/// Whether the store that is open can still be used: ok, or what a call that needs it would fail with. Costs a system
/// call.
Status CheckStore();

/// `kMissing` for a key that is not there.
Result<Value> Get(const std::string& path);

/// A key keeps its type: another type is an error, and so is a path with another prefix. What `db/` and `set/` gain is
/// durable when the call returns. After `kBusy` it may still come about, when the process that is named goes on.
Status Set(const std::string& path, const Value& value);
Status Remove(const std::string& path);

/// Removes every key of the store and writes `entries`: first those in memory, in one step, then those on disk, in
/// another, which may fail alone. A change for each key that differs. Faults stay.
Status Reset(const std::vector<Entry>& entries);

/// All keys that begin with `prefix`, in the order of their bytes; a failure when not all of them could be read. Each
/// value is one that its key had during the call; while nobody writes, all are of one moment. Faults are not among
/// them.
Result<std::vector<Entry>> List(const std::string& prefix);

/// Calls `on_change` on the notification thread for each change of a path that begins with `prefix`, until the result
/// is destroyed; the destructor returns when no call is running any more, except on the notification thread itself.
/// Who falls behind by more than 65,536 changes gets one call for each key under `prefix` instead.
class Watch {
 public:
  virtual ~Watch() = default;
};
Result<std::unique_ptr<Watch>> WatchPrefix(const std::string& prefix, std::function<void(const Change&)> on_change);

/// Returns when all callbacks and watches of this process have been given every change made, by whatever process,
/// before the call. Wakes no other process. Not on the notification thread.
void Settle();

/// How many `vconf_notify_key_changed` subscriptions this process has now.
std::size_t SubscriptionCount();

/// Their paths, each once, in the order of their bytes.
std::vector<std::string> SubscribedPaths();

/// "This call on this path answers that." A fault lies in the store, so that it reaches every process at once; it goes
/// when it has answered `times` calls, or with 0 stays until it is cleared. The calls are named as their callers write
/// them: the seven of the store, and those of the other services that ask with `TakeFault`. The path "*" means every
/// path; a fault for one path goes before one for all. Any answer is taken here, also one that is no failure of its
/// call.
struct Fault {
  std::string call;
  std::string path;
  int answer = 0;
  unsigned times = 0;
  bool operator==(const Fault&) const = default;
};
Status SetFault(const Fault& fault);  ///< in place of an earlier fault for the same call and path
Status ClearFault(const std::string& call, const std::string& path);  ///< no error when there is none
Status ClearFaults();
Result<std::vector<Fault>> ListFaults();  ///< all, or a failure

/// The answer that a fault gives to this call now, and one use of it taken; nothing when there is none.
std::optional<int> TakeFault(std::string_view call, std::string_view path);

}  // namespace vconf
