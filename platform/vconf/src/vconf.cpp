// The functions of both public headers, vconf.h and vconf_control.h: each finds the store that this process has open,
// and calls it. Also what has to happen around a fork.
#include "vconf.h"

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "dlog.h"
#include "notifier.h"
#include "shared_lock.h"
#include "store.h"
#include "vconf_control.h"

namespace vconf {
namespace {

// The store of this process. The notifier is destroyed first, since its thread reads the store.
struct OpenedStore {
  explicit OpenedStore(std::unique_ptr<Store> opened)
      : store(std::move(opened)), notifier(std::make_shared<Notifier>(*store)) {}

  const std::unique_ptr<Store> store;
  std::shared_ptr<Notifier> notifier;
};

// Not destroyed at exit: other threads may still use it then. Null while no store is open.
std::atomic<OpenedStore*> g_store{nullptr};

OpenedStore* TheStore() { return g_store.load(std::memory_order_acquire); }

// A fork copies one thread and all locks. All locks are held during the fork, so the child's state is consistent. The
// child has no notification thread, so it has no subscriptions; the parent's objects that it inherited stay unused.
// The notifier calls the store with its mutex held, so its mutex is locked first. Another thread may open a store
// meanwhile.
thread_local OpenedStore* t_forking = nullptr;

void BeforeFork() {
  t_forking = TheStore();
  if (t_forking != nullptr) {
    t_forking->notifier->BeforeFork();
    t_forking->store->BeforeFork();
  }
}
void AfterForkInParent() {
  if (t_forking != nullptr) {
    t_forking->store->AfterFork();
    t_forking->notifier->AfterForkInParent();
  }
}
void AfterForkInChild() {
  RememberProcessId();
  if (OpenedStore* const opened = t_forking) {
    opened->store->AfterFork();
    opened->notifier->AfterForkInChild();
    // Never destroyed, because the call that forked may be running in it.
    static auto& inherited = *new std::vector<std::shared_ptr<Notifier>>;
    inherited.push_back(std::exchange(opened->notifier, std::make_shared<Notifier>(*opened->store)));
  }
}

// ---- the control interface

const Status& NoStore() {
  static const Status no_store(Code::kFailed, "no store is open; open one first");
  return no_store;
}

// Runs `step` on the store.
template <typename Step>
auto OnStore(Step&& step) -> decltype(step(std::declval<Store&>())) {
  const OpenedStore* const opened = TheStore();
  if (opened == nullptr) {
    return NoStore();
  }
  return step(*opened->store);
}

// A process has one store at a time.
Status Open(const std::string& directory, const std::vector<Entry>* initial) {
  static std::mutex opening;
  static std::once_flag forks;
  const std::lock_guard lock(opening);
  std::call_once(forks, [] { pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild); });
  RememberProcessId();  // for a process that was forked before its parent opened a store
  if (TheStore() != nullptr) {
    return {Code::kFailed, directory + ": this process has a store open already; close that first"};
  }
  auto store = Store::Open(directory, initial);
  if (!store.ok()) {
    __dlog_print(2, 6, "VCONF", "%s", store.status().text().c_str());
    return store.status();
  }
  g_store.store(new OpenedStore(*std::move(store)), std::memory_order_release);
  return {};
}

class NotifierWatch final : public Watch {
 public:
  NotifierWatch(std::weak_ptr<Notifier> notifier, Notifier::ListenerPtr listener)
      : notifier_(std::move(notifier)), listener_(std::move(listener)) {}
  NotifierWatch(const NotifierWatch&) = delete;
  NotifierWatch& operator=(const NotifierWatch&) = delete;
  ~NotifierWatch() override {
    if (const auto notifier = notifier_.lock()) {
      notifier->EndWatch(listener_);
    }
  }

 private:
  const std::weak_ptr<Notifier> notifier_;
  const Notifier::ListenerPtr listener_;
};

// ---- the vconf_* functions

constexpr int kFailed = -1;

int AnswerOf(const Status& status) { return status.ok() ? 0 : kFailed; }

// Common to every call: checks the path, and returns the answer of a fault if there is one. Otherwise returns the
// result of `step`, which gets the opened store and the path.
template <typename Step>
int Answer(const char* call, const char* path, Step&& step) {
  OpenedStore* const opened = TheStore();
  if (opened == nullptr || path == nullptr || !IsPath(path, false)) {
    return kFailed;
  }
  if (const auto fault = opened->store->TakeFault(call, path)) {
    return *fault;
  }
  return step(*opened, path);
}

int Read(const char* call, const char* path, layout::Kind kind, int* result) {
  return Answer(call, path, [=](OpenedStore& opened, std::string_view at) {
    return opened.store->GetNumber(at, kind, result) == Code::kOk ? 0 : kFailed;
  });
}

int Write(const char* call, const char* path, const Value& value) {
  return Answer(call, path,
                [&](OpenedStore& opened, const char* at) { return AnswerOf(opened.store->Set(at, value)); });
}

}  // namespace

