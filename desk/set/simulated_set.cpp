#include "set/simulated_set.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <sstream>
#include <utility>

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

/// The changes that a description asks for, gathered before the first is made.
class Changes {
 public:
  /// A value, or nothing to take the key away.
  void Add(std::string path, std::optional<vconf::Value> value) {
    changes_.emplace_back(std::move(path), std::move(value));
  }

  vconf::Status Apply() const {
    for (const auto& [path, value] : changes_) {
      const auto present = vconf::Get(path);
      vconf::Status status;
      if (!present.ok() && present.status().code() != vconf::Code::kMissing) {
        status = present.status();
      } else if (present.ok() && (!value || value->index() != present->index())) {
        // A key keeps its type until it is removed, and here the value as a whole is given anew.
        status = vconf::Remove(path);
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

 private:
  std::vector<std::pair<std::string, std::optional<vconf::Value>>> changes_;
};

/// Each reader takes one member of the description, `where` in the whole, and says what it should have been when it is
/// not understood. Null takes the key away, whatever it holds.
vconf::Status ReadNull(const ParsedJson&, const std::string& path, Changes& changes) {
  changes.Add(path, std::nullopt);
  return {};
}

vconf::Status ReadBool(const ParsedJson& json, const std::string& path, Changes& changes) {
  if (!json.is_boolean()) {
    return BadValue("must be true, false or null");
  }
  changes.Add(path, json.get<bool>());
  return {};
}

vconf::Status ReadInt(const ParsedJson& json, const std::string& path, Changes& changes) {
  const auto value = ToValue(json);
  if (!value || !std::holds_alternative<int>(*value)) {
    return BadValue("must be an integer of 32 bits or null");
  }
  changes.Add(path, value);
  return {};
}

vconf::Status ReadText(const ParsedJson& json, const std::string& path, Changes& changes) {
  if (!json.is_string()) {
    return BadValue("must be a text or null");
  }
  changes.Add(path, json.get<std::string>());
  return {};
}

vconf::Status ReadAny(const ParsedJson& json, const std::string& path, Changes& changes) {
  const auto value = ToValue(json);
  if (!value) {
    return BadValue("must be an integer of 32 bits, true, false, a text or null");
  }
  changes.Add(path, value);
  return {};
}

vconf::Status ReadLatency(const ParsedJson& json, const std::string& path, Changes& changes) {
  const auto commands = Commands();
  const std::string_view name = std::string_view(path).substr(std::size(kLatencyPrefix) - 1);
  if (std::ranges::find(commands, name, &Command::name) == commands.end()) {
    std::string error = "is no command of the plug-in, which has these:";
    for (const Command& command : commands) {
      error.append(" ").append(command.name);
    }
    return BadValue(error);
  }
  const auto value = ToValue(json);
  const int* milliseconds = value ? std::get_if<int>(&*value) : nullptr;
  if (milliseconds != nullptr && (*milliseconds < 0 || *milliseconds > kMaxLatency)) {
    return BadValue("must be 0 to " + std::to_string(kMaxLatency) + " milliseconds");
  }
  return ReadInt(json, path, changes);
}

vconf::Status ReadList(const ParsedJson& json, const std::string& path, Changes& changes) {
  constexpr char kError[] = R"(must be an array of {"value": an integer, "label": a text of one line} or null)";
  if (!json.is_array()) {
    return BadValue(kError);
  }
  std::string lines;
  for (const ParsedJson& item : json) {
    const auto value = item.is_object() && item.size() == 2 ? item.find("value") : item.end();
    const auto label = item.is_object() ? item.find("label") : item.end();
    if (value == item.end() || label == item.end() || !label->is_string()) {
      return BadValue(kError);
    }
    const auto number = ToValue(*value);
    const auto& text = label->get_ref<const std::string&>();
    if (!number || !std::holds_alternative<int>(*number) || text.find('\n') != std::string::npos) {
      return BadValue(kError);
    }
    lines += (lines.empty() ? "" : "\n") + std::to_string(std::get<int>(*number)) + " " + text;
  }
  changes.Add(path, lines);
  return {};
}

using Reader = vconf::Status (*)(const ParsedJson&, const std::string& path, Changes&);

/// One place in the description. A path that ends in '/' stands for an object of names, each read by `read`.
struct Place {
  std::string_view where;
  std::string path;
  Reader read;
};

std::span<const Place> Places() {
  static const std::array<Place, 8> places{{
      {"b2b", FeaturePath(), ReadBool},
      {"privileges", kPrivilegePrefix, ReadBool},
      {"pictureSize", panelbase::kPictureSizePath, ReadInt},
      {"lists", prefdeck::kListPrefix, ReadList},
      {"latency", kLatencyPrefix, ReadLatency},
      {"embedder/offered", kEmbedderOffered, ReadBool},
      {"embedder/name", kEmbedderName, ReadText},
      {"embedder/replies", kReplyPrefix, ReadAny},
  }};
  return places;
}

vconf::Status ReadOne(const Place& place, const std::string& where, const std::string& path, const ParsedJson& json,
                      Changes& changes) {
  const auto read = (json.is_null() ? ReadNull : place.read)(json, path, changes);
  return read.ok() ? read : vconf::Status(read.code(), where + " " + read.text());
}

vconf::Status ReadMember(const std::string& where, const ParsedJson& json, Changes& changes) {
  if (where == "embedder" && json.is_object()) {
    for (const auto& [name, member] : json.items()) {
      if (auto read = ReadMember("embedder/" + name, member, changes); !read.ok()) {
        return read;
      }
    }
    return {};
  }
  const auto places = Places();
  const auto place = std::ranges::find(places, where, &Place::where);
  if (place == places.end()) {
    return BadValue(where == "embedder" ? "embedder must be an object" : "the set has no \"" + where + "\"");
  }
  if (!place->path.ends_with('/')) {
    return ReadOne(*place, where, place->path, json, changes);
  }
  if (!json.is_object()) {
    return BadValue(where + " must be an object");
  }
  for (const auto& [name, member] : json.items()) {
    const std::string behind = "/" + name;
    if (auto read = ReadOne(*place, where + behind, place->path + name, member, changes); !read.ok()) {
      return read;
    }
  }
  return {};
}

/// What the store holds, as it is asked for one by one; `status` is the first failure.
class Reading {
 public:
  /// The value at `path`, or null where there is none.
  Json At(const char* path) {
    const auto value = vconf::Get(path);
    if (!value.ok() && value.status().code() != vconf::Code::kMissing) {
      Note(value.status());
    }
    return value.ok() ? ToJson(*value) : Json();
  }

  /// An object of what stands under `prefix`, by the names behind it.
  template <typename Convert>
  Json Names(const char* prefix, Convert convert) {
    const auto entries = vconf::List(prefix);
    Note(entries.status());
    Json json = Json::object();
    for (const vconf::Entry& entry : entries.ok() ? *entries : std::vector<vconf::Entry>()) {
      json[entry.path.substr(std::string_view(prefix).size())] = convert(entry.value);
    }
    return json;
  }

  const vconf::Status& status() const { return status_; }

 private:
  void Note(const vconf::Status& status) { status_ = status_.ok() ? status : status_; }

  vconf::Status status_;
};

Json Plain(const vconf::Value& value) { return ToJson(value); }

Json ListItems(const vconf::Value& value) {
  const auto* lines = std::get_if<std::string>(&value);
  Json items = Json::array();
  std::istringstream stream(lines == nullptr ? "" : *lines);
  for (std::string line; std::getline(stream, line);) {
    const auto blank = std::min(line.find(' '), line.size());
    int number = 0;
    const char* end = line.data() + blank;
    const auto parsed = std::from_chars(line.data(), end, number);
    Json item = Json::object();
    // A list that somebody wrote by hand may hold what is no number; it shows as it is.
    item["value"] = parsed.ec == std::errc() && parsed.ptr == end ? Json(number) : Json(line.substr(0, blank));
    item["label"] = blank == line.size() ? "" : line.substr(blank + 1);
    items.push_back(std::move(item));
  }
  return items;
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
  entries.push_back({kEmbedderName, kUsualEmbedder});
  return entries;
}

vconf::Status OpenSet(const std::string& store) {
  if (store.empty()) {
    return {vconf::Code::kMissing,
            "there is no home folder to keep the store in: name another one with --store or MIRADO_STORE"};
  }
  return vconf::OpenOrCreateStore(store, DefaultEntries());
}

vconf::Status ResetSet() {
  auto status = vconf::Reset(DefaultEntries());
  return status.ok() ? vconf::ClearFaults() : status;
}

vconf::Result<Json> DescribeSet() {
  Reading reading;
  const auto or_usual = [](Json value, Json usual) { return value.is_null() ? usual : value; };
  Json embedder = Json::object();
  embedder["offered"] = or_usual(reading.At(kEmbedderOffered), true);
  embedder["name"] = or_usual(reading.At(kEmbedderName), kUsualEmbedder);
  embedder["replies"] = reading.Names(kReplyPrefix, Plain);
  Json set = Json::object();
  set["b2b"] = reading.At(FeaturePath().c_str());
  set["privileges"] = reading.Names(kPrivilegePrefix, Plain);
  set["pictureSize"] = reading.At(panelbase::kPictureSizePath);
  set["lists"] = reading.Names(prefdeck::kListPrefix, ListItems);
  set["embedder"] = std::move(embedder);
  set["latency"] = reading.Names(kLatencyPrefix, Plain);
  return reading.status().ok() ? vconf::Result(std::move(set)) : reading.status();
}

vconf::Status ChangeSet(const ParsedJson& change) {
  if (!change.is_object()) {
    return BadValue("a change of the set must be an object");
  }
  Changes changes;
  for (const auto& [name, member] : change.items()) {
    if (auto read = ReadMember(name, member, changes); !read.ok()) {
      return read;
    }
  }
  return changes.Apply();
}

vconf::Result<std::vector<std::string>> KnownPaths(std::string_view prefix) {
  const auto present = vconf::List(std::string(prefix));
  if (!present.ok()) {
    return present.status();
  }
  std::vector<std::string> paths;
  for (const auto& entries : {DefaultEntries(), *present}) {
    for (const vconf::Entry& entry : entries) {
      if (entry.path.starts_with(prefix)) {
        paths.push_back(entry.path.substr(prefix.size()));
      }
    }
  }
  for (const Command& command : Commands()) {
    if (const std::string path = kLatencyPrefix + std::string(command.name); path.starts_with(prefix)) {
      paths.push_back(path.substr(prefix.size()));
    }
  }
  for (const char* const path : {"memory/webapp/caption", "memory/webapp/avplay"}) {  // a new set has neither
    if (std::string_view(path).starts_with(prefix)) {
      paths.emplace_back(path + prefix.size());
    }
  }
  if (prefix == kReplyPrefix) {
    paths.insert(paths.end(), {"check_ace_privilege", "get_window_id", "set_ime_recommended_words_type",
                               "set_ime_recommended_words"});
  }
  return paths;
}

bool IsOpenPath(std::string_view path) {
  return std::ranges::any_of(Places(), [&](const Place& place) {
    return place.path.ends_with('/') && place.path != kLatencyPrefix && path.starts_with(place.path);
  });
}

}  // namespace desk
