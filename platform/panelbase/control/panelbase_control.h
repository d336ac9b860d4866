#pragma once

/// The simulated set's picture size: an int in the store at this path. Without it the set has no video control. The
/// faults "CreateVideoControl" and "GetPictureSize" have no path.
namespace panelbase {

inline constexpr char kPictureSizePath[] = "set/panelbase/picture_size";

}  // namespace panelbase
