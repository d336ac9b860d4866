#pragma once

#include <string_view>

#include "vconf_control.h"

namespace desk {

/// The HTTP status for a code, and its name in the answer's field "code".
struct HttpCode {
  int status;
  std::string_view name;
};

constexpr HttpCode HttpCodeOf(vconf::Code code) {
  switch (code) {
    case vconf::Code::kOk:
      return {200, "ok"};
    case vconf::Code::kMissing:
      return {404, "missing"};
    case vconf::Code::kWrongType:
      return {409, "wrong-type"};
    case vconf::Code::kBadName:
      return {400, "bad-name"};
    case vconf::Code::kBadValue:
      return {400, "bad-value"};
    case vconf::Code::kFull:
      return {507, "full"};
    case vconf::Code::kReadOnly:
      return {403, "read-only"};
    case vconf::Code::kDamaged:
      return {500, "damaged"};
    case vconf::Code::kRemoved:
      return {500, "removed"};
    case vconf::Code::kBusy:
      return {503, "busy"};
    case vconf::Code::kNotPermitted:
      return {403, "not-permitted"};
    case vconf::Code::kFailed:
      break;
  }
  return {500, "failed"};
}

}  // namespace desk
