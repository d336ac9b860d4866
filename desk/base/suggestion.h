#pragma once

#include <string>
#include <vector>

namespace desk {

/// "; did you mean …?" with the one of `known` that `text` is a likely misspelling of, or nothing when none is near.
std::string Suggestion(const std::string& text, const std::vector<std::string>& known);

}  // namespace desk
