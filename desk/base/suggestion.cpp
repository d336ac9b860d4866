#include "base/suggestion.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string_view>
#include <utility>

namespace desk {
namespace {

/// The Levenshtein distance of the two texts.
std::size_t Distance(std::string_view text, std::string_view other) {
  // The distances of the processed part of `text` to each prefix of `other`.
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (const char letter : text) {
    std::size_t diagonal = row[0]++;
    for (std::size_t at = 0; at < other.size(); ++at) {
      const std::size_t replaced = diagonal + (other[at] == letter ? 0 : 1);
      diagonal = std::exchange(row[at + 1], std::min({replaced, row[at] + 1, row[at + 1] + 1}));
    }
  }
  return row.back();
}

}  // namespace

std::string Suggestion(const std::string& text, const std::vector<std::string>& known) {
  std::size_t limit = text.size() / 6 + 2;  // a word at this distance or more is not suggested
  std::string suggestion;
  for (const std::string& each : known) {
    if (const std::size_t distance = Distance(text, each); distance < limit) {
      limit = distance;
      suggestion = "; did you mean " + each + "?";
    }
  }
  return suggestion;
}

}  // namespace desk
