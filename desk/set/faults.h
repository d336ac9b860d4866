#pragma once

#include <span>
#include <string_view>

#include "base/json.h"
#include "vconf_control.h"

/// Which calls of the set can be made to fail, and with which answers. Every function may be called on any thread.
namespace desk {

/// The path of a fault that answers a call whatever its path.
inline constexpr char kEveryPath[] = "*";

/// A call that can be made to fail.
struct FaultCall {
  std::string_view name;
  std::string_view failures;  ///< which answers are failures of it: "any", "any but 0" or "any below 0"
  std::string_view path;      ///< what its path is, such as "a list's name"; empty when the call has none
  std::string_view prefix;    ///< what `KnownPaths` takes for such paths
};

/// All calls that ask for faults.
std::span<const FaultCall> FaultCalls();

/// The call named `name`, or an error that lists all.
vconf::Result<const FaultCall*> FindFaultCall(std::string_view name);

/// Sets `fault`, or says that there is no such call, or that the answer is no failure of the call: whoever makes it
/// would believe that it had done its work.
vconf::Status AddFault(const vconf::Fault& fault);

/// Whether `AddFault` would take it.
vconf::Status CheckFault(const vconf::Fault& fault);

/// {"call": "vconf_get_int", "path": "*", "answer": -1, "times": 0}. Reading one back, `path` may be left out and is
/// then "*", and so may `times`, which is then 0: until it is cleared.
Json ToJson(const vconf::Fault& fault);
vconf::Result<vconf::Fault> FaultFromJson(const ParsedJson& json);

}  // namespace desk
