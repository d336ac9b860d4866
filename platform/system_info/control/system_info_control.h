#pragma once

/// Where the simulated set keeps its custom features: a bool in the store at this prefix and the feature's name. A name
/// without one has no answer. The fault "system_info_get_custom_bool" has the feature's name for its path.
namespace system_info {

inline constexpr char kFeaturePrefix[] = "set/system_info/";

}  // namespace system_info
