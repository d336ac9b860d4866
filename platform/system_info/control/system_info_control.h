#pragma once

/// The simulated set's custom features: each is a bool in the store at this prefix followed by the feature's name.
/// Without it, the query for the feature fails. A fault "system_info_get_custom_bool" has the feature's name as its
/// path.
namespace system_info {

inline constexpr char kFeaturePrefix[] = "set/system_info/";

}  // namespace system_info
