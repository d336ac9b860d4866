#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "vconf_control.h"

/// Saves and restores states of the whole set by name. Every function may be called on any thread; those that access
/// the set use the store that this process has open.
namespace desk {

/// The values of all keys of the store, and the faults.
struct SetState {
  std::map<std::string, vconf::Value> values;
  std::vector<vconf::Fault> faults;
};

/// The open store's state as JSON: {"state": {PATH: VALUE, …}, "faults": [FAULT, …]}.
vconf::Result<Json> DescribeState();

/// Parses such a state. Both members are optional; keys that are not named have their values in `base`, and null means
/// no key.
vconf::Result<SetState> StateFromJson(const ParsedJson& json, SetState base = {});

/// Replaces all keys and faults of the open store.
vconf::Status RestoreState(const SetState& state);

/// The open store's state as a scenario. Keys of a new set that the store lacks are null.
vconf::Result<Json> DescribeScenario();

/// Restores the state in `scenario`, in which a key that is not named has its value in a new set. Changes nothing if a
/// part of it is invalid.
vconf::Status LoadScenario(const ParsedJson& scenario);

/// The saved scenarios in the order of their names: [{"name": NAME, "saved": milliseconds since 1970}, …]. A scenario
/// is the file `scenarios/NAME.json` in the folder of its store. A name has 1 to 64 letters, digits and `._-`; any
/// other name fails with `kBadName`.
vconf::Result<Json> ListScenarios(const std::string& store);

/// `kMissing` if there is none of that name.
vconf::Result<ParsedJson> ReadScenario(const std::string& store, std::string_view name);

/// Writes the file atomically and durably, and replaces an existing one. An invalid scenario is refused. Without
/// `scenario`, saves the open store's state.
vconf::Status SaveScenario(const std::string& store, std::string_view name, const ParsedJson& scenario);
vconf::Status SaveScenario(const std::string& store, std::string_view name);

vconf::Status RemoveScenario(const std::string& store, std::string_view name);

}  // namespace desk
