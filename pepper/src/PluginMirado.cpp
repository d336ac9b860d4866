#include "PluginMirado.h"

#include <panelbase.h>
#include <system_info.h>
#include <vconf.h>

#include <cstring>
#include <optional>
#include <shared_mutex>
#include <string_view>

#include "KeyTables.h"
#include "ResultCode.h"
#include "ppapi/cpp/message_loop.h"

// ---------------------------------------------------------------------------------------------------------------------
// Tables

#define KEY_ROW(enumerator, path) {enumerator, path},

constexpr KeyMapEntry g_MenuCaptionMap[CAPTION_SETTING_MAP_SIZE] = {MENU_CAPTION_ROWS(KEY_ROW)};
constexpr KeyMapEntry g_MiradoKeyMap[MIRADO_MAP_SIZE] = {MIRADO_ROWS(KEY_ROW)};

#undef KEY_ROW

namespace {

/// Whether the changed path of each row is converted to that row (see KeyTables.h).
template <std::size_t N>
constexpr bool EveryPathFindsItsRow(const KeyMapEntry (&rows)[N]) {
  for (std::size_t row = 0; row < N; ++row) {
    for (std::size_t earlier = 0; earlier < row; ++earlier) {
      if (std::string_view(rows[earlier].path).starts_with(rows[row].path)) return false;
    }
  }
  return true;
}
static_assert(EveryPathFindsItsRow(g_MenuCaptionMap) && EveryPathFindsItsRow(g_MiradoKeyMap),
              "a row's path is the beginning of an earlier row's path: see KeyTables.h");
}  // namespace

const std::map<std::string, MiradoMessageHandler::Command> MiradoMessageHandler::m_messageMap = {
    {"getVersion", &MiradoMessageHandler::getVersion},
    {"getMenuValue", &MiradoMessageHandler::getMenuValue},
    {"isTVSPicSizeResized", &MiradoMessageHandler::isTVSPicSizeResized},
    {"registerVconfKeysForCaption", &MiradoMessageHandler::registerVconfKeysForCaption},
    {"unRegisterVconfKeysForCaption", &MiradoMessageHandler::unRegisterVconfKeysForCaption},
    {"showCaption", &MiradoMessageHandler::showCaption},
    {"registerInAppCaptionControl", &MiradoMessageHandler::registerInAppCaptionControl},
    {"getMiradoValue", &MiradoMessageHandler::getMiradoValue},
    {"registerVconfKeysForMirado", &MiradoMessageHandler::registerVconfKeysForMirado},
    {"unRegisterVconfKeysForMirado", &MiradoMessageHandler::unRegisterVconfKeysForMirado},
};

static const std::string strBlank;

/// The command of the last message that had one. It is one for each thread, so that with several instances in one
/// process each reply names the command of its own worker's message.
static thread_local std::string command;

// ---------------------------------------------------------------------------------------------------------------------
// Requests and replies

namespace {

/// The entry `key` if it is an Int. A missing entry and one of another type have the same effect in every command.
std::optional<std::int32_t> IntEntry(const pp::VarDictionary& dictionary, const char* key) {
  if (!dictionary.HasKey(key) || dictionary.Get(key).type() != PP_VARTYPE_INT32) return std::nullopt;
  return dictionary.Get(key).AsInt();
}

/// Sets `command` to the text of the entry "command". Without such a text returns false and does not change it.
bool AcceptCommand(const pp::VarDictionary& dictionary) {
  if (!dictionary.HasKey("command") || dictionary.Get("command").type() != PP_VARTYPE_STRING) return false;
  command = dictionary.Get("command").AsString();
  return true;
}

/// The error name of a failure's code. The blank at the end of the last one is part of it.
const char* ErrorName(int code) {
  switch (code) {
    case RESULT_NOT_SUPPORTED:
      return "NotSupportedError";
    case RESULT_NO_PRIVILEGE:
      return "SecurityError";
    case RESULT_INVALID_VALUE:
      return "InvalidValuesError";
    default:
      return "UnknownError ";
  }
}

/// The error message for a failure of MenuValueManager.
const char* ManagerMessage(int result, const char* platform_call_failed) {
  switch (result) {
    case RESULT_INVALID_VALUE:
      return "value or key is not valid";
    case RESULT_NOT_SUPPORTED:
      return "key is not supported";
    default:
      return platform_call_failed;
  }
}

}  // namespace

