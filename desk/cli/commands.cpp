#include "cli/commands.h"

#include <algorithm>
#include <iostream>
#include <numeric>
#include <string_view>
#include <utility>

#include "base/json.h"
#include "base/paths.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

/// How many letters have to be put in, taken out or replaced to make `other` of `text`.
std::size_t Distance(std::string_view text, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);  // from what is read of `text` to each beginning of `other`
  std::iota(row.begin(), row.end(), 0);
  for (const char letter : text) {
    std::size_t diagonal = row[0]++;
    for (std::size_t at = 0; at < other.size(); ++at) {
      const std::size_t replaced = diagonal + (other[at] == letter ? 0 : 1);
      diagonal = std::exchange(row[at + 1], std::min({replaced, row[at] + 1, row[at + 1] + 1}));
    }
  }
  return row.back();
}

}  // namespace

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

int WithStore(const std::string& store, const std::function<vconf::Status()>& work) {
  if (const auto opened = OpenSet(store); !opened.ok()) {
    std::cerr << opened.text() << '\n';
    return kCannotWork;  // whatever the cause: a store that is not there is no answer about a key
  }
  const auto status = work();
  if (!status.ok()) {
    std::cerr << status.text() << '\n';
  }
  vconf::CloseStore();
  return ExitStatusOf(status.code());
}

void NoteUnknown(const std::string& path, const std::string& what, const std::vector<std::string>& known) {
  std::size_t least = path.size() / 6 + 2;  // what is further away is no slip
  const std::string* nearest = nullptr;
  for (const std::string& each : known) {
    if (const std::size_t distance = Distance(path, each); distance < least) {
      least = distance;
      nearest = &each;
    }
  }
  if (nearest == nullptr || least > 0) {
    std::cerr << path << ": " << what << (nearest == nullptr ? "" : "; did you mean " + *nearest + "?") << '\n';
  }
}

vconf::Value ValueFromArgument(const std::string& argument) {
  const auto parsed = ParseJson(argument);
  const auto value = parsed.ok() ? ToValue(*parsed) : std::nullopt;
  return value ? *value : vconf::Value(argument);
}

std::string ToArgument(const vconf::Value& value) { return ToText(ToJson(value)); }

}  // namespace desk::cli
