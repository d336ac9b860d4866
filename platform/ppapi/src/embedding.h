#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "browser_control.h"
#include "message_loop_control.h"
#include "ppapi/cpp/message_handler.h"

namespace pp {

/// What the two sides of one embedding, the page's and the plug-in's, share: the registered handler and the page's
/// listener. Any thread.
class Embedding {
 public:
  /// A new embedding, found under an identifier of its own until it is closed.
  static std::shared_ptr<Embedding> Make(browser::Listener listener);

  /// The embedding called `id`, null when there is none or it was closed.
  static std::shared_ptr<Embedding> Find(PP_Instance id);

  Embedding(PP_Instance id, browser::Listener listener);

  PP_Instance id() const noexcept { return id_; }

  // The page's side, as `browser::PageInstance` tells.
  Var Send(const Var& message);
  void Post(const Var& message);
  void Settle();
  void EndRegistration();

  // The plug-in's side, as `Instance` tells.
  void PostMessage(const Var& message);
  std::int32_t Register(MessageHandler* handler, std::shared_ptr<MessageLoop::Core> loop);

  /// Ends both sides for good. When it returns neither the handler nor the listener runs, and none will again.
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
