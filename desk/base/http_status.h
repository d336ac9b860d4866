#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "vconf_control.h"

namespace desk {

/// The HTTP status for a code, and its name in the answer's field "code".
struct HttpCode {
  int status;
  std::string_view name;
};

constexpr HttpCode HttpCodeOf(vconf::Code code) {
  // In the order of the enumerators.
  constexpr std::array<HttpCode, 12> kCodes = {{{200, "ok"},
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
  static_assert(kCodes.size() == static_cast<std::size_t>(vconf::Code::kFailed) + 1, "one row for each code");
  return kCodes[static_cast<std::size_t>(code)];
}

}  // namespace desk
