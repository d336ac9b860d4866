#pragma once

#include <span>
#include <string_view>

#include "base/json.h"
#include "vconf_control.h"

/// Which calls of the set can be made to fail, and with which answers. Every function may be called on any thread.
namespace desk {

/// The path of a fault that applies to every path of a call.
inline constexpr char kEveryPath[] = "*";

/// A call that can be made to fail.
struct FaultCall {
  std::string_view name;
  std::string_view failures;  ///< which answers are failures of it: "any", "any but 0" or "any below 0"
  std::string_view path;      ///< the meaning of its path, such as "a list's name"; empty if the call has none
  std::string_view prefix;    ///< the argument of `KnownPaths` for such paths
};

/// All calls that can be made to fail.
std::span<const FaultCall> FaultCalls();

/// The call named `name`, or an error that lists all calls.
vconf::Result<const FaultCall*> FindFaultCall(std::string_view name);

/// Sets `fault`. Fails if there is no such call, or if the answer is not a failure of the call: a caller would take it
/// for success.
vconf::Status AddFault(const vconf::Fault& fault);

/// Whether `AddFault` would accept it.
vconf::Status CheckFault(const vconf::Fault& fault);

/// Parses {"call": "vconf_get_int", "path": "*", "answer": -1, "times": 0}. `path` is optional and defaults to "*", and
/// `times` is optional and defaults to 0: until it is cleared.
vconf::Result<vconf::Fault> FaultFromJson(const ParsedJson& json);

}  // namespace desk

namespace vconf {

/// The same form; the JSON library calls this when a fault, or a vector of them, is assigned to a `Json`.
void to_json(desk::Json& json, const Fault& fault);

}  // namespace vconf
