#include "embedding.h"

#include <atomic>
#include <limits>
#include <unordered_map>
#include <utility>

#include "hand_over.h"

namespace pp {
namespace {

enum RegisterResult : std::int32_t { kRegistered = 0, kEmbeddingGone = -1, kLoopGone = -2, kRegisteredBefore = -3 };

struct Embeddings {
  std::mutex mutex;
  std::unordered_map<PP_Instance, std::shared_ptr<Embedding>> by_id;
  PP_Instance last_id = 0;
};

Embeddings& AllEmbeddings() {
  static auto* const embeddings = new Embeddings;  // never freed: a plug-in's thread may post until the process ends
  return *embeddings;
}

/// Work that its creator waits for, so it can be on the stack. Everything that the two threads exchange is in one cache
/// line: each further one adds to the time of a hand-over.
template <typename Function>
class alignas(64) WaitedWork final : public MessageLoop::Core::Work {
 public:
  explicit WaitedWork(Function function) : function_(std::move(function)) {}

  void Run() override {
    result_ = function_();
    done_.Set();
  }
  void Drop() override { done_.Set(); }

  Var Wait() noexcept {
    done_.Wait();
    return std::move(result_);
  }

 private:
  Function function_;
  Var result_;
  Completion done_;
};

/// Runs `function` on `loop` and returns its result, or an undefined variable if the loop has ended. On the loop's own
/// thread, which would wait for itself, it does nothing.
template <typename Function>
Var RunAndWait(MessageLoop::Core* loop, Function function) {
  if (loop == MessageLoop::Core::Current()) return {};
  WaitedWork work(std::move(function));
  return loop->Push(&work) ? work.Wait() : Var();
}

}  // namespace

/// A handler with its loop. It has its own cache line, apart from its reference count, which changes with every
/// message.
struct alignas(64) Embedding::Registration {
  MessageHandler* const handler;
  const std::shared_ptr<MessageLoop::Core> loop;
  /// Whether the handler may be called. It is ended on the loop, or elsewhere once the instance is deleted.
  std::atomic<bool> open{true};

  Registration(MessageHandler* its_handler, std::shared_ptr<MessageLoop::Core> its_loop)
      : handler(its_handler), loop(std::move(its_loop)) {}
};

std::shared_ptr<Embedding> Embedding::Make(browser::Listener listener) {
  Embeddings& all = AllEmbeddings();
  const std::lock_guard lock(all.mutex);
  do {
    all.last_id = all.last_id == std::numeric_limits<PP_Instance>::max() ? 1 : all.last_id + 1;
  } while (all.by_id.contains(all.last_id));
  return all.by_id[all.last_id] = std::make_shared<Embedding>(all.last_id, std::move(listener));
}

std::shared_ptr<Embedding> Embedding::Find(PP_Instance id) {
  Embeddings& all = AllEmbeddings();
  const std::lock_guard lock(all.mutex);
  const auto found = all.by_id.find(id);
  return found != all.by_id.end() ? found->second : nullptr;
}

Embedding::Embedding(PP_Instance id, browser::Listener listener) : id_(id), listener_(std::move(listener)) {}

std::shared_ptr<Embedding::Registration> Embedding::registration() const {
  const std::lock_guard lock(registration_mutex_);
  return registration_;
}

Var Embedding::Send(const Var& message) {
  const auto current = registration();
  if (!current) return {};
  return RunAndWait(current->loop.get(), [&message, registered = current.get(), handle = InstanceHandle(id_)] {
    return registered->open ? registered->handler->HandleBlockingMessage(handle, message) : Var();
  });
}

void Embedding::Post(const Var& message) {
  class Posted final : public MessageLoop::Core::Work {
   public:
    Posted(std::shared_ptr<Registration> registration, PP_Instance id, Var message)
        : registration_(std::move(registration)), id_(id), message_(std::move(message)) {}

    void Run() override {
      if (registration_->open) registration_->handler->HandleMessage(InstanceHandle(id_), message_);
      delete this;
    }
    void Drop() override { delete this; }

   private:
    const std::shared_ptr<Registration> registration_;
    const PP_Instance id_;
    const Var message_;
  };

  if (const auto current = registration()) {
    auto posted = std::make_unique<Posted>(current, id_, message);
    if (current->loop->Push(posted.get())) static_cast<void>(posted.release());  // frees itself
  }
}

void Embedding::Settle() {
  if (const auto current = registration()) RunAndWait(current->loop.get(), [] { return Var(); });
}

void Embedding::EndRegistration() {
  const auto current = registration();
  if (!current) return;
  RunAndWait(current->loop.get(), [&] {
    if (current->open.exchange(false)) {
      current->handler->WasUnregistered(InstanceHandle(id_));
      const std::lock_guard lock(registration_mutex_);
      if (registration_ == current) registration_.reset();
    }
    return Var();
  });
}

void Embedding::PostMessage(const Var& message) {
  const std::lock_guard lock(listener_mutex_);
  if (listener_) listener_(message);
}

std::int32_t Embedding::Register(MessageHandler* handler, std::shared_ptr<MessageLoop::Core> loop) {
  if (loop == nullptr || loop->has_ended()) return kLoopGone;
  const std::lock_guard lock(registration_mutex_);
  if (closed_) return kEmbeddingGone;
  if (registration_ && !registration_->loop->has_ended()) return kRegisteredBefore;
  registration_ = std::make_shared<Registration>(handler, std::move(loop));
  return kRegistered;
}

void Embedding::Close() {
  std::shared_ptr<Registration> last;
  {
    const std::lock_guard lock(registration_mutex_);
    closed_ = true;
    last = std::exchange(registration_, nullptr);
  }
  if (last) {
    last->open = false;
    RunAndWait(last->loop.get(), [] { return Var(); });  // waits for a call that is still running
  }
  {
    const std::lock_guard lock(listener_mutex_);
    listener_ = nullptr;
  }
  Embeddings& all = AllEmbeddings();
  const std::lock_guard lock(all.mutex);
  all.by_id.erase(id_);
}

}  // namespace pp
