#pragma once

#include "ppapi/cpp/instance_handle.h"
#include "ppapi/cpp/var.h"

namespace pp {

/// Takes the messages of a page, on the loop that it is registered on, one at a time.
class MessageHandler {
 public:
  virtual ~MessageHandler() = default;

  /// A message that the page does not wait on.
  virtual void HandleMessage(InstanceHandle instance, const Var& message) = 0;
  /// A message that the page waits on; the result is what it gets.
  virtual Var HandleBlockingMessage(InstanceHandle instance, const Var& message) = 0;
  /// The registration has ended; no other call follows.
  virtual void WasUnregistered(InstanceHandle instance) = 0;
};

}  // namespace pp
