#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "ppapi/cpp/var.h"
#include "vconf_control.h"

/// JSON on the desk's outside, `pp::Var` and `vconf::Value` inside. Every function may be called on any thread.
namespace desk {

/// What goes out: keeps the order in which the members were put in, so that replies read the same everywhere.
using Json = nlohmann::ordered_json;

/// What comes in: finds a member in logarithmic time, however many a stranger sends.
using ParsedJson = nlohmann::json;

/// A deeper nesting of arrays and objects is refused.
inline constexpr int kMaxJsonDepth = 128;

/// The failure of something that is not understood.
inline vconf::Status BadValue(std::string text) { return {vconf::Code::kBadValue, std::move(text)}; }

/// What `text` says, or `kBadValue` and the cause, with the column (from 1) where it is no JSON. `text` must be one
/// JSON value in valid UTF-8 that nests no deeper than `max_depth`. Of two equal names in an object the last one holds,
/// as in a browser; `top_level_names`, where given, receives how many names the outermost object had, equal ones
/// counted.
vconf::Result<ParsedJson> ParseJson(std::string_view text, int* top_level_names = nullptr,
                                    int max_depth = kMaxJsonDepth);

/// One line without a newline, always valid UTF-8: bytes that are none are replaced.
std::string ToText(const Json& json);

/// An integer that fits 32 bits becomes an Int and every other number, 7.0 too, a Double.
pp::Var ToVar(const ParsedJson& json);

/// Undefined, and a Double that is no finite number, become null. The fields of a reply come first and in their usual
/// order, all other names in the order of their bytes.
Json ToJson(const pp::Var& var);

/// An integer of 32 bits, true or false, or a text; nothing for any other JSON value.
std::optional<vconf::Value> ToValue(const ParsedJson& json);
Json ToJson(const vconf::Value& value);

}  // namespace desk
