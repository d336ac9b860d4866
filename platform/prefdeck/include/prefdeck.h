#pragma once

#include <string>
#include <utility>
#include <vector>

/// The item list service: which values a setting may have.
class Prefdeck {
 public:
  /// Sets `items` to the list `menu_id`, in the list's order: the first string of a pair is a value in decimal digits,
  /// the second its label. Returns false and does not change `items` if there is no such list.
  /// Any thread.
  static bool GetItemDataList(std::string menu_id, std::vector<std::pair<std::string, std::string>>& items);
};
