#pragma once

// The lines that `mirado host` and the desk exchange: JSON objects with one member. Values are passed on as JSON text,
// so that members keep their order and numbers their form, and the desk does not convert each message twice.

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace desk {

/// The input of a host.
enum class In {
  kSend,    ///< {"send": M}: a message whose reply the page waits for
  kPost,    ///< {"post": M}: a message whose reply the page does not wait for
  kSet,     ///< {"set": {"path": value}}: a change of the store, as if another program made it
  kSettle,  ///< {"settle": true}: wait until all requests and changes so far have been handled
  kRecord,  ///< {"record": true or false}: start or end a recording; requires --report
};

/// The output of a host. The last three are written only with --report.
enum class Out {
  kReply,    ///< {"reply": R}: the reply to a send; replies are in the order of the sends
  kMessage,  ///< {"message": X}: a message that the plug-in posts to the page
  kSettled,  ///< {"settled": true}
  kError,    ///< {"error": {"line": 7, "text": "…"}}: line 7 of the input is invalid or was refused
  kLog,      ///< {"log": {"priority": "I", "tag": "…", "logId": 0, "text": "…"}}
  kWatches,  ///< {"watches": ["path", …]}: the subscribed paths, whenever they have changed
  kRecord,   ///< {"record": LINE}: a line of the recording
};

/// In the order of the enumerators.
inline constexpr std::array<std::string_view, 5> kInNames = {"send", "post", "set", "settle", "record"};
inline constexpr std::array<std::string_view, 7> kOutNames = {"reply", "message", "settled", "error",
                                                              "log",   "watches", "record"};

/// The line {"NAME": VALUE}, without a newline; `value` is JSON text.
std::string FormatLine(In kind, std::string_view value);
std::string FormatLine(Out kind, std::string_view value);

/// A line of a host's output.
struct OutLine {
  Out kind;
  std::string_view value;  ///< JSON text, a part of the line
};

/// Parses a line of a host's output; empty if it has another form, such as one cut by a crash.
std::optional<OutLine> ReadOutLine(std::string_view line);

/// A member of an object, or an element of an array (then without a name), as JSON text. Escapes in the name are kept.
struct RawMember {
  std::string_view name;
  std::string_view value;
};

/// The members or elements of the outermost object or array of `json`, including duplicate names; none if it is
/// neither. `json` must be one valid JSON value.
std::vector<RawMember> RawMembers(std::string_view json);

}  // namespace desk
