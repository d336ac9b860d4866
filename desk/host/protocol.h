#pragma once

// The lines that a page's host and the desk exchange, one JSON object with one member each. Both sides read and write
// them with what stands here. Values are passed as raw JSON text, so that what the one side has written the other need
// not take apart.

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace desk {

/// What goes into a host.
enum class In {
  kSend,    ///< {"send": M}: a message on whose reply the page waits
  kPost,    ///< {"post": M}: a message that the page does not wait on
  kSet,     ///< {"set": {"path": value}}: somebody else changes the set's store
  kSettle,  ///< {"settle": true}: wait until everything so far has been handled
  kRecord,  ///< {"record": true or false}: begin or end a recording; to a host with --report
};

/// What comes out of a host. The last three come with --report alone.
enum class Out {
  kReply,    ///< {"reply": R}, one for each send, in their order
  kMessage,  ///< {"message": X}: what the plug-in posts to the page
  kSettled,  ///< {"settled": true}
  kError,    ///< {"error": {"line": 7, "text": "…"}}: the seventh line was not understood and changed nothing
  kLog,      ///< {"log": {"priority": "I", "tag": "…", "logId": 0, "text": "…"}}
  kWatches,  ///< {"watches": ["path", …]}: what the plug-in is subscribed to, whenever that has changed
  kRecord,   ///< {"record": LINE}: a line of the recording
};

inline constexpr std::array<std::string_view, 5> kInNames = {"send", "post", "set", "settle", "record"};
inline constexpr std::array<std::string_view, 7> kOutNames = {"reply", "message", "settled", "error",
                                                              "log",   "watches", "record"};

/// {"NAME": VALUE}; `value` is JSON text.
std::string FormatLine(In kind, std::string_view value);
std::string FormatLine(Out kind, std::string_view value);

struct OutLine {
  Out kind;
  std::string_view value;  ///< JSON text, a part of the line
};

/// Nothing for what is no such line, such as something that the plug-in has printed.
std::optional<OutLine> ReadOutLine(std::string_view line);

/// A member of an object, or an element of an array (then without a name), as it stands in the text. A name with an
/// escape in it keeps it.
struct RawMember {
  std::string_view name;
  std::string_view value;
};

/// The members or elements of the outermost object or array of `json`, equal names counted; none when it is neither.
/// `json` must be one JSON value, as `IsJson` tells.
std::vector<RawMember> RawMembers(std::string_view json);

/// Whether `text` is one JSON value in valid UTF-8 that nests no deeper than the desk allows.
bool IsJson(std::string_view text);

}  // namespace desk
