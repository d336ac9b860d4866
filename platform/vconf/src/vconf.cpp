#include "vconf.h"

#include <fcntl.h>
#include <stdio.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

#include "dlog.h"
#include "notifier.h"
#include "store.h"
#include "vconf_control.h"

namespace vconf {
namespace {

// The store of this process. The notifier goes first, since its thread reads the store.
struct Session {
  explicit Session(std::unique_ptr<Store> opened)
      : store(std::move(opened)), notifier(std::make_shared<Notifier>(*store)) {}

  const std::unique_ptr<Store> store;
  const std::shared_ptr<Notifier> notifier;
};

// Left alone when the process ends: its threads may still be calling.
std::atomic<Session*> g_session{nullptr};

Session* TheSession() { return g_session.load(std::memory_order_acquire); }

// ---- for the control side

const Status& NoStore() {
  static const Status no_store(Code::kFailed, CauseText(kNoStore));
  return no_store;
}

// Runs `step` on the store and tells its failure in words.
template <typename Step>
Status Explained(std::string_view path, Step&& step) {
  const Session* const session = TheSession();
  return session != nullptr ? session->store->Explain(step(*session->store), path) : NoStore();
}

// One store for a process at a time.
Status Open(const std::string& directory, const std::vector<Entry>* initial) {
  static std::mutex opening;
  const std::lock_guard lock(opening);
  if (TheSession() != nullptr) {
    return {Code::kFailed, directory + ": this process has a store open already"};
  }
  auto store = Store::Open(directory, initial);
  if (!store.ok()) {
    __dlog_print(2, 6, "VCONF", "%s", store.status().text().c_str());
    return store.status();
  }
  g_session.store(new Session(*std::move(store)), std::memory_order_release);
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

// ---- for the callers of vconf_*

constexpr int kFailed = -1;

// What every call does first: the path is one that it may name, and no fault answers in its place. `step` gets the
// session and the path, and its answer is the call's.
template <typename Step>
int Answer(const char* call, const char* path, Step&& step) {
  Session* const session = TheSession();
  if (session == nullptr || path == nullptr || !IsPath(path, false)) {
    return kFailed;
  }
  if (const auto fault = session->store->TakeFault(call, path)) {
    return *fault;
  }
  return step(*session, path) == kOk ? 0 : kFailed;
}

template <typename T>
int Read(const char* call, const char* path, int* result) {
  return Answer(call, path, [result](Session& session, const char* at) {
    std::optional<Value> value;
    Cause status = session.store->Get(at, &value);
    if (status == kOk && !std::holds_alternative<T>(*value)) {
      status = kOtherType;
    }
    if (status == kOk) {
      *result = std::get<T>(*value);
    }
    return status;
  });
}

int Write(const char* call, const char* path, const Value& value) {
  return Answer(call, path, [&](Session& session, const char* at) { return session.store->Set(at, value); });
}

}  // namespace

Status OpenStore(const std::string& directory) { return Open(directory, nullptr); }

Status OpenOrCreateStore(const std::string& directory, const std::vector<Entry>& initial) {
  return Open(directory, &initial);
}

void CloseStore() { delete g_session.exchange(nullptr); }

Result<std::string> ReplaceStore(const std::string& directory, const std::vector<Entry>& initial) {
  if (Status wrong = CheckEntries(initial); !wrong.ok()) {
    return wrong;
  }
  std::string from = directory;
  while (from.size() > 1 && from.back() == '/') {
    from.pop_back();
  }
  std::string moved;
  int result = 0;
  for (int number = 1; number == 1 || (result != 0 && errno == EEXIST); ++number) {
    moved = from + ".replaced-" + std::to_string(number);
    result = renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, moved.c_str(), RENAME_NOREPLACE);
  }
  if (result != 0) {
    return ToStatus(errno, directory);
  }
  const auto made = Store::Open(directory, &initial);
  return made.ok() ? Result(std::move(moved)) : made.status();
}

Result<Value> Get(const std::string& path) {
  std::optional<Value> value;
  Status status = Explained(path, [&](Store& store) { return store.Get(path, &value); });
  return status.ok() ? Result(*std::move(value)) : std::move(status);
}

Status Set(const std::string& path, const Value& value) {
  return Explained(path, [&](Store& store) {
    const Cause status = store.Set(path, value);
    return status == kOk ? store.Sync(path) : status;
  });
}

Status Remove(const std::string& path) {
  return Explained(path, [&](Store& store) {
    const Cause status = store.Remove(path);
    return status == kOk ? store.Sync(path) : status;
  });
}

Status Reset(const std::vector<Entry>& entries) {
  if (Status wrong = CheckEntries(entries); !wrong.ok()) {
    return wrong;
  }
  return Explained("set/", [&](Store& store) {
    const Cause status = store.Reset(entries);
    return status == kOk ? store.Sync("set/*") : status;
  });
}

Result<std::vector<Entry>> List(const std::string& prefix) {
  std::vector<Entry> entries;
  Status status = Explained(prefix, [&](Store& store) { return store.List(prefix, &entries); });
  return status.ok() ? Result(std::move(entries)) : std::move(status);
}

Result<std::unique_ptr<Watch>> WatchPrefix(const std::string& prefix, std::function<void(const Change&)> on_change) {
  const Session* const session = TheSession();
  if (session == nullptr) {
    return NoStore();
  }
  Notifier::ListenerPtr listener;
  if (const Cause cause = session->notifier->Watch(prefix, std::move(on_change), &listener); cause != kOk) {
    return session->store->Explain(cause, prefix);
  }
  return std::unique_ptr<Watch>(std::make_unique<NotifierWatch>(session->notifier, std::move(listener)));
}

void Settle() {
  if (const Session* const session = TheSession()) {
    session->notifier->Settle();
  }
}

std::size_t SubscriptionCount() {
  const Session* const session = TheSession();
  return session != nullptr ? session->notifier->subscriptions() : 0;
}

Status SetFault(const Fault& fault) {
  return Explained(fault.path, [&](Store& store) { return store.SetFault(fault); });
}

Status ClearFault(const std::string& call, const std::string& path) {
  return Explained(path, [&](Store& store) { return store.ClearFault(call, path); });
}

Status ClearFaults() {
  return Explained("*", [](Store& store) { return store.ClearFaults(); });
}

Result<std::vector<Fault>> ListFaults() {
  std::vector<Fault> faults;
  Status status = Explained("set/", [&](Store& store) { return store.ListFaults(&faults); });
  return status.ok() ? Result(std::move(faults)) : std::move(status);
}

std::optional<int> TakeFault(std::string_view call, std::string_view path) {
  const Session* const session = TheSession();
  return session != nullptr ? session->store->TakeFault(call, path) : std::nullopt;
}

}  // namespace vconf

int vconf_get_int(const char* path, int* value) { return vconf::Read<int>("vconf_get_int", path, value); }
int vconf_get_bool(const char* path, int* value) { return vconf::Read<bool>("vconf_get_bool", path, value); }

int vconf_set_int(const char* path, int value) { return vconf::Write("vconf_set_int", path, value); }
int vconf_set_bool(const char* path, int value) { return vconf::Write("vconf_set_bool", path, value != 0); }

int vconf_sync_key(const char* path) {
  return vconf::Answer("vconf_sync_key", path,
                       [](vconf::Session& session, const char* at) { return session.store->Sync(at); });
}

int vconf_notify_key_changed(const char* path, vconf_callback_fn callback, void* user_data) {
  if (callback == nullptr) {
    return vconf::kFailed;
  }
  return vconf::Answer("vconf_notify_key_changed", path, [=](vconf::Session& session, const char* at) {
    return session.notifier->Subscribe(at, callback, user_data);
  });
}

int vconf_ignore_key_changed(const char* path, vconf_callback_fn callback) {
  return vconf::Answer("vconf_ignore_key_changed", path, [=](vconf::Session& session, const char* at) {
    session.notifier->Ignore(at, callback);
    return vconf::kOk;
  });
}
