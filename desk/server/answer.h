#pragma once

// The answer to a request.

#include <string>
#include <string_view>

#include "base/json.h"
#include "result.h"

namespace desk {

struct Answer {
  unsigned status = 200;
  std::string body = "{}";
  std::string_view type = "application/json";  ///< a literal
  std::string allow = {};                      ///< the methods that are supported, for a 405
  std::string policy = {};                     ///< the Content-Security-Policy, for a page
  bool anywhere = false;                       ///< pages of other origins may load it, such as a script
};

inline Answer JsonAnswer(const Json& json, unsigned status = 200) { return {.status = status, .body = ToText(json)}; }

/// {"error": text, "code": name}, with the HTTP status for `status`, which must be a failure.
Answer Fail(const vconf::Status& status);

/// {"error": text}: a failure that has no code.
Answer Fail(unsigned http_status, const std::string& text);

/// The answer if a limit of the desk is reached.
inline Answer Busy(std::string text) { return Fail({vconf::Code::kBusy, std::move(text)}); }

}  // namespace desk
