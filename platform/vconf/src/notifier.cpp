#include "notifier.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <system_error>
#include <utility>

namespace vconf {

/// One subscription or one watch. All but the constants is guarded by the notifier's mutex.
struct Notifier::Listener {
  const std::string at;  // a path, or the prefix of a watch
  const std::uint64_t since;
  const vconf_callback_fn callback;
  void* const user_data;
  const std::function<void(const Change&)> on_change;
  bool ended = false;
};

namespace {

using Clock = std::chrono::steady_clock;

// Changes often come in a row, and to wake a parked thread takes longer than to make a change.
constexpr std::chrono::microseconds kSpin{50};

// A process may be killed after its change is visible and before it rings.
constexpr std::chrono::seconds kLookAnyway{1};

// The notification thread is none that the process's signal handlers know of. A fault still has to reach its handler.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
      sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_SETMASK, &all, &previous_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_{};
};

}  // namespace

Notifier::~Notifier() {
  std::unique_lock lock(mutex_);
  std::vector<ListenerPtr> ended = std::exchange(watches_, {});
  for (auto& [path, listeners] : by_path_) {
    ended.insert(ended.end(), listeners.begin(), listeners.end());
  }
  by_path_.clear();
  subscriptions_ = 0;
  AwaitEnd(lock, ended);
}

Cause Notifier::Subscribe(const std::string& path, vconf_callback_fn callback, void* user_data) {
  std::unique_lock lock(mutex_);
  std::uint64_t since = 0;
  const Cause status = Start(lock, &since);
  if (status == kOk) {
    by_path_[path].push_back(std::make_shared<Listener>(Listener{path, since, callback, user_data, {}}));
    ++subscriptions_;
  }
  return status;
}

Cause Notifier::Watch(const std::string& prefix, std::function<void(const Change&)> on_change, ListenerPtr* watch) {
  std::unique_lock lock(mutex_);
  std::uint64_t since = 0;
  const Cause status = Start(lock, &since);
  if (status == kOk) {
    *watch = std::make_shared<Listener>(Listener{prefix, since, nullptr, nullptr, std::move(on_change)});
    watches_.push_back(*watch);
  }
  return status;
}

// Starts the thread when there is none. It looks at the listeners only after the lock is free again.
Cause Notifier::Start(std::unique_lock<std::mutex>& /*lock*/, std::uint64_t* since) {
  // Read under the lock: what is handed out from now on is checked against it.
  if (const Cause status = store_.LastSequence(since); status != kOk || alive_) {
    return status;
  }
  if (thread_.joinable()) {
    thread_.join();  // it has ended but for its last instructions, and takes no lock in them
  }
  next_ = *since + 1;
  try {
    const SignalsBlocked blocked;
    thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error& error) {
    return error.code().value();
  }
  thread_id_ = thread_.get_id();
  alive_ = true;
  return kOk;
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
  subscriptions_ -= ended.size();
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
  if (OnThread()) {
    return;
  }
  ++waiting_;
  progress_.wait(lock, [&] {
    return std::none_of(ended.begin(), ended.end(), [this](const auto& each) { return each.get() == running_; });
  });
  if (IdleLocked() && alive_) {
    store_.bell().Ring(0);  // the thread may be asleep
    progress_.wait(lock, [this] { return !alive_ || !IdleLocked(); });
  }
  --waiting_;
  if (!alive_ && thread_.joinable()) {
    thread_.join();
    thread_id_ = {};
  }
}

void Notifier::Settle() {
  std::uint64_t last = 0;
  std::unique_lock lock(mutex_);
  if (!alive_ || OnThread() || store_.LastSequence(&last) != kOk) {
    return;
  }
  store_.bell().Ring(0);
  ++waiting_;
  progress_.wait(
      lock, [&, before = looks_] { return !alive_ || vain_look_ > before || (next_ > last && running_ == nullptr); });
  --waiting_;
}

std::size_t Notifier::subscriptions() const {
  const std::lock_guard lock(mutex_);
  return subscriptions_;
}

// ---- the notification thread

void Notifier::Run() {
  pthread_setname_np(pthread_self(), "vconf-notify");
  // With one core the spinning itself would keep the writer away.
  cpu_set_t cores;
  const bool has_cores = sched_getaffinity(0, sizeof cores, &cores) == 0 && CPU_COUNT(&cores) > 1;
  const auto spin = has_cores ? kSpin : std::chrono::microseconds{0};
  Bell& bell = store_.bell();
  for (;;) {
    const std::uint32_t seen = bell.Rings();
    if (!Deliver()) {
      return;
    }
    for (const auto until = Clock::now() + spin; bell.Rings() == seen && Clock::now() < until;) {
    }
    if (bell.Rings() == seen) {
      bell.Wait(seen, kLookAnyway);
    }
  }
}

// Hands out all that there is; false when nobody listens any more.
bool Notifier::Deliver() {
  std::vector<Change> changes;
  std::unique_lock lock(mutex_);
  for (;;) {
    if (IdleLocked()) {
      alive_ = false;
      progress_.notify_all();
      return false;
    }
    const std::uint64_t next = next_;
    const std::uint64_t look = ++looks_;
    lock.unlock();
    changes.clear();
    bool fell_behind = false;
    static_cast<void>(store_.ReadChanges(next, &changes, &fell_behind));  // which logs what it cannot read
    if (fell_behind) {
      CatchUp();
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
    const bool vain = changes.empty() && !fell_behind;
    vain_look_ = vain ? look : vain_look_;
    if (waiting_ > 0) {
      progress_.notify_all();
    }
    if (vain) {
      return true;
    }
  }
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
    if (change.path.starts_with(watch->at)) {
      add(watch);
    }
  }
  return listeners;
}

// The journal has been overwritten: each subscribed key may have changed, and a watch learns what all of its keys hold.
void Notifier::CatchUp() {
  std::uint64_t last = 0;
  if (store_.LastSequence(&last) != kOk) {
    return;
  }
  std::vector<ListenerPtr> listeners;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [path, subscribed] : by_path_) {
      listeners.insert(listeners.end(), subscribed.begin(), subscribed.end());
    }
    listeners.insert(listeners.end(), watches_.begin(), watches_.end());
  }
  for (const auto& listener : listeners) {
    if (listener->since >= last) {
      continue;
    }
    if (listener->callback != nullptr) {
      Call(listener, {.sequence = last, .path = listener->at, .value = std::nullopt});
      continue;
    }
    std::vector<Entry> entries;
    store_.List(listener->at, &entries);
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
  running_ = nullptr;
  if (waiting_ > 0) {
    progress_.notify_all();
  }
}

}  // namespace vconf
