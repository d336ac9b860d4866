#pragma once

#include <span>
#include <string_view>

#include "base/json.h"
#include "vconf_control.h"

/// What the desk knows of the plug-in: its settings, commands and privilege. The source is catalog.json, which is built
/// into the program; `script/generate` writes the copies for pages and documents. Every function may be called on any
/// thread, and its result is valid as long as the process runs.
namespace desk {

/// The text of catalog.json.
std::string_view CatalogText();

/// One of the two key spaces, and the commands that take its keys.
struct KeyTable {
  std::string_view name;  ///< "menu" or "mirado"
  std::string_view read;
  std::string_view watch;
  std::string_view unwatch;
  std::string_view event;  ///< which names the key that has changed
};

std::span<const KeyTable> KeyTables();

/// One setting that the plug-in knows by number.
struct Setting {
  const KeyTable* table;
  int key;                      ///< the number that a page passes as "propertyKey"
  std::string_view enumerator;  ///< the constant for the number
  std::string_view path;
  vconf::Value initial;  ///< the value in a new set; its type is the type of the setting
  std::string_view group;
  std::string_view label;  ///< its name for people, within its group
  const Json* values;      ///< the meaning of its numbers: {"0": "Off", …}, {"list": name}, {"speeds": true} or null
};

/// All of them, by table and key.
std::span<const Setting> Settings();

/// The setting of `path`, or null.
const Setting* FindSetting(std::string_view path);

/// A command of the plug-in.
struct Command {
  std::string_view name;
  bool posted;  ///< must be sent by `postMessage`; every other command by `postMessageAndAwaitResponse`
};

std::span<const Command> Commands();

/// The privilege that the plug-in checks.
std::string_view Privilege();

}  // namespace desk
