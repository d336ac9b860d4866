#include "set/scenario.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <utility>

#include "base/files.h"
#include "set/faults.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kExtension = ".json";

SetState NewSet() {
  SetState state;
  for (const vconf::Entry& entry : DefaultEntries()) {
    state.values.emplace(entry.path, entry.value);
  }
  return state;
}

bool IsName(std::string_view name) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !name.empty() && name.size() <= 64 && name.find_first_not_of(kLetters) == std::string_view::npos;
}

fs::path Folder(const std::string& store) { return fs::path(store) / "scenarios"; }

vconf::Result<std::string> FileOf(const std::string& store, std::string_view name) {
  if (!IsName(name)) {
    return vconf::Status(vconf::Code::kBadName,
                         "\"" + std::string(name) + "\" is not a valid name; use 1 to 64 letters, digits and . _ -");
  }
  return (Folder(store) / (std::string(name) += kExtension)).string();
}

vconf::Status NoScenario(std::string_view name) {
  return {vconf::Code::kMissing, "no set is saved under the name \"" + std::string(name) + "\""};
}

}  // namespace

vconf::Result<Json> DescribeState() {
  const auto entries = vconf::List("");
  const auto faults = vconf::ListFaults();
  if (!entries.ok() || !faults.ok()) {
    return entries.ok() ? faults.status() : entries.status();
  }
  Json json = {{"state", Json::object()}, {"faults", *faults}};
  for (const vconf::Entry& entry : *entries) {
    json["state"][entry.path] = ToJson(entry.value);
  }
  return json;
}

vconf::Result<SetState> StateFromJson(const ParsedJson& json, SetState base) {
  const ParsedJson state = json.is_object() ? json.value("state", ParsedJson::object()) : ParsedJson();
  const ParsedJson faults = json.is_object() ? json.value("faults", ParsedJson::array()) : ParsedJson();
  if (!state.is_object() || !faults.is_array()) {
    return BadValue(R"(the state of a set must be {"state": {PATH: VALUE, …}, "faults": [FAULT, …]})");
  }
  for (const auto& [path, member] : state.items()) {
    const auto value = ToValue(member);
    if (!value && !member.is_null()) {
      return BadValue(path + " must be a 32-bit integer, true, false, a text or null");
    }
    base.values.erase(path);
    if (value) {
      base.values.emplace(path, *value);
    }
  }
  for (const ParsedJson& member : faults) {
    auto fault = FaultFromJson(member);
    if (!fault.ok()) {
      return fault.status();
    }
    base.faults.push_back(*std::move(fault));
  }
  return base;
}

vconf::Status RestoreState(const SetState& state) {
  std::vector<vconf::Entry> entries;
  for (const auto& [path, value] : state.values) {
    entries.push_back({path, value});
  }
  auto status = vconf::Reset(entries);
  status = status.ok() ? vconf::ClearFaults() : status;
  for (const vconf::Fault& fault : state.faults) {
    status = status.ok() ? vconf::SetFault(fault) : status;
  }
  return status;
}

static vconf::Result<SetState> ParseScenario(const ParsedJson& scenario) {
  auto state = StateFromJson(scenario, NewSet());
  for (const vconf::Fault& fault : state.ok() ? state->faults : std::vector<vconf::Fault>()) {
    if (auto status = CheckFault(fault); !status.ok()) {
      return status;
    }
  }
  return state;
}

vconf::Result<Json> DescribeScenario() {
  auto scenario = DescribeState();
  for (const auto& [path, value] : scenario.ok() ? NewSet().values : SetState().values) {
    if (!(*scenario)["state"].contains(path)) {
      (*scenario)["state"][path] = nullptr;
    }
  }
  return scenario;
}

vconf::Status LoadScenario(const ParsedJson& scenario) {
  const auto state = ParseScenario(scenario);
  return state.ok() ? RestoreState(*state) : state.status();
}

vconf::Result<Json> ListScenarios(const std::string& store) {
  std::map<std::string, std::int64_t> saved;
  std::error_code failed;
  for (fs::directory_iterator at(Folder(store), failed); !failed && at != fs::directory_iterator();
       at.increment(failed)) {
    const fs::path& file = at->path();
    if (file.extension() != kExtension || !IsName(file.stem().string())) {
      continue;
    }
    std::error_code gone;
    const auto changed = fs::last_write_time(file, gone);
    if (!gone) {  // otherwise another process has just removed it
      const auto since = std::chrono::file_clock::to_sys(changed).time_since_epoch();
      saved[file.stem()] = std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
    }
  }
  if (failed && failed != std::errc::no_such_file_or_directory) {
    return FileStatus(failed.value(), Folder(store));
  }
  Json scenarios = Json::array();
  for (const auto& [name, time] : saved) {
    scenarios.push_back({{"name", name}, {"saved", time}});
  }
  return scenarios;
}

vconf::Result<ParsedJson> ReadScenario(const std::string& store, std::string_view name) {
  const auto file = FileOf(store, name);
  if (!file.ok()) {
    return file.status();
  }
  const auto text = ReadFile(*file);
  if (!text.ok()) {
    return text.status().code() == vconf::Code::kMissing ? NoScenario(name) : text.status();
  }
  auto json = ParseJson(*text);
  return json.ok() ? std::move(json)
                   : vconf::Status(vconf::Code::kFailed, *file + ": " + json.status().text() +
                                                             "; save the scenario again, or remove the file");
}

vconf::Status SaveScenario(const std::string& store, std::string_view name, const ParsedJson& scenario) {
  const auto file = FileOf(store, name);
  const auto state = ParseScenario(scenario);
  if (!file.ok() || !state.ok()) {
    return file.ok() ? state.status() : file.status();
  }
  std::error_code failed;
  fs::create_directory(Folder(store), failed);
  return failed ? FileStatus(failed.value(), Folder(store)) : ReplaceFile(*file, scenario.dump(2) + "\n");
}

vconf::Status SaveScenario(const std::string& store, std::string_view name) {
  const auto scenario = DescribeScenario();
  return scenario.ok() ? SaveScenario(store, name, ParsedJson(*scenario)) : scenario.status();
}

vconf::Status RemoveScenario(const std::string& store, std::string_view name) {
  const auto file = FileOf(store, name);
  if (!file.ok()) {
    return file.status();
  }
  std::error_code failed;
  if (!fs::remove(*file, failed) && !failed) {
    return NoScenario(name);
  }
  return failed ? FileStatus(failed.value(), *file) : vconf::Status();
}

}  // namespace desk
