#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "vconf_control.h"

namespace desk {

/// One setting that the plug-in knows by number, as the desk shows it.
struct Setting {
  std::string_view table;  ///< "menu" or "mirado": two key spaces of their own
  int key;                 ///< the number that a page passes as "propertyKey"
  std::string_view enumerator;
  std::string_view path;
  vconf::Value initial;  ///< what a new set has; its type is the type of the setting
};

/// All 23, by table and key.
std::span<const Setting> Settings();

/// The setting of `path`, or null.
const Setting* FindSetting(std::string_view path);

}  // namespace desk
