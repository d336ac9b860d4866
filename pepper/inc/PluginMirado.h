#pragma once

#include <sys/prctl.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "ExtensionSystemNorvikaWRT.h"
#include "Log.h"
#include "MenuValueManager.h"
#include "pp_base_message_handler.h"
#include "ppapi/cpp/instance.h"
#include "ppapi/cpp/instance_handle.h"
#include "ppapi/cpp/module.h"
#include "ppapi/cpp/var.h"
#include "ppapi/cpp/var_dictionary.h"
#include "ppapi/utility/completion_callback_factory.h"
#include "simple_thread_await_loop.h"

struct _keynode_t;

/// The privilege that `setMenuValue` requires.
inline constexpr const char* MIRADO_PRIVILEGE = "http://norvika.com/privilege/mirado";

/// Handles the messages of one page: each gets one reply, and changes of watched settings become events.
///
/// Messages are handled on the worker's loop, one at a time. The change callbacks run on the store's notification
/// thread. The constructor, `ClearAllVConfKeys` and the destructor run on the plug-in's main thread. `m_keysMutex` and
/// the register of handlers guard what several of these threads use; see docs/architecture.md.
class MiradoMessageHandler : public PPBaseMessageHandler {
 public:
  /// `instance` contains this handler. Blocks while it asks the embedder whether the application has the privilege.
  explicit MiradoMessageHandler(pp::Instance* instance);
  MiradoMessageHandler(const MiradoMessageHandler&) = delete;
  MiradoMessageHandler& operator=(const MiradoMessageHandler&) = delete;

  /// Waits for running change callbacks of this handler. Later ones do nothing.
  ~MiradoMessageHandler() override;

  /// Posts the text "Unregister" to the page: no further message will be handled.
  void WasUnregistered(pp::InstanceHandle handle) override;
  /// Handles a posted message. The only command is `setMenuValue`; each reply is posted to the page.
  void HandleMessageImpl(pp::InstanceHandle handle, const pp::Var& message) override;
  /// Handles a message whose reply the page waits for: the commands of `m_messageMap`. Returns the reply.
  pp::Var HandleBlockingMessageImpl(pp::InstanceHandle handle, const pp::Var& message) override;

  /// A copy of the instance, which any thread may use to post messages.
  pp::Instance GetInstance();

  /// Registers this handler on the calling thread's loop; if that fails, posts an error text to the page. For a runtime
  /// that runs the handler on its own loop. `PluginMirado` does not call it: it registers the handler on the worker's.
  void Register();

  /// Ends all subscriptions and empties both sets of watched paths. Later register commands fail without a call to the
  /// store.
  void ClearAllVConfKeys();

  /// The key of the first row whose path begins with `path`, or -1. `path` must not be null.
  static int ConvertCaptionKey(const char* path);
  static int ConvertMiradoChangeKey(const char* path);

  /// The callbacks that the store calls for a change; `data` is the address of the handler that subscribed.
  static void CaptionVconfCb(_keynode_t* node, void* data);
  static void MiradoChangeCb(_keynode_t* node, void* data);

 private:
  struct KeyTable;
  struct ChangeEvent;
  struct CaptionValueCommand;

  pp::Var getVersion(const pp::VarDictionary& dictionary);
  pp::Var getMenuValue(const pp::VarDictionary& dictionary);
  pp::Var getMiradoValue(const pp::VarDictionary& dictionary);
  pp::Var isTVSPicSizeResized(const pp::VarDictionary& dictionary);
  pp::Var showCaption(const pp::VarDictionary& dictionary);
  pp::Var registerInAppCaptionControl(const pp::VarDictionary& dictionary);
  pp::Var registerVconfKeysForCaption(const pp::VarDictionary& dictionary);
  pp::Var unRegisterVconfKeysForCaption(const pp::VarDictionary& dictionary);
  pp::Var registerVconfKeysForMirado(const pp::VarDictionary& dictionary);
  pp::Var unRegisterVconfKeysForMirado(const pp::VarDictionary& dictionary);

  /// Writes a menu setting, if the set is a B2B product and the application has the privilege.
  void setMenuValue(pp::Instance instance, const pp::VarDictionary& dictionary);

  // What the commands of the same names do with a valid key. False if it fails.
  bool getMiradoValue(unsigned int key, int& value);
  bool registerVconfKeysForCaption(unsigned int key);
  bool unRegisterVconfKeysForCaption(unsigned int key);
  bool registerVconfKeysForMirado(unsigned int key);
  bool unRegisterVconfKeysForMirado(unsigned int key);

