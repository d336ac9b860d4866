#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "browser_control.h"
#include "message_loop_control.h"
#include "ppapi/cpp/message_handler.h"

namespace pp {

/// The state that the page's and the plug-in's side of one embedding share: the registered handler and the page's
/// listener. Any thread.
class Embedding {
 public:
  /// Creates an embedding, which `Find` finds by its identifier until it is closed.
  static std::shared_ptr<Embedding> Make(browser::Listener listener);

  /// The embedding with this `id`; null if there is none or it was closed.
  static std::shared_ptr<Embedding> Find(PP_Instance id);

  Embedding(PP_Instance id, browser::Listener listener);

  PP_Instance id() const noexcept { return id_; }

  // The page's side; see `browser::PageInstance`.
  Var Send(const Var& message);
  void Post(const Var& message);
  void Settle();
  void EndRegistration();

  // The plug-in's side; see `Instance`.
  void PostMessage(const Var& message);
  std::int32_t Register(MessageHandler* handler, std::shared_ptr<MessageLoop::Core> loop);

  /// Closes both sides permanently. When it returns, neither the handler nor the listener is running or will run again.
  void Close();

 private:
  struct Registration;

  std::shared_ptr<Registration> registration() const;

  const PP_Instance id_;
  mutable std::mutex registration_mutex_;
  std::shared_ptr<Registration> registration_;
  bool closed_ = false;
  std::mutex listener_mutex_;  // held while the listener runs, and never together with the other one
  browser::Listener listener_;
};

}  // namespace pp