pp::Var MiradoMessageHandler::success(pp::Var value) { return createMessage(RESULT_OK, value, strBlank, strBlank); }

pp::Var MiradoMessageHandler::failure(int code, const std::string& message) {
  return createMessage(code, pp::Var(pp::Var::Null()), ErrorName(code), message);
}

void MiradoMessageHandler::respondFailure(pp::Instance instance, const std::string& text, int code,
                                          const std::string& message, pp::Var value) {
  responseData(instance, text, code, value, ErrorName(code), message);
}

// ---------------------------------------------------------------------------------------------------------------------
// Dispatch

pp::Var MiradoMessageHandler::HandleBlockingMessageImpl(pp::InstanceHandle, const pp::Var& message) {
  if (message.type() != PP_VARTYPE_DICTIONARY) {
    return failure(RESULT_INVALID_VALUE, "Incoming message is not dictionary");
  }
  const pp::VarDictionary dictionary(message);
  if (!AcceptCommand(dictionary)) return failure(RESULT_INVALID_VALUE, "Parameter command is invalid");
  if (const auto found = m_messageMap.find(command); found != m_messageMap.end()) {
    return (this->*found->second)(dictionary);
  }
  MIRADO_LOG_AS(kMainLog, kError, __func__, "Can not handle the command!!");
  return failure(RESULT_NOT_SUPPORTED, "Command not recognized");
}

void MiradoMessageHandler::HandleMessageImpl(pp::InstanceHandle handle, const pp::Var& message) {
  pp::Instance instance(handle);
  if (message.type() != PP_VARTYPE_DICTIONARY) {
    return respondFailure(instance, strBlank, RESULT_INVALID_VALUE, "Incoming message is invalid");
  }
  const pp::VarDictionary dictionary(message);
  if (!AcceptCommand(dictionary)) {
    return respondFailure(instance, strBlank, RESULT_INVALID_VALUE, "Parameter command is invalid");
  }
  if (command == "setMenuValue") return setMenuValue(instance, dictionary);
  MIRADO_LOG_AS(kMainLog, kError, __func__, "Can not handle the command!!");
  respondFailure(instance, command, RESULT_NOT_SUPPORTED, "Command" + command + " no recognized", pp::Var(strBlank));
}

void MiradoMessageHandler::WasUnregistered(pp::InstanceHandle handle) {
  pp::Instance instance(handle);
  instance.PostMessage(pp::Var("Unregister"));
}

void MiradoMessageHandler::Register() {
  if (m_instance->RegisterMessageHandler(this, pp::MessageLoop::GetCurrent()) != 0) {
    m_instance->PostMessage(pp::Var("Error while registering MessageHandler"));
  }
}

pp::Instance MiradoMessageHandler::GetInstance() { return pp::Instance(*m_instance); }

// ---------------------------------------------------------------------------------------------------------------------
// Reading

pp::Var MiradoMessageHandler::getVersion(const pp::VarDictionary&) { return success(pp::Var("4.0")); }

pp::Var MiradoMessageHandler::getMenuValue(const pp::VarDictionary& dictionary) {
  const auto key = IntEntry(dictionary, "propertyKey");
  if (!key) return failure(RESULT_INVALID_VALUE, "Parameter propertyKey is invalid");
  MenuValue value;
  const int result = m_menuValueManager->getMenuValue(static_cast<unsigned int>(*key), value);
  if (result != RESULT_OK) return failure(result, ManagerMessage(result, "getMenuValue is failed"));
  return success(*key == MENU_KEY_VOICE_GUIDE_SPEED ? pp::Var(value.sValue) : pp::Var(value.iValue));
}

