#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "vconf_control.h"

/// The simulated set in the store: the content of a new one, and a JSON description of all but its settings.
///
/// The described parts are keys under `set/`, so a shell, the desk and a test can all control a running set. The
/// functions use the store that this process has open, and may be called on any thread.
namespace desk {

/// The keys that the host and the embedder read. Each prefix is followed by a name.
inline constexpr char kPrivilegePrefix[] = "set/embedder/privilege/";  ///< URI: bool
inline constexpr char kReplyPrefix[] = "set/embedder/reply/";          ///< operation: any value
inline constexpr char kLatencyPrefix[] = "set/latency/";               ///< command: int, milliseconds
inline constexpr char kEmbedderOffered[] = "set/embedder/offered";     ///< bool
inline constexpr char kEmbedderName[] = "set/embedder/name";           ///< text

/// The embedder's name if the set has none configured.
inline constexpr char kDefaultEmbedderName[] = "OstraWRT";

/// The maximum latency, in milliseconds.
inline constexpr int kMaxLatency = 60'000;

/// The content of a new set: all settings, both language lists, a picture size; it is a B2B product, and the
/// application has the privilege.
std::vector<vconf::Entry> DefaultEntries();

/// Opens the store in the folder `store`; if the folder does not exist or is empty, creates a store with a new set. An
/// empty name fails.
vconf::Status OpenSet(const std::string& store);

/// Resets the open store to `DefaultEntries` and clears all faults.
vconf::Status ResetSet();

/// The current set:
///
///   {"b2b": true,                                     null: the query fails
///    "privileges": {"http://…": true},
///    "pictureSize": 0,                                null: there is no video control
///    "lists": {"primary-audio-language": [{"value": 1, "label": "English"}]},
///    "embedder": {"offered": true, "name": "OstraWRT", "replies": {"get_window_id": 7}},
///    "latency": {"getMenuValue": 250}}                milliseconds
vconf::Result<Json> DescribeSet();

/// Changes what `change` names and leaves the rest; it has the form that `DescribeSet` gives, and null removes. Nothing
/// is changed if a part of it is invalid; a text that is too long, or a failing disk, is found later. The error names
/// the part, such as "latency/getVersion".
vconf::Status ChangeSet(const ParsedJson& change);

/// The known paths under `prefix`, without the prefix: those in the store and in a new set, the latency of each
/// command, the two keys that the plug-in itself creates, and the embedder's operations.
vconf::Result<std::vector<std::string>> KnownPaths(std::string_view prefix = "");

/// Whether `path` is under a prefix in which any name is valid, such as that of privileges.
bool IsFreelyNamed(std::string_view path);

}  // namespace desk
