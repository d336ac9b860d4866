#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "vconf_control.h"

/// States of the whole set under a name, to come back to. Every function may be called on any thread; those that have
/// to do with the set work on the store that this process has open.
namespace desk {

/// What every key of the store holds, and the faults.
struct SetState {
  std::map<std::string, vconf::Value> values;
  std::vector<vconf::Fault> faults;
};

/// The open store's state as JSON: {"state": {PATH: VALUE, …}, "faults": [FAULT, …]}.
vconf::Result<Json> DescribeState();

/// Reads such a state. Either member may be left out; `base` has what it does not name, and null stands for no key.
vconf::Result<SetState> StateFromJson(const ParsedJson& json, SetState base = {});

/// The open store's state as a scenario. What a new set holds and this one does not is null.
vconf::Result<Json> DescribeScenario();

/// Gives the open store the state of `scenario`, in which a key that is not named is as in a new set. Changes nothing
/// when a part of it is not understood.
vconf::Status LoadScenario(const ParsedJson& scenario);

/// A scenario on file: `scenarios/NAME.json` in the folder of a store. A name has 1 to 64 letters, digits and `._-`;
/// another one is refused with `kBadName`.
struct ScenarioFile {
  std::string name;
  std::int64_t saved;  ///< milliseconds since 1970
};

/// In the order of their names; none when nothing was saved yet.
vconf::Result<std::vector<ScenarioFile>> ListScenarios(const std::string& store);

/// `kMissing` when there is none of that name.
vconf::Result<ParsedJson> ReadScenario(const std::string& store, std::string_view name);

/// Writes the file in one step and durably, in place of an earlier one. One that is not
/// understood is refused.
vconf::Status SaveScenario(const std::string& store, std::string_view name, const ParsedJson& scenario);

vconf::Status RemoveScenario(const std::string& store, std::string_view name);

}  // namespace desk