pp::Var MiradoMessageHandler::getMiradoValue(const pp::VarDictionary& dictionary) {
  const auto key = IntEntry(dictionary, "propertyKey");
  if (!key) return failure(RESULT_INVALID_VALUE, "Parameter propertyKey is invalid");
  int value = -1;
  if (!getMiradoValue(static_cast<unsigned int>(*key), value)) return failure(RESULT_FAILED, "getMiradoValue fail ");
  return success(pp::Var(value));
}

bool MiradoMessageHandler::getMiradoValue(unsigned int key, int& value) {
  if (key >= MIRADO_MAP_SIZE) {
    MIRADO_LOG("Not supported Key  = %d", key);
    return false;
  }
  if (vconf_get_int(g_MiradoKeyMap[key].path, &value) != 0) {
    MIRADO_LOG("Fail to get the vonf value, key = %d", key);
    return false;
  }
  return true;
}

pp::Var MiradoMessageHandler::isTVSPicSizeResized(const pp::VarDictionary&) {
  IVideoControl* control = nullptr;
  int size = 0;
  Panelbase::CreateVideoControl(static_cast<EProfile>(1), 0, &control);
  if (control == nullptr) return success(pp::Var(true));
  control->GetPictureSize(&size);
  MIRADO_LOG("PictureSize is %d", size);
  return success(pp::Var(size == 0 || size == 3));
}

// ---------------------------------------------------------------------------------------------------------------------
// Writing

void MiradoMessageHandler::setMenuValue(pp::Instance instance, const pp::VarDictionary& dictionary) {
  const auto refuse = [&](int code, const char* message) { respondFailure(instance, command, code, message); };

  bool b2b = false;
  if (system_info_get_custom_bool("com.norvika/featureconf/product.b2b_option_support", &b2b) != 0) {
    return refuse(RESULT_NOT_SUPPORTED, "menu value can be setted on B2B product only");
  }
  if (!b2b) {
    MIRADO_LOG("[PluginMirado] SUBTITLE menu can be setted on B2B product only");
    return refuse(RESULT_NOT_SUPPORTED, "SUBTITLE menu can be setted on B2B product only");
  }
  if (!hasPrivilege) {
    MIRADO_LOG("%d", hasPrivilege);
    MIRADO_LOG("[PluginMirado] setMenuValue hasPrivilege fail");
    return refuse(RESULT_NO_PRIVILEGE, "You do not have the privilege");
  }

  const auto entry = IntEntry(dictionary, "propertyKey");
  if (!entry) return refuse(RESULT_INVALID_VALUE, "Parameter propertyKey is invalid");
  const PP_VarType type = dictionary.HasKey("value") ? dictionary.Get("value").type() : PP_VARTYPE_UNDEFINED;
  if (type != PP_VARTYPE_INT32 && type != PP_VARTYPE_STRING) {
    return refuse(RESULT_INVALID_VALUE, "Parameter value is invalid");
  }
  const auto key = static_cast<unsigned int>(*entry);
  MenuValue requested;
  requested.iValue = dictionary.Get("value").AsInt();

  MenuValue current;
  if (const int result = m_menuValueManager->getMenuValue(key, current); result != RESULT_OK) {
    return refuse(result, ManagerMessage(result, "getMenuValue is failed"));
  }
  if (const int result = m_menuValueManager->confirmMenuValue(key, requested, current); result != RESULT_OK) {
    return refuse(result, ManagerMessage(result, "confirmMenuValue is failed"));
  }
  if (m_menuValueManager->setMenuValue(key, current) != RESULT_OK) {
    return refuse(RESULT_INVALID_VALUE, "setMenuValue was failed");
  }
  responseData(instance, command, RESULT_OK, pp::Var(current.iValue), strBlank, "Mirado setMenuValue success.");
}

// ---------------------------------------------------------------------------------------------------------------------
// showCaption and registerInAppCaptionControl

struct MiradoMessageHandler::CaptionValueCommand {
  const char* name;
  const char* request_key;
  const char* path;
  const char* invalid;
  const char* failed;
};

pp::Var MiradoMessageHandler::showCaption(const pp::VarDictionary& dictionary) {
  return publishCaptionValue({.name = __func__,
                              .request_key = "show",
                              .path = MEM_CAPTION_PATH,
                              .invalid = "Parameter show is invalid",
                              .failed = "Fail to set the show caption vconf value"},
                             dictionary);
}

