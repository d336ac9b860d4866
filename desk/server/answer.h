#pragma once

// The answer to a request.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/http_status.h"
#include "base/json.h"
#include "result.h"

namespace desk {

using HeaderField = std::pair<std::string_view, std::string>;

struct Answer {
  unsigned status = 200;
  std::string body = "{}";
  std::string_view type = "application/json";  ///< a literal
  std::vector<HeaderField> fields = {};        ///< in addition to those of every answer
};

inline Answer JsonAnswer(const Json& json, unsigned status = 200) { return {.status = status, .body = ToText(json)}; }

/// {"error": text, "code": name}, with the HTTP status for `status`, which must be a failure.
inline Answer Fail(const vconf::Status& status) {
  const HttpCode code = HttpCodeOf(status.code());
  return JsonAnswer({{"error", status.text()}, {"code", code.name}}, static_cast<unsigned>(code.status));
}

/// {"error": text}: a failure that has no code.
inline Answer Fail(unsigned http_status, const std::string& text) { return JsonAnswer({{"error", text}}, http_status); }

/// {} or the failure.
inline Answer AnswerOf(const vconf::Status& status) { return status.ok() ? Answer{} : Fail(status); }

/// What `result` holds, or the failure.
inline Answer AnswerOf(const vconf::Result<Json>& result) {
  return result.ok() ? JsonAnswer(*result) : Fail(result.status());
}

/// The answer if a limit of the desk is reached.
inline Answer Busy(std::string text) { return Fail({vconf::Code::kBusy, std::move(text)}); }

}  // namespace desk
