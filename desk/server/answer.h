#pragma once

// What a request is answered with, and which HTTP status stands for which failure.

#include <string>
#include <string_view>

#include "base/json.h"
#include "result.h"

namespace desk {

struct Answer {
  unsigned status = 200;
  std::string body = "{}";
  std::string_view type = "application/json";  ///< lives for ever
  std::string allow = {};                      ///< the methods that a 405 names
  std::string policy = {};                     ///< what a page may load
  bool anywhere = false;                       ///< pages of any origin may load it, such as a script
};

inline Answer Say(const Json& json, unsigned status = 200) { return {.status = status, .body = ToText(json)}; }

/// {"error": text} and, where there is one, {"code": code}.
Answer Fail(unsigned status, const std::string& text, std::string_view code = {});

/// The status that the code stands for. `status` is not ok.
Answer Fail(const vconf::Status& status);

}  // namespace desk
