#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "result.h"
#include "store.h"
#include "vconf.h"

namespace vconf {

/// Calls the listeners of this process for each change of a store, on a thread that runs while there are listeners. Any
/// thread.
///
/// No lock is held while a listener is called, so it may call any function, also of this class. Removing a listener
/// waits only for a running call of that listener; on the notification thread it does not wait.
class Notifier {
 public:
  struct Listener;
  using ListenerPtr = std::shared_ptr<Listener>;

  explicit Notifier(Store& store) : store_(store) {}
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;
  ~Notifier();

  Status Subscribe(const std::string& path, vconf_callback_fn callback, void* user_data);

  /// Ends all subscriptions of the pair.
  void Ignore(const std::string& path, vconf_callback_fn callback);

  Status Watch(const std::string& prefix, std::function<void(const Change&)> on_change, ListenerPtr* watch);
  void EndWatch(const ListenerPtr& watch);

  /// Waits until every change made before the call has been delivered. Wakes no other process.
  void Settle();

  /// Around a fork. The child has this notifier without its thread, and must use another one.
  void BeforeFork() { mutex_.lock(); }
  void AfterForkInParent() { mutex_.unlock(); }
  void AfterForkInChild();

  std::size_t subscriptions() const;
  std::vector<std::string> SubscribedPaths() const;

 private:
  Status Start(std::uint64_t* since);
  void AwaitEnd(std::unique_lock<std::mutex>& lock, const std::vector<ListenerPtr>& ended);
  bool IdleLocked() const { return by_path_.empty() && watches_.empty(); }
  bool OnThread() const { return std::this_thread::get_id() == thread_id_; }

  void Run();
  bool Deliver(Region** region);
  void CatchUp(Region& region);
  void Call(const ListenerPtr& listener, const Change& change);
  std::vector<ListenerPtr> ListenersOf(const Change& change) const;
  std::vector<ListenerPtr> AllLocked() const;

  Store& store_;

  mutable std::mutex mutex_;
  std::condition_variable progress_;  // a call returned, a change was delivered, or the thread ended
  std::unordered_map<std::string, std::vector<ListenerPtr>> by_path_;
  std::vector<ListenerPtr> watches_;
  const Listener* running_ = nullptr;
  Region* region_ = nullptr;  // the region to which `next_` refers
  std::uint64_t next_ = 0;    // the first change that was not delivered yet
  bool alive_ = false;        // the thread runs, and will check for listeners before it ends
  bool forked_ = false;       // the thread belongs to the parent
  unsigned lost_ = 0;         // how often the thread has found the region replaced, or damaged without a replacement
  std::thread thread_;
  std::thread::id thread_id_;
};

}  // namespace vconf
