#pragma once

/// The simulated set's item lists: each is a string in the store at this prefix followed by the list's name. Each line
/// is an item: its value, a blank, its label ("12 English (UK)"). An empty string is a list without items. A fault
/// "GetItemDataList" has the list's name as its path; with any answer it makes the call fail.
namespace prefdeck {

inline constexpr char kListPrefix[] = "set/prefdeck/";

}  // namespace prefdeck
