#include "system_info.h"

#include <string>
#include <variant>

#include "system_info_control.h"
#include "vconf_control.h"

int system_info_get_custom_bool(const char* key, bool* value) {
  constexpr int kFailed = -1;
  if (key == nullptr || value == nullptr) return kFailed;
  if (const auto fault = vconf::TakeFault("system_info_get_custom_bool", key)) return *fault;

  const vconf::Result<vconf::Value> feature = vconf::Get(std::string(system_info::kFeaturePrefix) + key);
  const bool* answer = feature.ok() ? std::get_if<bool>(&*feature) : nullptr;
  if (answer == nullptr) return kFailed;
  *value = *answer;
  return 0;
}
