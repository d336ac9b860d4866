#include "notifier.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <system_error>
#include <utility>

namespace vconf {

/// One subscription or one watch. The notifier's mutex guards everything except the constants.
struct Notifier::Listener {
  const std::string at;  // a path, or the prefix of a watch
  std::uint64_t since;
  const vconf_callback_fn callback;
  void* const user_data;
  const std::function<void(const Change&)> on_change;
  bool ended = false;
};

namespace {

// How often the thread, and a thread in `Settle`, looks for changes without being woken: a writer may be killed after
// its change is visible and before it wakes the listeners.
constexpr std::chrono::seconds kPollInterval{1};
constexpr std::chrono::milliseconds kSettlePollInterval{100};

constexpr std::size_t kMostAtOnce = 256;  // changes that are read before they are delivered

// The program's signal handlers must not run on the notification thread, except the fatal ones.
void BlockSignals(sigset_t* previous) {
  sigset_t all;
  sigfillset(&all);
  for (const int fatal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
    sigdelset(&all, fatal);
  }
  pthread_sigmask(SIG_SETMASK, &all, previous);
}

}  // namespace

Notifier::~Notifier() {
  std::unique_lock lock(mutex_);
  const std::vector<ListenerPtr> ended = AllLocked();
  watches_.clear();
  by_path_.clear();
  AwaitEnd(lock, ended);
  progress_.wait(lock, [this] { return !alive_; });
  if (thread_.joinable()) {
    thread_.join();
  }
}

Status Notifier::Subscribe(const std::string& path, vconf_callback_fn callback, void* user_data) {
  const std::lock_guard lock(mutex_);
  std::uint64_t since = 0;
  Status status = Start(&since);
  if (status.ok()) {
    by_path_[path].push_back(std::make_shared<Listener>(Listener{path, since, callback, user_data, {}}));
  }
  return status;
}

Status Notifier::Watch(const std::string& prefix, std::function<void(const Change&)> on_change, ListenerPtr* watch) {
  const std::lock_guard lock(mutex_);
  std::uint64_t since = 0;
  Status status = Start(&since);
  if (status.ok()) {
    *watch = std::make_shared<Listener>(Listener{prefix, since, nullptr, nullptr, std::move(on_change)});
    watches_.push_back(*watch);
  }
  return status;
}

// Starts the thread if there is none. It reads the listeners only after the mutex is released. `since` is read under
// the mutex: changes delivered from now on are compared with it.
Status Notifier::Start(std::uint64_t* since) {
  Region& region = store_.region();
  if (!region.IsWhole()) {
    return {Code::kDamaged, region.file() + ": is damaged; end the programs that use this file, then remove it"};
  }
  // The thread may not have noticed yet that this region has replaced the one that it reads.
  *since = !alive_ || &region == region_ ? region.header().last.load(std::memory_order_acquire) : 0;
  if (alive_) {
    return {};
  }
  if (thread_.joinable()) {
    thread_.join();  // it has set `alive_` to false and acquires no lock any more
  }
  region_ = &region;
  next_ = *since + 1;
  sigset_t previous;
  BlockSignals(&previous);
  try {
    thread_ = std::thread([this] { Run(); });
    thread_id_ = thread_.get_id();
    alive_ = true;
  } catch (const std::system_error&) {
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return alive_ ? Status()
                : Status(Code::kFailed, "the notification thread cannot be started; end other threads or processes");
}

void Notifier::Ignore(const std::string& path, vconf_callback_fn callback) {
  std::unique_lock lock(mutex_);
  const auto found = by_path_.find(path);
  if (found == by_path_.end()) {
    return;
  }
  auto& listeners = found->second;
  const auto keep = std::stable_partition(listeners.begin(), listeners.end(),
                                          [callback](const auto& each) { return each->callback != callback; });
  const std::vector<ListenerPtr> ended(keep, listeners.end());
  listeners.erase(keep, listeners.end());
  if (listeners.empty()) {
    by_path_.erase(found);
  }
  AwaitEnd(lock, ended);
}

void Notifier::EndWatch(const ListenerPtr& watch) {
  std::unique_lock lock(mutex_);
  std::erase(watches_, watch);
  AwaitEnd(lock, {watch});
}

void Notifier::AwaitEnd(std::unique_lock<std::mutex>& lock, const std::vector<ListenerPtr>& ended) {
  for (const auto& listener : ended) {
    listener->ended = true;
  }
  if (OnThread() || forked_) {
    return;
  }
  progress_.wait(lock, [&] {
    return std::none_of(ended.begin(), ended.end(), [this](const auto& each) { return each.get() == running_; });
  });
  if (IdleLocked() && alive_) {
    region_->WakeOwn();  // the thread may be asleep, and has to end
    // A listener that removed itself may still be running, and is not waited for; otherwise the thread ends at once.
    progress_.wait(lock, [this] { return !alive_ || !IdleLocked() || running_ != nullptr; });
  }
  if (!alive_ && thread_.joinable()) {
    thread_.join();
    thread_id_ = {};
  }
}

void Notifier::Settle() {
  std::unique_lock lock(mutex_);
  if (!alive_ || OnThread() || forked_) {
    return;
  }
  const Region& now = store_.region();
  const std::uint64_t last = now.header().last.load(std::memory_order_acquire);
  const auto settled = [&, before = lost_] {
    return !alive_ || (region_ == &now && next_ > last && running_ == nullptr) || (!now.IsWhole() && lost_ != before);
  };
  // A writer wakes the thread, unless it died or was stopped just before.
  while (!progress_.wait_for(lock, kSettlePollInterval, settled)) {
    region_->WakeOwn();
  }
}

std::size_t Notifier::subscriptions() const {
  const std::lock_guard lock(mutex_);
  return AllLocked().size() - watches_.size();
}

void Notifier::AfterForkInChild() {
  forked_ = true;
  mutex_.unlock();
}

std::vector<std::string> Notifier::SubscribedPaths() const {
  std::vector<std::string> paths;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [path, listeners] : by_path_) {
      paths.push_back(path);
    }
  }
  std::ranges::sort(paths);
  return paths;
}

