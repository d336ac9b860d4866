#pragma once

/// Where the simulated set keeps its picture size: an int in the store at this path. Without it the set has no video
/// control. The faults "CreateVideoControl" and "GetPictureSize" know no path but "*".
namespace panelbase {

inline constexpr char kPictureSizePath[] = "set/panelbase/picture_size";

}  // namespace panelbase
