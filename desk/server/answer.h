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

/// {"error": text, "code": name}, with the HTTP status and the name that `status` stands for. It is not ok.
Answer Fail(const vconf::Status& status);

/// {"error": text}: a failure of the request itself, which has no code.
Answer Fail(unsigned http_status, const std::string& text);

/// A limit of the desk is reached.
inline Answer Busy(std::string text) { return Fail({vconf::Code::kBusy, std::move(text)}); }

}  // namespace desk