Status OpenStore(const std::string& directory) { return Open(directory, nullptr); }

Status OpenOrCreateStore(const std::string& directory, const std::vector<Entry>& initial) {
  return Open(directory, &initial);
}

void CloseStore() { delete g_store.exchange(nullptr); }

Result<std::string> ReplaceStore(const std::string& directory, const std::vector<Entry>& initial) {
  Status wrong = CheckEntries(initial);
  const WaitLimit limit;
  return wrong.ok() ? store_files::Replace(directory, initial) : Result<std::string>(std::move(wrong));
}

Status CheckStore() {
  return OnStore([](Store& store) { return store.Check(); });
}

Result<Value> Get(const std::string& path) {
  return OnStore([&](Store& store) { return store.Get(path); });
}

Status Set(const std::string& path, const Value& value) {
  return OnStore([&](Store& store) { return store.Set(path, value); });
}

Status Remove(const std::string& path) {
  return OnStore([&](Store& store) { return store.Remove(path); });
}

Status Reset(const std::vector<Entry>& entries) {
  return OnStore([&](Store& store) { return store.Reset(entries); });
}

Result<std::vector<Entry>> List(const std::string& prefix) {
  std::vector<Entry> entries;
  Status status = OnStore([&](Store& store) { return store.List(prefix, &entries); });
  return status.ok() ? Result(std::move(entries)) : std::move(status);
}

Result<std::unique_ptr<Watch>> WatchPrefix(const std::string& prefix, std::function<void(const Change&)> on_change) {
  const OpenedStore* const opened = TheStore();
  if (opened == nullptr) {
    return NoStore();
  }
  Notifier::ListenerPtr listener;
  if (Status status = opened->notifier->Watch(prefix, std::move(on_change), &listener); !status.ok()) {
    return status;
  }
  return std::unique_ptr<Watch>(std::make_unique<NotifierWatch>(opened->notifier, std::move(listener)));
}

void Settle() {
  if (const OpenedStore* const opened = TheStore()) {
    opened->notifier->Settle();
  }
}

std::size_t SubscriptionCount() {
  const OpenedStore* const opened = TheStore();
  return opened != nullptr ? opened->notifier->subscriptions() : 0;
}

std::vector<std::string> SubscribedPaths() {
  const OpenedStore* const opened = TheStore();
  return opened != nullptr ? opened->notifier->SubscribedPaths() : std::vector<std::string>();
}

Status SetFault(const Fault& fault) {
  return OnStore([&](Store& store) { return store.SetFault(fault); });
}

Status ClearFault(const std::string& call, const std::string& path) {
  return OnStore([&](Store& store) { return store.ClearFault(call, path); });
}

Status ClearFaults() {
  return OnStore([](Store& store) { return store.ClearFaults(); });
}

Result<std::vector<Fault>> ListFaults() {
  return OnStore([](Store& store) { return store.ListFaults(); });
}

std::optional<int> TakeFault(std::string_view call, std::string_view path) {
  const OpenedStore* const opened = TheStore();
  return opened != nullptr ? opened->store->TakeFault(call, path) : std::nullopt;
}

}  // namespace vconf

int vconf_get_int(const char* path, int* value) {
  return vconf::Read("vconf_get_int", path, vconf::layout::kInt, value);
}
int vconf_get_bool(const char* path, int* value) {
  return vconf::Read("vconf_get_bool", path, vconf::layout::kBool, value);
}

int vconf_set_int(const char* path, int value) { return vconf::Write("vconf_set_int", path, value); }
int vconf_set_bool(const char* path, int value) { return vconf::Write("vconf_set_bool", path, value != 0); }

int vconf_sync_key(const char* path) {
  return vconf::Answer("vconf_sync_key", path, [](vconf::OpenedStore& opened, const char* at) {
    // `Set` on disk is durable when it returns, so only this remains: is the store still there?
    return std::string_view(at).starts_with(vconf::kMemoryPrefix) ? 0 : vconf::AnswerOf(opened.store->Check());
  });
}

int vconf_notify_key_changed(const char* path, vconf_callback_fn callback, void* user_data) {
  if (callback == nullptr) {
    return vconf::kFailed;
  }
  return vconf::Answer("vconf_notify_key_changed", path, [=](vconf::OpenedStore& opened, const char* at) {
    return vconf::AnswerOf(opened.notifier->Subscribe(at, callback, user_data));
  });
}

int vconf_ignore_key_changed(const char* path, vconf_callback_fn callback) {
  return vconf::Answer("vconf_ignore_key_changed", path, [=](vconf::OpenedStore& opened, const char* at) {
    opened.notifier->Ignore(at, callback);
    return 0;
  });
}