pp::Var MiradoMessageHandler::registerInAppCaptionControl(const pp::VarDictionary& dictionary) {
  return publishCaptionValue({.name = __func__,
                              .request_key = "status",
                              .path = MEM_AVPLAY_PATH,
                              .invalid = "Parameter avplay status is invalid",
                              .failed = "Fail to set the avplay status vconf value"},
                             dictionary);
}

pp::Var MiradoMessageHandler::publishCaptionValue(const CaptionValueCommand& row, const pp::VarDictionary& dictionary) {
  const auto value = IntEntry(dictionary, row.request_key);
  if (!value) return failure(RESULT_INVALID_VALUE, row.invalid);
  if (vconf_set_int(row.path, *value) != 0) {
    MIRADO_LOG_FOR(row.name, "Fail to set the config value, key = %s, vlaue = %d", row.path, *value);
    return failure(RESULT_FAILED, row.failed);
  }
  vconf_sync_key(row.path);
  MIRADO_LOG_FOR(row.name, "SUCCESS to set the config value, key = %s, vlaue = %d", row.path, *value);
  return success(pp::Var(pp::Var::Null()));
}

// ---------------------------------------------------------------------------------------------------------------------
// Subscriptions

/// One of the two key tables, with what its subscription commands use: the set of watched paths, the callback, and how
/// failures are logged.
struct MiradoMessageHandler::KeyTable {
  const KeyMapEntry* rows;
  std::uint32_t size;
  std::set<std::string> MiradoMessageHandler::*keys;
  vconf_callback_fn callback;
  int failure_log_id;
  int failure_priority;

  static const KeyTable kCaption, kMirado;
};

constexpr MiradoMessageHandler::KeyTable MiradoMessageHandler::KeyTable::kCaption = {
    .rows = g_MenuCaptionMap,
    .size = CAPTION_SETTING_MAP_SIZE,
    .keys = &MiradoMessageHandler::m_captionVconfKeys,
    .callback = &MiradoMessageHandler::CaptionVconfCb,
    .failure_log_id = kSystemLog,
    .failure_priority = kError,
};
constexpr MiradoMessageHandler::KeyTable MiradoMessageHandler::KeyTable::kMirado = {
    .rows = g_MiradoKeyMap,
    .size = MIRADO_MAP_SIZE,
    .keys = &MiradoMessageHandler::m_miradoVconfKeys,
    .callback = &MiradoMessageHandler::MiradoChangeCb,
    .failure_log_id = kMainLog,
    .failure_priority = kInfo,
};

pp::Var MiradoMessageHandler::registerVconfKeysForCaption(const pp::VarDictionary& dictionary) {
  return answerSubscription(dictionary, &MiradoMessageHandler::registerVconfKeysForCaption, __func__);
}

pp::Var MiradoMessageHandler::unRegisterVconfKeysForCaption(const pp::VarDictionary& dictionary) {
  return answerSubscription(dictionary, &MiradoMessageHandler::unRegisterVconfKeysForCaption, __func__);
}

pp::Var MiradoMessageHandler::registerVconfKeysForMirado(const pp::VarDictionary& dictionary) {
  return answerSubscription(dictionary, &MiradoMessageHandler::registerVconfKeysForMirado, __func__);
}

pp::Var MiradoMessageHandler::unRegisterVconfKeysForMirado(const pp::VarDictionary& dictionary) {
  return answerSubscription(dictionary, &MiradoMessageHandler::unRegisterVconfKeysForMirado, __func__);
}

pp::Var MiradoMessageHandler::answerSubscription(const pp::VarDictionary& dictionary,
                                                 bool (MiradoMessageHandler::*worker)(unsigned int), const char* name) {
  const auto key = IntEntry(dictionary, "propertyKey");
  if (!key) return failure(RESULT_INVALID_VALUE, "Parameter propertyKey is invalid");
  if (!(this->*worker)(static_cast<unsigned int>(*key))) return failure(RESULT_FAILED, std::string(name) + " failed");
  return success(pp::Var(pp::Var::Null()));
}

