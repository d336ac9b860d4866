#pragma once

#include <string>
#include <utility>
#include <vector>

/// The settings item service: which values a setting may take.
class Prefdeck {
 public:
  /// Fills `items` with the list `menu_id`, in the list's order: the first string of a pair is the decimal text of a
  /// value, the second its label. Returns true, or false when there is no such list (`items` is then untouched).
  /// Any thread.
  static bool GetItemDataList(std::string menu_id, std::vector<std::pair<std::string, std::string>>& items);
};
