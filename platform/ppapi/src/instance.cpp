// `pp::Instance` and `pp::InstanceHandle`: each call finds the `Embedding` by the identifier and passes it on.
#include "ppapi/cpp/instance.h"

#include <atomic>

#include "browser_control.h"
#include "embedding.h"
#include "ppapi/cpp/message_loop.h"

namespace pp {
namespace {

std::atomic<std::int32_t> g_register_result{0};

}  // namespace

InstanceHandle::InstanceHandle(Instance* instance) noexcept
    : pp_instance_(instance != nullptr ? instance->pp_instance() : 0) {}

Instance::~Instance() = default;

bool Instance::Init(std::uint32_t /*argc*/, const char* /*argn*/[], const char* /*argv*/[]) { return true; }
void Instance::DidChangeView(const View& /*view*/) {}
void Instance::DidChangeView(const Rect& /*position*/, const Rect& /*clip*/) {}
void Instance::DidChangeFocus(bool /*has_focus*/) {}
bool Instance::HandleInputEvent(const InputEvent& /*event*/) { return false; }
bool Instance::HandleDocumentLoad(const URLLoader& /*url_loader*/) { return false; }
void Instance::HandleMessage(const Var& /*message*/) {}

void Instance::PostMessage(const Var& message) {
  if (const auto embedding = Embedding::Find(pp_instance_)) embedding->PostMessage(message);
}

std::int32_t Instance::RegisterMessageHandler(MessageHandler* handler, const MessageLoop& loop) {
  if (const std::int32_t refusal = g_register_result; refusal != 0) return refusal;
  const auto embedding = Embedding::Find(pp_instance_);
  return embedding ? embedding->Register(handler, loop.core()) : -1;
}

void browser::SetRegisterMessageHandlerResult(std::int32_t result) { g_register_result = result; }

}  // namespace pp
