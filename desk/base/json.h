#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "ppapi/cpp/var.h"
#include "vconf_control.h"

/// Converts between JSON and `pp::Var` or `vconf::Value`. Every function may be called on any thread.
namespace desk {

/// JSON for output: keeps the order in which the members were inserted.
using Json = nlohmann::ordered_json;

/// JSON from input: finds a member in logarithmic time, however many a client sends.
using ParsedJson = nlohmann::json;

/// The maximum nesting depth of arrays and objects.
inline constexpr int kMaxJsonDepth = 128;

/// The failure for invalid input.
inline vconf::Status BadValue(std::string text) { return {vconf::Code::kBadValue, std::move(text)}; }

/// Parses `text`, which must be one JSON value in valid UTF-8, nested no deeper than `max_depth`. A failure is
/// `kBadValue` with the cause, and the column (from 1) of a syntax error. Of duplicate names in an object the last one
/// is used, as in a browser.
vconf::Result<ParsedJson> ParseJson(std::string_view text, int max_depth = kMaxJsonDepth);

/// One line without a newline, always valid UTF-8: invalid bytes are replaced.
std::string ToText(const Json& json);

/// An integer that fits 32 bits becomes an Int and every other number, 7.0 too, a Double.
pp::Var ToVar(const ParsedJson& json);

/// Undefined becomes null, and so does a Double that is not finite when it is printed. The fields of a reply come first
/// in a fixed order, then all other names in byte order.
Json ToJson(const pp::Var& var);

/// A 32-bit integer, a bool or a text; empty for any other JSON value.
std::optional<vconf::Value> ToValue(const ParsedJson& json);
Json ToJson(const vconf::Value& value);

}  // namespace desk
