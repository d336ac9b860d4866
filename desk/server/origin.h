#pragma once

// Who may talk to the desk. A browser lets any page on the web send requests to this machine; what tells them apart is
// where they believe to be (`Host`), where they come from (`Origin`), and the token.

#include <optional>
#include <string>
#include <string_view>

namespace desk {

/// A loopback name or address, with or without a port: `localhost`, a name below it, `127.0.0.0/8` or `[::1]`.
bool IsLoopbackHost(std::string_view host);

/// An address in figures, with or without a port. No name leads to it, so nobody else's name can.
bool IsAddress(std::string_view host);

/// `application/json`, whatever parameters follow.
bool IsJsonType(std::string_view content_type);

/// What a request says of itself. A missing field is empty.
struct Claim {
  std::string_view host;
  std::string_view origin;
  std::string_view site;  ///< `Sec-Fetch-Site`
  std::string_view token;
  bool is_api = false;  ///< below `/api/`, where everything is that is worth keeping
};

/// Decides who gets in.
class OriginCheck {
 public:
  /// With a token everybody below `/api/` must know it. `elsewhere`: the desk listens on more than loopback.
  OriginCheck(std::string token, bool elsewhere) : token_(std::move(token)), elsewhere_(elsewhere) {}

  /// Why `claim` is refused, or nothing.
  std::optional<std::string> Refuse(const Claim& claim) const;

  /// Whether a page of the desk itself asks.
  static bool IsOwn(const Claim& claim);

  const std::string& token() const { return token_; }

 private:
  bool Knows(std::string_view token) const;

  std::string token_;
  bool elsewhere_;
};

/// The token that is kept in the folder `store`, made when there is none yet; a file that its owner alone may read.
/// Throws `std::system_error`, whose text names the file.
std::string KeptToken(const std::string& store);

}  // namespace desk
