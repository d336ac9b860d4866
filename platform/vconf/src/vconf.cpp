#include "vconf.h"

#include <atomic>
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

Error ToError(const Session* session, Status status, std::string_view path) {
  if (status == kOk) {
    return std::nullopt;
  }
  return session != nullptr ? session->store->Explain(status, path) : StatusText(kNoStore);
}

// Runs `step` on the store and tells its failure in words.
template <typename Step>
Error Explained(std::string_view path, Step&& step) {
  const Session* const session = TheSession();
  return ToError(session, session != nullptr ? step(*session->store) : kNoStore, path);
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
    Status status = session.store->Get(at, &value);
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

Error OpenStore(const std::string& directory, const std::vector<Entry>& initial) {
  static std::mutex opening;
  const std::lock_guard lock(opening);
  if (TheSession() != nullptr) {
    return directory + ": this process has a store open already";
  }
  std::string error;
  auto store = Store::Open(directory, initial, &error);
  if (store == nullptr) {
    __dlog_print(2, 6, "VCONF", "%s", error.c_str());
    return error;
  }
  g_session.store(new Session(std::move(store)), std::memory_order_release);
  return std::nullopt;
}

void CloseStore() { delete g_session.exchange(nullptr); }

std::optional<Value> Get(const std::string& path) {
  std::optional<Value> value;
  const Session* const session = TheSession();
  return session != nullptr && session->store->Get(path, &value) == kOk ? value : std::nullopt;
}

Error Set(const std::string& path, const Value& value) {
  return Explained(path, [&](Store& store) {
    const Status status = store.Set(path, value);
    return status == kOk ? store.Sync(path) : status;
  });
}

Error Remove(const std::string& path) {
  return Explained(path, [&](Store& store) {
    const Status status = store.Remove(path);
    return status == kOk ? store.Sync(path) : status;
  });
}

Error Reset(const std::vector<Entry>& entries) {
  if (Error wrong = CheckEntries(entries)) {
    return wrong;
  }
  return Explained("set/", [&](Store& store) {
    const Status status = store.Reset(entries);
    return status == kOk ? store.Sync("set/*") : status;
  });
}

std::vector<Entry> List(const std::string& prefix) {
  std::vector<Entry> entries;
  if (const Session* const session = TheSession()) {
    session->store->List(prefix, &entries);
  }
  return entries;
}

std::unique_ptr<Watch> WatchPrefix(const std::string& prefix, std::function<void(const Change&)> on_change,
                                   std::string* error) {
  const Session* const session = TheSession();
  Notifier::ListenerPtr listener;
  const Status status =
      session != nullptr ? session->notifier->Watch(prefix, std::move(on_change), &listener) : kNoStore;
  if (status != kOk) {
    if (error != nullptr) {
      *error = *ToError(session, status, prefix);
    }
    return nullptr;
  }
  return std::make_unique<NotifierWatch>(session->notifier, std::move(listener));
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

Error SetFault(const Fault& fault) {
  return Explained(fault.path, [&](Store& store) { return store.SetFault(fault); });
}

Error ClearFault(const std::string& call, const std::string& path) {
  return Explained(path, [&](Store& store) { return store.ClearFault(call, path); });
}

Error ClearFaults() {
  return Explained("*", [](Store& store) { return store.ClearFaults(); });
}

std::vector<Fault> ListFaults() {
  std::vector<Fault> faults;
  if (const Session* const session = TheSession()) {
    session->store->ListFaults(&faults);
  }
  return faults;
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
