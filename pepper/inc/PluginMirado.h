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

/// The privilege that the writing command asks for.
inline constexpr const char* MIRADO_PRIVILEGE = "http://norvika.com/privilege/mirado";

/// Takes the page's messages and answers each with one reply.
///
/// Messages are handled on the worker's loop, one at a time. The change callbacks run on the store's notification
/// thread; construction, `ClearAllVConfKeys` and destruction belong to the plug-in's main thread. What more than one of
/// them reaches is guarded by `m_keysMutex` and by the register of handlers.
class MiradoMessageHandler : public PPBaseMessageHandler {
 public:
  /// `instance` holds this handler and outlives it. Asks the embedder for the privilege, which blocks.
  explicit MiradoMessageHandler(pp::Instance* instance);
  MiradoMessageHandler(const MiradoMessageHandler&) = delete;
  MiradoMessageHandler& operator=(const MiradoMessageHandler&) = delete;

  /// Returns when no change callback of this handler is running any more; later ones drop their event.
  ~MiradoMessageHandler() override;

  /// Posts the bare text "Unregister" to the page: no further message will be handled.
  void WasUnregistered(pp::InstanceHandle handle) override;
  /// The path of posted messages. It serves `setMenuValue` alone; every reply goes out as a delivery.
  void HandleMessageImpl(pp::InstanceHandle handle, const pp::Var& message) override;
  /// The path of messages that the page waits on: the commands of `m_messageMap`. The result is the reply.
  pp::Var HandleBlockingMessageImpl(pp::InstanceHandle handle, const pp::Var& message) override;

  /// A copy of the instance, for calls off the worker.
  pp::Instance GetInstance();

  /// Registers this handler on the calling thread's loop and tells the page when that fails. For a runtime that serves
  /// the handler on a loop of its own; `PluginMirado` registers it on the worker's loop itself and does not call this.
  void Register();

  /// Ends all subscriptions, empties both key sets and closes them: a later register command fails and calls no store.
  void ClearAllVConfKeys();

  /// The first row whose path begins with `path`, or -1. A null `path` is not allowed.
  static int ConvertCaptionKey(const char* path);
  static int ConvertMiradoChangeKey(const char* path);

  /// What the store calls for a change; `data` is the handler that subscribed.
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

  /// Writes a menu setting: on a B2B product, for an application with the privilege.
  void setMenuValue(pp::Instance instance, const pp::VarDictionary& dictionary);

  // The commands' workers: true when done, false when the page is told that it failed.
  bool getMiradoValue(unsigned int key, int& value);
  bool registerVconfKeysForCaption(unsigned int key);
  bool unRegisterVconfKeysForCaption(unsigned int key);
  bool registerVconfKeysForMirado(unsigned int key);
  bool unRegisterVconfKeysForMirado(unsigned int key);

  // What the subscription commands, the change callbacks and the caption commands share. The log names `operation`.
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

  // The register of handlers is what the change callbacks look their handler up in.
  void enterRegister();
  void leaveRegister();

  using Command = pp::Var (MiradoMessageHandler::*)(const pp::VarDictionary&);
  static const std::map<std::string, Command> m_messageMap;

  pp::Instance* m_instance;
  MenuValueManager* m_menuValueManager;
  std::set<std::string> m_captionVconfKeys;  // paths under subscription; guarded by m_keysMutex
  std::set<std::string> m_miradoVconfKeys;   // likewise
  bool hasPrivilege;
  std::mutex m_keysMutex;       // may be held while the store is called, so no change callback takes it
  bool m_keysClosed = false;    // set for good by ClearAllVConfKeys; guarded by m_keysMutex
  bool m_namedByStore = false;  // the store refused to end a subscription; guarded by m_keysMutex
};

inline MiradoMessageHandler::MiradoMessageHandler(pp::Instance* instance) : m_instance(instance) {
  pp::ExtensionSystemNorvikaWRT extension{pp::InstanceHandle(instance)};
  hasPrivilege = extension.CheckPrivilege(pp::Var(MIRADO_PRIVILEGE));
  MIRADO_LOG("[PluginMirado] hasPrivilege : %d", hasPrivilege);
  auto manager = std::make_unique<MenuValueManager>();
  enterRegister();  // may throw, and nobody would free the manager then
  m_menuValueManager = manager.release();
}

inline MiradoMessageHandler::~MiradoMessageHandler() {
  leaveRegister();
  if (m_menuValueManager != nullptr) {
    delete m_menuValueManager;
    m_menuValueManager = nullptr;
  }
}

/// The plug-in in one page. Made and destroyed on the plug-in's main thread; the page's messages run on the worker.
class PluginMirado : public pp::Instance {
 public:
  explicit PluginMirado(PP_Instance instance);
  PluginMirado(const PluginMirado&) = delete;
  PluginMirado& operator=(const PluginMirado&) = delete;
  ~PluginMirado() override;

  /// True, whatever the embed element's parameters are.
  bool Init(std::uint32_t argc, const char* argn[], const char* argv[]) override;

  static void* operator new(std::size_t size);
  /// Frees the memory, unless the store refused to end a subscription of the handler that was in it.
  static void operator delete(void* memory);

 private:
  MiradoMessageHandler message_handler_;
  // For calls that the browser completes later. There is none yet, so no callback is drawn from it.
  pp::CompletionCallbackFactory<PluginMirado, pp::ThreadSafeThreadTraits> callback_factory_;
  pp::SimpleThreadAwaitLoop* additional_thread_;  // owned
};

inline PluginMirado::PluginMirado(PP_Instance instance)
    : pp::Instance(instance),
      message_handler_(this),
      callback_factory_(this),
      additional_thread_(new pp::SimpleThreadAwaitLoop(pp::InstanceHandle(this))) {
  // A thread starts out with its maker's name, so this names the worker as well.
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

/// The plug-in's module; Pepper owns it and the instances that it makes.
class PluginMiradoModule : public pp::Module {
 public:
  pp::Instance* CreateInstance(PP_Instance instance) override;
};
