#pragma once

/// Where the simulated set keeps its item lists: a string in the store at this prefix and the list's name, one item a
/// line, its value and its label parted by the first blank ("12 English (UK)"). An empty string is a list without
/// items. Any fault "GetItemDataList", whose path is the list's name, makes the call fail.
namespace prefdeck {

inline constexpr char kListPrefix[] = "set/prefdeck/";

}  // namespace prefdeck
