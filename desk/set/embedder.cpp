#include "set/embedder.h"

#include <cstdint>
#include <string>
#include <variant>

#include "base/json.h"
#include "browser_control.h"
#include "ppapi/c/ppb_extension_system_norvika.h"
#include "ppapi/cpp/var_dictionary.h"
#include "set/simulated_set.h"
#include "vconf_control.h"

namespace desk {
namespace {

constexpr std::int32_t kUnknownOperation = -1;

bool BoolAt(const std::string& path, bool missing) {
  const auto value = vconf::Get(path);
  const bool* held = value.ok() ? std::get_if<bool>(&*value) : nullptr;
  return held == nullptr ? missing : *held;
}

pp::Var FromValue(const vconf::Value& value) {
  return std::visit([](const auto& held) { return pp::Var(held); }, value);
}

PP_Var EmbedderName(PP_Instance) {
  const auto name = vconf::Get(kEmbedderName);
  const std::string* const text = name.ok() ? std::get_if<std::string>(&*name) : nullptr;
  return pp::Var(text != nullptr ? *text : kDefaultEmbedderName).Detach();
}

PP_Var CurrentExtensionInfo(PP_Instance instance) {
  pp::VarDictionary info;
  info.Set("name", "mirado");
  info.Set("instance", instance);
  return info.Detach();
}

std::int32_t SyncCall(PP_Instance instance, PP_Var operation_name, PP_Var operation_data, PP_Var* result) {
  *result = pp::Var().Detach();
  const std::string operation = pp::Var(operation_name).AsString();
  if (const auto status = vconf::TakeFault("GenericSyncCall", operation)) {
    return *status;
  }
  pp::Var reply;
  if (const auto value = vconf::Get(kReplyPrefix + operation); value.ok()) {
    reply = FromValue(*value);
  } else if (operation == "check_ace_privilege") {
    reply = BoolAt(kPrivilegePrefix + pp::Var(operation_data).AsString(), false);
  } else if (operation == "get_window_id") {
    reply = instance;
  } else if (operation == "set_ime_recommended_words_type" || operation == "set_ime_recommended_words") {
    reply = true;
  } else {
    return kUnknownOperation;
  }
  *result = reply.Detach();
  return 0;
}

constexpr PPB_ExtensionSystem_Norvika_0_1 kInterface = {EmbedderName, CurrentExtensionInfo, SyncCall};

}  // namespace

void OfferEmbedder() {
  const bool offered = BoolAt(kEmbedderOffered, true);
  pp::browser::RegisterBrowserInterface(PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1, offered ? &kInterface : nullptr);
}

}  // namespace desk