bool MiradoMessageHandler::registerVconfKeysForCaption(unsigned int key) {
  if (key < CAPTION_SETTING_MAP_SIZE) MIRADO_LOG("Key = %d, db = %s", key, g_MenuCaptionMap[key].path);
  return subscribe(KeyTable::kCaption, key, __func__);
}

bool MiradoMessageHandler::unRegisterVconfKeysForCaption(unsigned int key) {
  return unsubscribe(KeyTable::kCaption, key, __func__);
}

bool MiradoMessageHandler::registerVconfKeysForMirado(unsigned int key) {
  return subscribe(KeyTable::kMirado, key, __func__);
}

bool MiradoMessageHandler::unRegisterVconfKeysForMirado(unsigned int key) {
  return unsubscribe(KeyTable::kMirado, key, __func__);
}

bool MiradoMessageHandler::subscribe(const KeyTable& table, unsigned int key, const char* operation) {
  if (key >= table.size) {
    MIRADO_LOG_AS(table.failure_log_id, table.failure_priority, operation, "Not supported Key  = %d", key);
    return false;
  }
  const char* const path = table.rows[key].path;
  const std::lock_guard lock(m_keysMutex);
  std::set<std::string>& keys = this->*table.keys;
  if (!keys.contains(path)) {
    // After ClearAllVConfKeys nobody would end a new subscription.
    if (m_keysClosed || vconf_notify_key_changed(path, table.callback, this) < 0) {
      MIRADO_LOG_AS(table.failure_log_id, table.failure_priority, operation,
                    "unable to register a vconf changed cb to key: %d", key);
      return false;
    }
    keys.insert(path);
  }
  MIRADO_LOG_FOR(operation, "success to register a vconf changed cb to key: key: %d", key);
  return true;
}

bool MiradoMessageHandler::unsubscribe(const KeyTable& table, unsigned int key, const char* operation) {
  if (key >= table.size) {
    MIRADO_LOG_AS(table.failure_log_id, table.failure_priority, operation, "Not supported Key  = %d", key);
    return false;
  }
  const char* const path = table.rows[key].path;
  const std::lock_guard lock(m_keysMutex);
  std::set<std::string>& keys = this->*table.keys;
  if (keys.contains(path)) {
    if (vconf_ignore_key_changed(path, table.callback) < 0) {
      MIRADO_LOG_AS(table.failure_log_id, table.failure_priority, operation,
                    "unable to unregister a vconf changed cb to key: %d", key);
      return false;
    }
    keys.erase(path);
  }
  MIRADO_LOG_FOR(operation, "success to unregister a vconf changed cb to key: key: %d", key);
  return true;
}

