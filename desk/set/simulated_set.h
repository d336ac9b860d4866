#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "vconf_control.h"

/// What the desk knows of a set beside its settings: what a new one holds, and how it is shown and changed.
///
/// Everything lies in the store under `set/`, so that a shell, the desk and a test steer a running set alike. Every
/// function works on the store that this process has open and may be called on any thread.
namespace desk {

/// Where the host and the embedder look. Each of the prefixes is followed by a name.
inline constexpr char kPrivilegePrefix[] = "set/embedder/privilege/";  ///< URI: bool
inline constexpr char kReplyPrefix[] = "set/embedder/reply/";          ///< operation: any value
inline constexpr char kLatencyPrefix[] = "set/latency/";               ///< command: int, milliseconds
inline constexpr char kEmbedderOffered[] = "set/embedder/offered";     ///< bool
inline constexpr char kEmbedderName[] = "set/embedder/name";           ///< text

/// The embedder's name when the set says nothing of it.
inline constexpr char kUsualEmbedder[] = "OstraWRT";

/// The longest that a latency may hold a message back, in milliseconds.
inline constexpr int kMaxLatency = 60'000;

/// What a new set holds: all settings, both language lists, a picture size; a B2B product whose application holds the
/// privilege.
std::vector<vconf::Entry> DefaultEntries();

/// Opens the store in the folder `store`, which is filled with a new set when it does not exist or is empty. An empty
/// name is refused with a hint how to give one.
vconf::Status OpenSet(const std::string& store);

/// Puts the open store back to `DefaultEntries` and clears all faults.
vconf::Status ResetSet();

/// The set as it is now:
///
///   {"b2b": true,                                     null: the set has no answer
///    "privileges": {"http://…": true},
///    "pictureSize": 0,                                null: no video control is to be had
///    "lists": {"primary-audio-language": [{"value": 1, "label": "English"}]},
///    "embedder": {"offered": true, "name": "OstraWRT", "replies": {"get_window_id": 7}},
///    "latency": {"getMenuValue": 250}}                milliseconds
vconf::Result<Json> DescribeSet();

/// Changes what `change` names and leaves the rest; it has the form that `DescribeSet` gives, and null takes away.
/// Nothing is changed when a part of it is not understood. The error names that part, such as "latency/getVersion".
vconf::Status ChangeSet(const ParsedJson& change);

/// What the store and a new set hold under `prefix`, by what stands behind it: what a path may be meant for. So are the
/// two keys that the plug-in itself makes, and the embedder's operations, though a new set holds none of these.
vconf::Result<std::vector<std::string>> KnownPaths(std::string_view prefix = "");

/// Whether `path` lies where the set takes any name, such as a privilege.
bool IsOpenPath(std::string_view path);

}  // namespace desk
