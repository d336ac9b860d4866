#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Who may talk to the desk. A browser lets any page on the web send requests to this machine; what tells them apart is
/// where they believe to be (`Host`) and where they come from (`Origin`).
namespace desk {

/// A loopback name or address, with or without a port: `localhost`, a name below it, `127.0.0.0/8` or `[::1]`.
bool IsLoopbackHost(std::string_view host);

/// A loopback origin of any scheme and port, or literally one of `allowed`.
bool IsAllowedOrigin(std::string_view origin, const std::vector<std::string>& allowed);

/// Whether a browser may call an origin by this name, letter for letter: scheme, host and port, the port only where it
/// is not the scheme's own; or `null`, or `file://`.
bool IsOriginName(const std::string& name);

/// `application/json`, whatever parameters follow.
bool IsJsonType(std::string_view content_type);

}  // namespace desk
