#include "set/simulated_set.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include "base/terminal.h"
#include "panelbase_control.h"
#include "prefdeck_control.h"
#include "set/catalog.h"
#include "system_info_control.h"

namespace desk {
namespace {

const std::string& FeaturePath() {
  static const std::string path =
      std::string(system_info::kFeaturePrefix) + "com.norvika/featureconf/product.b2b_option_support";
  return path;
}

constexpr char kLanguages[] = "1 English\n2 French\n3 Spanish\n4 German\n5 Italian\n6 Portuguese\n7 Korean";

template <typename Type>
std::optional<vconf::Value> ParseAs(const ParsedJson& json) {
  auto value = ToValue(json);
  return value && std::holds_alternative<Type>(*value) ? value : std::nullopt;
}

std::optional<vconf::Value> ParseLatency(const ParsedJson& json) {
  auto value = ParseAs<int>(json);
  return value && std::get<int>(*value) >= 0 && std::get<int>(*value) <= kMaxLatency ? value : std::nullopt;
}

std::optional<vconf::Value> ParseItems(const ParsedJson& json) {
  if (!json.is_array()) {
    return std::nullopt;
  }
  std::string lines;
  for (const ParsedJson& item : json) {
    const auto value = item.is_object() && item.size() == 2 ? item.find("value") : item.end();
    const auto label = item.is_object() ? item.find("label") : item.end();
    const auto number = value == item.end() ? std::nullopt : ParseAs<int>(*value);
    const auto text = label == item.end() ? std::nullopt : ParseAs<std::string>(*label);
    if (!number || !text || std::get<std::string>(*text).find('\n') != std::string::npos) {
      return std::nullopt;
    }
    lines += (lines.empty() ? "" : "\n") + std::to_string(std::get<int>(*number)) + " " + std::get<std::string>(*text);
  }
  return lines;
}

Json DescribeItems(const vconf::Value& value) {
  const auto* lines = std::get_if<std::string>(&value);
  Json items = Json::array();
  std::istringstream stream(lines == nullptr ? "" : *lines);
  for (std::string line; std::getline(stream, line);) {
    const auto blank = std::min(line.find(' '), line.size());
    const std::string first = line.substr(0, blank);
    const auto value = ValueFromArgument(first);
    // A list that another program wrote may have a text instead of a number.
    items.push_back({{"value", std::holds_alternative<int>(value) ? ToJson(value) : Json(first)},
                     {"label", blank == line.size() ? "" : line.substr(blank + 1)}});
  }
  return items;
}

/// A part of the set's description, and its key in the store.
struct Part {
  std::string_view name;  ///< a path in the description, such as "embedder/name"
  std::string path;       ///< of the key; if it ends in '/', the part is an object, and each of its members has a key
  std::string_view form;  ///< the accepted values, for a message
  std::optional<vconf::Value> (*parse)(const ParsedJson&);  ///< empty for a wrong value
  Json missing = nullptr;                                   ///< the description of a missing key
};

std::span<const Part> Parts() {
  constexpr std::string_view kBool = "true, false or null";
  constexpr std::string_view kInt = "a 32-bit integer or null";
  static const std::array<Part, 8> parts{{
      {"b2b", FeaturePath(), kBool, ParseAs<bool>},
      {"privileges", kPrivilegePrefix, kBool, ParseAs<bool>},
      {"pictureSize", panelbase::kPictureSizePath, kInt, ParseAs<int>},
      {"lists", prefdeck::kListPrefix, R"(an array of {"value": an integer, "label": a text of one line}, or null)",
       ParseItems},
      {"embedder/offered", kEmbedderOffered, kBool, ParseAs<bool>, true},
      {"embedder/name", kEmbedderName, "a text or null", ParseAs<std::string>, kDefaultEmbedderName},
      {"embedder/replies", kReplyPrefix, "a 32-bit integer, true, false, a text or null", ToValue},
      {"latency", kLatencyPrefix, "an integer from 0 to 60000 (milliseconds), or null (`none` on the command line)",
       ParseLatency},
  }};
  static_assert(kMaxLatency == 60'000, "the form of a latency names it");
  return parts;
}

/// Keys with their new values; a key without a value is removed.
using Changes = std::vector<std::pair<std::string, std::optional<vconf::Value>>>;

vconf::Status Apply(const Changes& changes) {
  for (const auto& [path, value] : changes) {
    const auto present = vconf::Get(path);
    vconf::Status status;
    if (!present.ok() && present.status().code() != vconf::Code::kMissing) {
      status = present.status();
    } else if (present.ok() && (!value || value->index() != present->index())) {
      status = vconf::Remove(path);  // a key keeps its type until it is removed
    }
    if (status.ok() && value) {
      status = vconf::Set(path, *value);
    }
    if (!status.ok()) {
      return status;
    }
  }
  return {};
}

/// Adds the change of one key to `changes`; `name` is the member's name if the part is an object, otherwise empty.
vconf::Status ParseMember(const Part& part, const std::string& name, const ParsedJson& json, Changes& changes) {
  const std::string full_name = std::string(part.name) + (part.path.ends_with('/') ? "/" + name : "");
  const auto commands = Commands();
  std::optional<vconf::Value> value;
  if (!json.is_null()) {
    if (part.path == kLatencyPrefix && std::ranges::find(commands, name, &Command::name) == commands.end()) {
      std::string error = "\"" + name + "\" is not a command of the plug-in; the commands are:";
      for (const Command& command : commands) {
        error.append(" ").append(command.name);
      }
      return BadValue(error);
    }
    value = part.parse(json);
    if (!value) {
      return BadValue((full_name + " must be ").append(part.form));
    }
  }
  std::string path = part.path + name;
  if (const auto present = vconf::Get(path); !present.ok() && present.status().code() == vconf::Code::kBadName) {
    return BadValue(full_name + " is too long, or has a character that a path may not have");
  }
  changes.emplace_back(std::move(path), std::move(value));
  return {};
}

vconf::Status ParsePart(const std::string& name, const ParsedJson& json, Changes& changes) {
  const auto parts = Parts();
  const auto part = std::ranges::find(parts, name, &Part::name);
  const bool is_embedder = name == "embedder";
  if (part == parts.end() && !is_embedder) {
    return BadValue("\"" + name + "\" is not a part of the simulated set; `mirado set-up --json` prints all parts");
  }
  if (!is_embedder && !part->path.ends_with('/')) {
    return ParseMember(*part, "", json, changes);
  }
  if (!json.is_object()) {
    return BadValue(name + " must be an object");
  }
  for (const auto& [key, member] : json.items()) {
    vconf::Status status =
        is_embedder ? ParsePart("embedder/" + key, member, changes) : ParseMember(*part, key, member, changes);
    if (!status.ok()) {
      return status;
    }
  }
  return {};
}

}  // namespace

std::vector<vconf::Entry> DefaultEntries() {
  std::vector<vconf::Entry> entries;
  for (const Setting& setting : Settings()) {
    entries.push_back({std::string(setting.path), setting.initial});
  }
  const std::string lists = prefdeck::kListPrefix;
  entries.push_back({FeaturePath(), true});
  entries.push_back({kPrivilegePrefix + std::string(Privilege()), true});
  entries.push_back({panelbase::kPictureSizePath, 0});
  entries.push_back({lists + "primary-audio-language", kLanguages});
  entries.push_back({lists + "secondary-audio-language", kLanguages});
  entries.push_back({kEmbedderOffered, true});
  entries.push_back({kEmbedderName, kDefaultEmbedderName});
  return entries;
}

vconf::Status OpenSet(const std::string& store) {
  if (store.empty()) {
    return {vconf::Code::kMissing, "HOME is not set; name the store's folder with --store or MIRADO_STORE"};
  }
  return vconf::OpenOrCreateStore(store, DefaultEntries());
}

vconf::Status ResetSet() {
  auto status = vconf::Reset(DefaultEntries());
  return status.ok() ? vconf::ClearFaults() : status;
}

vconf::Result<Json> DescribeSet() {
  Json set = Json::object();
  for (const Part& part : Parts()) {
    Json& described = set[Json::json_pointer("/" + std::string(part.name))];
    if (!part.path.ends_with('/')) {
      const auto value = vconf::Get(part.path);
      if (!value.ok() && value.status().code() != vconf::Code::kMissing) {
        return value.status();
      }
      described = value.ok() ? ToJson(*value) : part.missing;
      continue;
    }
    const auto entries = vconf::List(part.path);
    if (!entries.ok()) {
      return entries.status();
    }
    described = Json::object();
    for (const vconf::Entry& entry : *entries) {
      described[entry.path.substr(part.path.size())] =
          part.path == prefdeck::kListPrefix ? DescribeItems(entry.value) : ToJson(entry.value);
    }
  }
  return set;
}

vconf::Status ChangeSet(const ParsedJson& change) {
  if (!change.is_object()) {
    return BadValue("a change of the simulated set must be an object");
  }
  Changes changes;
  for (const auto& [name, json] : change.items()) {
    if (auto read = ParsePart(name, json, changes); !read.ok()) {
      return read;
    }
  }
  return Apply(changes);
}

vconf::Result<std::vector<std::string>> KnownPaths(std::string_view prefix) {
  const auto present = vconf::List(std::string(prefix));
  if (!present.ok()) {
    return present.status();
  }
  std::set<std::string> paths = {"memory/webapp/caption", "memory/webapp/avplay"};  // not in a new set
  for (const auto& entries : {DefaultEntries(), *present}) {
    for (const vconf::Entry& entry : entries) {
      paths.insert(entry.path);
    }
  }
  for (const Command& command : Commands()) {
    paths.insert(kLatencyPrefix + std::string(command.name));
  }
  for (const char* const operation :
       {"check_ace_privilege", "get_window_id", "set_ime_recommended_words_type", "set_ime_recommended_words"}) {
    paths.insert(std::string(kReplyPrefix) + operation);
  }
  std::vector<std::string> names;
  for (const std::string& path : paths) {
    if (path.starts_with(prefix)) {
      names.push_back(path.substr(prefix.size()));
    }
  }
  return names;
}

bool IsFreelyNamed(std::string_view path) {
  return std::ranges::any_of(Parts(), [&](const Part& part) {
    return part.path.ends_with('/') && part.path != kLatencyPrefix && path.starts_with(part.path);
  });
}

}  // namespace desk