// ---- the notification thread

void Notifier::Run() {
  pthread_setname_np(pthread_self(), "vconf-notify");
  Region* region = &store_.region();
  while (true) {
    const std::uint32_t seen = region->header().wakeups.load(std::memory_order_acquire);
    Region* const looked_at = region;
    if (!Deliver(&region)) {
      return;
    }
    if (region == looked_at) {
      region->AwaitWakeup(seen, kPollInterval);
    }
  }
}

// Delivers all new changes; false if there are no listeners any more. Sets `region` to the current one.
bool Notifier::Deliver(Region** region) {
  std::vector<Change> changes;
  std::unique_lock lock(mutex_);
  while (!IdleLocked()) {
    std::uint64_t next = next_;
    lock.unlock();
    *region = &store_.region();
    changes.clear();
    bool kept = (*region)->IsWhole() && ReadChanges(**region, next, kMostAtOnce, &changes);
    lock.lock();
    const bool lost = *region != region_ || !(*region)->IsWhole();
    if (lost) {
      // The listeners have missed the changes between the two regions.
      for (const auto& listener : AllLocked()) {
        listener->since = 0;
      }
      if (*region == region_) {
        ++lost_;
        progress_.notify_all();
        return true;
      }
      region_ = *region;
      next_ = 0;
      changes.clear();
      kept = false;
    }
    lock.unlock();
    if (!kept) {
      CatchUp(**region);
    }
    for (const Change& change : changes) {
      lock.lock();
      const auto listeners = ListenersOf(change);
      lock.unlock();
      for (const auto& listener : listeners) {
        Call(listener, change);
      }
    }
    lock.lock();
    if (!changes.empty()) {
      next_ = changes.back().sequence + 1;
    }
    lost_ += lost ? 1 : 0;
    progress_.notify_all();
    if (changes.empty() && kept) {
      return true;
    }
  }
  alive_ = false;
  progress_.notify_all();
  return false;
}

std::vector<Notifier::ListenerPtr> Notifier::AllLocked() const {
  std::vector<ListenerPtr> listeners = watches_;
  for (const auto& [path, subscribed] : by_path_) {
    listeners.insert(listeners.end(), subscribed.begin(), subscribed.end());
  }
  return listeners;
}

std::vector<Notifier::ListenerPtr> Notifier::ListenersOf(const Change& change) const {
  std::vector<ListenerPtr> listeners;
  const auto add = [&](const ListenerPtr& listener) {
    if (listener->since < change.sequence) {
      listeners.push_back(listener);
    }
  };
  if (const auto found = by_path_.find(change.path); found != by_path_.end()) {
    std::for_each(found->second.begin(), found->second.end(), add);
  }
  for (const auto& watch : watches_) {
    if (change.path.starts_with(watch->at) && !change.path.starts_with(kFaultPrefix)) {
      add(watch);
    }
  }
  return listeners;
}

// After changes that are no longer kept: calls each subscription once, and each watch with the values of all its keys.
void Notifier::CatchUp(Region& region) {
  std::uint64_t last = region.header().last.load(std::memory_order_acquire);
  std::vector<ListenerPtr> listeners;
  {
    const std::lock_guard lock(mutex_);
    listeners = AllLocked();
  }
  for (const auto& listener : listeners) {
    if (listener->since >= last && last != 0) {
      continue;
    }
    if (listener->callback != nullptr) {
      Call(listener, {.sequence = last, .path = listener->at, .value = std::nullopt});
      continue;
    }
    std::vector<Entry> entries;
    static_cast<void>(store_.List(listener->at, &entries));  // logs what it cannot read
    for (auto& [path, value] : entries) {
      Call(listener, {.sequence = last, .path = std::move(path), .value = std::move(value)});
    }
  }
  const std::lock_guard lock(mutex_);
  next_ = last + 1;
}

void Notifier::Call(const ListenerPtr& listener, const Change& change) {
  std::unique_lock lock(mutex_);
  if (listener->ended) {
    return;
  }
  running_ = listener.get();
  lock.unlock();
  if (listener->callback != nullptr) {
    keynode_t node{.keyname = change.path.c_str()};
    listener->callback(&node, listener->user_data);
  } else {
    listener->on_change(change);
  }
  lock.lock();
  if (forked_) {
    _exit(0);  // the listener has forked; in the child it must not return into this thread
  }
  running_ = nullptr;
  progress_.notify_all();
}

}  // namespace vconf
