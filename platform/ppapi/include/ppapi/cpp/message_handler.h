#pragma once

#include "ppapi/cpp/instance_handle.h"
#include "ppapi/cpp/var.h"

namespace pp {

/// Receives the messages of a page, on the loop that it is registered on, one at a time.
class MessageHandler {
 public:
  virtual ~MessageHandler() = default;

  /// A message without a reply.
  virtual void HandleMessage(InstanceHandle instance, const Var& message) = 0;
  /// A message whose reply the page waits for; returns the reply.
  virtual Var HandleBlockingMessage(InstanceHandle instance, const Var& message) = 0;
  /// The registration has ended; no other call follows.
  virtual void WasUnregistered(InstanceHandle instance) = 0;
};

}  // namespace pp
