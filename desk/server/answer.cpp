#include "server/answer.h"

#include "base/http_status.h"

namespace desk {

Answer Fail(const vconf::Status& status) {
  const HttpCode code = HttpCodeOf(status.code());
  return JsonAnswer({{"error", status.text()}, {"code", code.name}}, static_cast<unsigned>(code.status));
}

Answer Fail(unsigned http_status, const std::string& text) { return JsonAnswer({{"error", text}}, http_status); }

}  // namespace desk
