#pragma once

#include <string>

#include "ppapi/cpp/instance.h"
#include "ppapi/cpp/message_handler.h"
#include "ppapi/cpp/var.h"

/// Base class of a message handler that answers with a code, a value, an error name and an error message. A reply is a
/// dictionary {"code", "value", "errorName", "errorMessage"}; one that is posted to the page has one more entry,
/// "command" for a reply and "event" for an event. An undefined value is sent as null.
class PPBaseMessageHandler : public pp::MessageHandler {
 public:
  ~PPBaseMessageHandler() override;

  // These two forward every message unchanged.
  void HandleMessage(pp::InstanceHandle instance, const pp::Var& message) override;
  pp::Var HandleBlockingMessage(pp::InstanceHandle instance, const pp::Var& message) override;

  void WasUnregistered(pp::InstanceHandle instance) override = 0;
  virtual void HandleMessageImpl(pp::InstanceHandle instance, const pp::Var& message) = 0;
  virtual pp::Var HandleBlockingMessageImpl(pp::InstanceHandle instance, const pp::Var& message) = 0;

  /// Creates the reply to a waiting call. Any thread.
  pp::Var createMessage(int code, pp::Var value, std::string error_name, std::string error_message);

  /// Delivers a reply to the page of `instance`. Any thread.
  void responseData(pp::Instance instance, std::string command, int code, pp::Var value, std::string error_name,
                    std::string error_message);

  /// Delivers an event to the page of `instance`. Any thread.
  void sendData(pp::Instance instance, std::string event, int code, pp::Var value, std::string error_name,
                std::string error_message);
};