void MiradoMessageHandler::ClearAllVConfKeys() {
  const std::lock_guard lock(m_keysMutex);
  m_keysClosed = true;
  for (const KeyTable* table : {&KeyTable::kCaption, &KeyTable::kMirado}) {
    std::set<std::string>& keys = this->*table->keys;
    for (const std::string& path : keys) {
      if (vconf_ignore_key_changed(path.c_str(), table->callback) < 0) {
        MIRADO_LOG("unable to unregister a vconf changed cb to key: %s", path.c_str());
        m_namedByStore = true;
      }
    }
    keys.clear();
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// Changes

namespace {

/// The first row whose path begins with `path`. If there is none, logs it for `operation` and returns -1.
int RowOf(const char* path, const KeyMapEntry* rows, std::uint32_t size, const char* operation) {
  const std::size_t length = std::strlen(path);
  for (std::uint32_t row = 0; row < size; ++row) {
    if (std::strncmp(path, rows[row].path, length) == 0) return static_cast<int>(row);
  }
  MIRADO_LOG_FOR(operation, "Can't find the key[%d]", size);
  return -1;
}

/// The handlers whose address the store may have, and whether each is alive. A change callback holds the lock, shared,
/// while it runs, and does nothing if its handler is not alive. So it never accesses a destroyed handler.
///
/// A destroyed handler stays in the register if the store failed to end one of its subscriptions. Its memory is then
/// never reused: callbacks identify a handler only by its address, so a later handler there would get its events.
struct HandlerRegister {
  std::shared_mutex mutex;
  std::map<const MiradoMessageHandler*, bool> alive;
};

HandlerRegister& Handlers() {
  // Never destroyed: the store's thread may call a callback until the process ends.
  static auto* const handlers = new HandlerRegister;
  return *handlers;
}

}  // namespace

void MiradoMessageHandler::enterRegister() {
  const std::unique_lock lock(Handlers().mutex);
  Handlers().alive[this] = true;
}

void MiradoMessageHandler::leaveRegister() {
  const std::unique_lock lock(Handlers().mutex);
  if (m_namedByStore) {
    Handlers().alive[this] = false;
  } else {
    Handlers().alive.erase(this);
  }
}

// Not inlined, because GCC then warns that the class's `delete` frees memory of the global `new`.
[[gnu::noinline]] void* PluginMirado::operator new(std::size_t size) { return ::operator new(size); }

void PluginMirado::operator delete(void* memory) {
  {
    const std::shared_lock lock(Handlers().mutex);
    const auto handler = Handlers().alive.lower_bound(static_cast<const MiradoMessageHandler*>(memory));
    const void* const end = static_cast<const char*>(memory) + sizeof(PluginMirado);
    if (handler != Handlers().alive.end() && handler->first < end) return;
  }
  ::operator delete(memory);
}

int MiradoMessageHandler::ConvertCaptionKey(const char* path) {
  return RowOf(path, g_MenuCaptionMap, CAPTION_SETTING_MAP_SIZE, __func__);
}

int MiradoMessageHandler::ConvertMiradoChangeKey(const char* path) {
  const int key = RowOf(path, g_MiradoKeyMap, MIRADO_MAP_SIZE, __func__);
  if (key >= 0) MIRADO_LOG("Conver from db path[%s] -> key[%d]", path, key);
  return key;
}

struct MiradoMessageHandler::ChangeEvent {
  const char* callback;  // the function's name, for the log
  const char* name;
  const char* setting;  // its name in the log
  int (*convert)(const char* path);
};

void MiradoMessageHandler::CaptionVconfCb(_keynode_t* node, void* data) {
  sendChange({.callback = __func__,
              .name = "MIRADO_EVENT_CAPTION_CHANGED",
              .setting = "Caption Menu",
              .convert = &ConvertCaptionKey},
             node, data);
}

void MiradoMessageHandler::MiradoChangeCb(_keynode_t* node, void* data) {
  sendChange({.callback = __func__,
              .name = "MIRADO_EVENT_CHANGED",
              .setting = "MIRADO Change",
              .convert = &ConvertMiradoChangeKey},
             node, data);
}

void MiradoMessageHandler::sendChange(const ChangeEvent& event, _keynode_t* node, void* data) {
  if (data == nullptr) {
    MIRADO_LOG_FOR(event.callback, "Invalid data pointer");
    return;
  }
  auto* const handler = static_cast<MiradoMessageHandler*>(data);
  const std::shared_lock lock(Handlers().mutex);
  if (const auto found = Handlers().alive.find(handler); found == Handlers().alive.end() || !found->second) return;

  MIRADO_LOG_FOR(event.callback, "Sending %s event", event.name);
  const char* path = node->keyname;
  MIRADO_LOG_FOR(event.callback, "%s Key Change callback recieved for key : %s", event.setting, path);
  const int key = event.convert(path);
  if (key < 0) {
    MIRADO_LOG_FOR(event.callback, "Fail to get key code");
    return;
  }
  handler->sendData(handler->GetInstance(), event.name, RESULT_OK, pp::Var(key), strBlank, strBlank);
}

// ---------------------------------------------------------------------------------------------------------------------
// The module

bool PluginMirado::Init(std::uint32_t, const char*[], const char*[]) { return true; }

pp::Instance* PluginMiradoModule::CreateInstance(PP_Instance instance) { return new PluginMirado(instance); }

namespace pp {

Module* CreateModule() { return new PluginMiradoModule; }

}  // namespace pp
