#include "pp_base_message_handler.h"

#include <utility>

#include "ppapi/cpp/var_dictionary.h"

namespace {

pp::VarDictionary MakeReply(int code, const pp::Var& value, const std::string& error_name,
                            const std::string& error_message) {
  pp::VarDictionary reply;  // set in the order of the keys, which is fastest
  reply.Set("code", code);
  reply.Set("errorMessage", error_message);
  reply.Set("errorName", error_name);
  reply.Set("value", value.is_undefined() ? pp::Var(pp::Var::Null()) : value);
  return reply;
}

}  // namespace

PPBaseMessageHandler::~PPBaseMessageHandler() = default;

void PPBaseMessageHandler::HandleMessage(pp::InstanceHandle instance, const pp::Var& message) {
  HandleMessageImpl(instance, message);
}

pp::Var PPBaseMessageHandler::HandleBlockingMessage(pp::InstanceHandle instance, const pp::Var& message) {
  return HandleBlockingMessageImpl(instance, message);
}

pp::Var PPBaseMessageHandler::createMessage(int code, pp::Var value, std::string error_name,
                                            std::string error_message) {
  return MakeReply(code, value, error_name, error_message);
}

void PPBaseMessageHandler::responseData(pp::Instance instance, std::string command, int code, pp::Var value,
                                        std::string error_name, std::string error_message) {
  pp::VarDictionary reply = MakeReply(code, value, error_name, error_message);
  reply.Set("command", command);
  instance.PostMessage(reply);
}

void PPBaseMessageHandler::sendData(pp::Instance instance, std::string event, int code, pp::Var value,
                                    std::string error_name, std::string error_message) {
  pp::VarDictionary delivery = MakeReply(code, value, error_name, error_message);
  delivery.Set("event", event);
  instance.PostMessage(delivery);
}
