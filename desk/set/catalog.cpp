#include "set/catalog.h"

#include <algorithm>
#include <string>
#include <vector>

namespace desk {
namespace {

const Json& Catalog() {
  static const Json catalog = Json::parse(CatalogText());
  return catalog;
}

std::string_view Text(const Json& object, const char* name) { return object.at(name).get_ref<const std::string&>(); }

}  // namespace

std::span<const KeyTable> KeyTables() {
  static const std::vector<KeyTable> tables = [] {
    std::vector<KeyTable> all;
    for (const auto& [name, row] : Catalog().at("tables").items()) {
      all.push_back({.name = name,
                     .read = Text(row, "read"),
                     .watch = Text(row, "watch"),
                     .unwatch = Text(row, "unwatch"),
                     .event = Text(row, "event")});
    }
    return all;
  }();
  return tables;
}

std::span<const Setting> Settings() {
  static const std::vector<Setting> settings = [] {
    std::vector<Setting> all;
    for (const Json& row : Catalog().at("settings")) {
      const Json& initial = row.at("initial");
      all.push_back({.table = &*std::ranges::find(KeyTables(), Text(row, "table"), &KeyTable::name),
                     .key = row.at("key"),
                     .enumerator = Text(row, "name"),
                     .path = Text(row, "path"),
                     .initial = initial.is_boolean() ? vconf::Value(initial.get<bool>()) : initial.get<int>(),
                     .group = Text(row, "group"),
                     .label = Text(row, "label"),
                     .values = &row.at("values")});
    }
    return all;
  }();
  return settings;
}

const Setting* FindSetting(std::string_view path) {
  const auto settings = Settings();
  const auto found = std::ranges::find(settings, path, &Setting::path);
  return found == settings.end() ? nullptr : &*found;
}

std::span<const Command> Commands() {
  static const std::vector<Command> commands = [] {
    std::vector<Command> all;
    for (const Json& row : Catalog().at("commands")) {
      all.push_back({.name = Text(row, "name"), .posted = row.at("posted")});
    }
    return all;
  }();
  return commands;
}

std::string_view Privilege() { return Text(Catalog(), "privilege"); }

}  // namespace desk
