#include "commands.h"

#include <iostream>
#include <variant>

#include "json.h"
#include "places.h"
#include "simulated_set.h"

namespace desk::cli {

void AddStoreOption(CLI::App& command, std::string& store) {
  store = DefaultStore();
  command.add_option("--store", store, "The folder of the store; made and filled when there is none")
      ->type_name("FOLDER")
      ->capture_default_str();
}

void AddPluginOption(CLI::App& command, std::string& plugin) {
  plugin = DefaultPlugin();
  command.add_option("--plugin", plugin, "The plug-in's library")->type_name("FILE")->capture_default_str();
}

int WithStore(const std::string& store, const std::function<vconf::Error()>& work) {
  if (const auto error = OpenSet(store)) {
    std::cerr << *error << '\n';
    return kCannotStart;
  }
  const auto error = work();
  if (error) {
    std::cerr << *error << '\n';
  }
  vconf::CloseStore();
  return error ? kFailed : kDone;
}

vconf::Value ValueFromArgument(const std::string& argument) {
  const auto parsed = ParseJson(argument);
  const auto* json = std::get_if<ParsedJson>(&parsed);
  const auto value = json == nullptr ? std::nullopt : ToValue(*json);
  return value ? *value : vconf::Value(argument);
}

std::string ToArgument(const vconf::Value& value) { return ToText(ToJson(value)); }

}  // namespace desk::cli
