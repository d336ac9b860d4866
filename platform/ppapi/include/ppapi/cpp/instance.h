#pragma once

#include <cstdint>

#include "ppapi/c/pp_var.h"
#include "ppapi/cpp/instance_handle.h"
#include "ppapi/cpp/var.h"

namespace pp {

class InputEvent;
class MessageHandler;
class MessageLoop;
class Rect;
class URLLoader;
class View;

/// The plug-in's side of one embedding. A copy names the same embedding and may be used on any thread; its calls do
/// nothing after the embedding is destroyed.
class Instance {
 public:
  explicit Instance(PP_Instance instance) noexcept : pp_instance_(instance) {}
  explicit Instance(const InstanceHandle& handle) noexcept : pp_instance_(handle.pp_instance()) {}
  Instance(const Instance&) = default;
  Instance& operator=(const Instance&) = default;
  virtual ~Instance();

  // What the browser calls, on the plug-in's main thread; the inherited versions do nothing.
  virtual bool Init(std::uint32_t argc, const char* argn[], const char* argv[]);
  virtual void DidChangeView(const View& view);
  virtual void DidChangeView(const Rect& position, const Rect& clip);
  virtual void DidChangeFocus(bool has_focus);
  virtual bool HandleInputEvent(const InputEvent& event);
  virtual bool HandleDocumentLoad(const URLLoader& url_loader);
  virtual void HandleMessage(const Var& message);

  PP_Instance pp_instance() const noexcept { return pp_instance_; }

  /// Delivers `message` to the page's message listener. Any thread; messages of one thread keep their order.
  void PostMessage(const Var& message);

  /// Calls `handler` on `loop` for every message of the page from now on. The handler must live until the loop or the
  /// registration has ended. Returns 0, or another number on failure: the loop or the embedding has ended, there is
  /// already a handler, or the browser refuses.
  std::int32_t RegisterMessageHandler(MessageHandler* handler, const MessageLoop& loop);

 private:
  PP_Instance pp_instance_;
};

}  // namespace pp
