#pragma once

// Access control. A browser lets any page on the web send requests to this machine, so the desk checks the name that a
// request was sent to (`Host`), the page that sent it (`Origin`), and the token.

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "result.h"

namespace desk {

/// A loopback name or address, with or without a port: `localhost`, a name below it, `127.0.0.0/8` or `[::1]`.
bool IsLoopbackHost(std::string_view host);

/// A numeric address, with or without a port. Unlike a name, it cannot be made to lead here by somebody else's DNS.
bool IsAddress(std::string_view host);

/// `application/json`, with any parameters.
bool IsJsonType(std::string_view content_type);

/// What a request states about its sender. A missing field is empty.
struct Claim {
  std::string_view host;
  std::string_view origin;
  std::string_view site;  ///< `Sec-Fetch-Site`
  std::string_view token;
  bool is_api = false;  ///< below `/api/`; all else is public
};

/// Decides which requests are allowed.
class OriginCheck {
 public:
  /// With a token, every request below `/api/` needs it. `elsewhere`: the desk also listens outside loopback.
  OriginCheck(std::string token, bool elsewhere) : token_(std::move(token)), elsewhere_(elsewhere) {}

  /// Why `claim` is refused; empty if it is allowed.
  std::optional<std::string> Refuse(const Claim& claim) const;

  /// Whether the desk's own page sent the request.
  static bool IsDeskPage(const Claim& claim);

  const std::string& token() const { return token_; }

 private:
  bool Knows(std::string_view token) const;

  std::string token_;
  bool elsewhere_;
};

/// 32 random hexadecimal digits, which others cannot guess.
std::string MakeToken();

/// Reads the token from the folder `store`, or creates it: a file that only its owner may read.
vconf::Result<std::string> KeptToken(const std::string& store);

}  // namespace desk
