#include "ExtensionSystemNorvikaOstra.h"

namespace pp {

ExtensionSystemNorvikaOstra::ExtensionSystemNorvikaOstra(const InstanceHandle& handle)
    : ExtensionSystemNorvika(handle) {}

bool ExtensionSystemNorvikaOstra::CheckPrivilege(const Var& privilege) {
  if (!privilege.is_string()) return false;
  const std::string key = privilege.AsString();
  if (const auto known = privilegeCache.find(key); known != privilegeCache.end()) return known->second;
  const bool held = BoolCall("check_ace_privilege", privilege);
  privilegeCache.emplace(key, held);
  return held;
}

std::int32_t ExtensionSystemNorvikaOstra::GetWindowId() {
  const Var reply = GenericSyncCall(Var("get_window_id"), Var());
  return reply.is_int() || reply.is_double() ? reply.AsInt() : -1;
}

bool ExtensionSystemNorvikaOstra::SetIMERecommendedWordsType(bool should_enable) {
  return BoolCall("set_ime_recommended_words_type", Var(should_enable));
}

bool ExtensionSystemNorvikaOstra::SetIMERecommendedWords(const Var& words) {
  return BoolCall("set_ime_recommended_words", words);
}

bool ExtensionSystemNorvikaOstra::BoolCall(const char* operation_name, const Var& operation_data) {
  const Var reply = GenericSyncCall(Var(operation_name), operation_data);
  return reply.is_bool() && reply.AsBool();
}

}  // namespace pp
