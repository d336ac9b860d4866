#pragma once

#include <string>
#include <vector>

namespace desk {

/// "; did you mean …?" with the element of `known` that is most similar to `text`; empty if none is similar.
std::string Suggestion(const std::string& text, const std::vector<std::string>& known);

}  // namespace desk