  // Shared by the subscription commands, the change callbacks and the caption commands. Log lines name `operation`.
  pp::Var answerSubscription(const pp::VarDictionary& dictionary, bool (MiradoMessageHandler::*worker)(unsigned int),
                             const char* name);
  bool subscribe(const KeyTable& table, unsigned int key, const char* operation);
  bool unsubscribe(const KeyTable& table, unsigned int key, const char* operation);
  static void sendChange(const ChangeEvent& event, _keynode_t* node, void* data);
  pp::Var publishCaptionValue(const CaptionValueCommand& row, const pp::VarDictionary& dictionary);

  pp::Var success(pp::Var value);
  pp::Var failure(int code, const std::string& message);
  void respondFailure(pp::Instance instance, const std::string& text, int code, const std::string& message,
                      pp::Var value = pp::Var(pp::Var::Null()));

  // The change callbacks look up their handler in the register of handlers, which all instances share.
  void enterRegister();
  void leaveRegister();

  using Command = pp::Var (MiradoMessageHandler::*)(const pp::VarDictionary&);
  static const std::map<std::string, Command> m_messageMap;

  pp::Instance* m_instance;
  MenuValueManager* m_menuValueManager;
  std::set<std::string> m_captionVconfKeys;  // watched paths; guarded by m_keysMutex
  std::set<std::string> m_miradoVconfKeys;   // likewise
  bool hasPrivilege;
  std::mutex m_keysMutex;     // may be held while the store is called, so no change callback takes it
  bool m_keysClosed = false;  // set by ClearAllVConfKeys, never reset; guarded by m_keysMutex
  // The store failed to end a subscription, so it still has this address; guarded by m_keysMutex.
  bool m_namedByStore = false;
};

inline MiradoMessageHandler::MiradoMessageHandler(pp::Instance* instance) : m_instance(instance) {
  pp::ExtensionSystemNorvikaWRT extension{pp::InstanceHandle(instance)};
  hasPrivilege = extension.CheckPrivilege(pp::Var(MIRADO_PRIVILEGE));
  MIRADO_LOG("[PluginMirado] hasPrivilege : %d", hasPrivilege);
  auto manager = std::make_unique<MenuValueManager>();
  enterRegister();  // may throw; the unique_ptr then frees the manager
  m_menuValueManager = manager.release();
}

inline MiradoMessageHandler::~MiradoMessageHandler() {
  leaveRegister();
  if (m_menuValueManager != nullptr) {
    delete m_menuValueManager;
    m_menuValueManager = nullptr;
  }
}

/// One embedding of the plug-in in a page. Created and destroyed on the plug-in's main thread; its messages are handled
/// on the worker.
class PluginMirado : public pp::Instance {
 public:
  explicit PluginMirado(PP_Instance instance);
  PluginMirado(const PluginMirado&) = delete;
  PluginMirado& operator=(const PluginMirado&) = delete;
  ~PluginMirado() override;

  /// True, whatever the embed element's parameters are.
  bool Init(std::uint32_t argc, const char* argn[], const char* argv[]) override;

  static void* operator new(std::size_t size);
  /// Frees the memory, unless the store still has the address of the handler in it (see `leaveRegister`).
  static void operator delete(void* memory);

 private:
  MiradoMessageHandler message_handler_;
  // For calls that the browser completes later. There are none yet, so no callback is created.
  pp::CompletionCallbackFactory<PluginMirado, pp::ThreadSafeThreadTraits> callback_factory_;
  pp::SimpleThreadAwaitLoop* additional_thread_;  // owned
};

inline PluginMirado::PluginMirado(PP_Instance instance)
    : pp::Instance(instance),
      message_handler_(this),
      callback_factory_(this),
      additional_thread_(new pp::SimpleThreadAwaitLoop(pp::InstanceHandle(this))) {
  // A new thread inherits this name, so the worker gets it, too.
  prctl(PR_SET_NAME, "qrl.mirado", 0, 0);
  MIRADO_LOG("[PluginMirado] begin additional_thread_->Start()");
  additional_thread_->Start();
  MIRADO_LOG("[PluginMirado] begin RegisterMessageHandler");
  if (RegisterMessageHandler(&message_handler_, additional_thread_->message_loop()) == 0) {
    MIRADO_LOG("[PluginMirado]  RegisterMessageHandler success");
  } else {
    MIRADO_LOG("[PluginMirado]  RegisterMessageHandler Fail");
  }
}

inline PluginMirado::~PluginMirado() {
  MIRADO_LOG("[PluginMirado]  destructor invoked.");
  message_handler_.ClearAllVConfKeys();
  delete additional_thread_;  // before the handler that its loop serves
}

/// The plug-in's module. The browser owns it and the instances that it creates.
class PluginMiradoModule : public pp::Module {
 public:
  pp::Instance* CreateInstance(PP_Instance instance) override;
};
