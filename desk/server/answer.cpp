#include "server/answer.h"

#include "base/http_status.h"

namespace desk {
Answer Fail(unsigned status, const std::string& text, std::string_view code) {
  Json json{{"error", text}};
  if (!code.empty()) {
    json["code"] = code;
  }
  return Say(json, status);
}

Answer Fail(const vconf::Status& status) {
  const HttpCode code = HttpCodeOf(status.code());
  return Fail(static_cast<unsigned>(code.status), status.text(), code.name);
}

}  // namespace desk
