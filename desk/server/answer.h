#pragma once

// The answer to a request.

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

/// The HTTP status for a failure, and its name in the answer's field "code".
struct HttpFailure {
  unsigned status;
  std::string_view name;
};

constexpr HttpFailure HttpFailureOf(vconf::Code code) {
  // In the order of the enumerators.
  constexpr std::array<HttpFailure, 12> kFailures = {{{200, "ok"},
                                                      {404, "missing"},
                                                      {409, "wrong-type"},
                                                      {400, "bad-name"},
                                                      {400, "bad-value"},
                                                      {507, "full"},
                                                      {403, "read-only"},
                                                      {500, "damaged"},
                                                      {500, "removed"},
                                                      {503, "busy"},
                                                      {403, "not-permitted"},
                                                      {500, "failed"}}};
  static_assert(kFailures.size() == static_cast<std::size_t>(vconf::Code::kFailed) + 1, "one row for each code");
  return kFailures[static_cast<std::size_t>(code)];
}

/// {"error": text, "code": name}; `status` must be a failure.
inline Answer Fail(const vconf::Status& status) {
  const auto [http_status, name] = HttpFailureOf(status.code());
  return JsonAnswer({{"error", status.text()}, {"code", name}}, http_status);
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
