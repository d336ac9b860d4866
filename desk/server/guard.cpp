#include "server/guard.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <regex>

namespace desk {
namespace {

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

bool IsPort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size();
}

bool IsLoopbackAddress(const std::string& name) {
  in_addr address{};
  return inet_pton(AF_INET, name.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24U) == 127;
}

}  // namespace

bool IsLoopbackHost(std::string_view host) {
  const std::size_t colon = host.find(':', host.starts_with('[') ? std::min(host.find(']'), host.size()) : 0);
  if (colon != std::string_view::npos && !IsPort(host.substr(colon + 1))) {
    return false;
  }
  const std::string name = Lower(host.substr(0, colon));
  return name == "localhost" || name == "[::1]" || name.ends_with(".localhost") || IsLoopbackAddress(name);
}

bool IsAllowedOrigin(std::string_view origin, const std::vector<std::string>& allowed) {
  if (std::ranges::find(allowed, origin) != allowed.end()) {
    return true;
  }
  const std::size_t scheme = origin.find("://");
  return scheme != std::string_view::npos && IsLoopbackHost(origin.substr(scheme + 3));
}

bool IsOriginName(const std::string& name) {
  static const std::regex form(
      R"(null|file://|([a-z][a-z0-9+.-]*)://([a-z0-9._-]+|\[[0-9a-f:.]+\])(:[1-9][0-9]{0,4})?)");
  std::smatch parts;
  return std::regex_match(name, parts, form) && !(parts[1] == "http" && parts[3] == ":80") &&
         !(parts[1] == "https" && parts[3] == ":443");
}

bool IsJsonType(std::string_view content_type) {
  std::string type = Lower(content_type.substr(0, content_type.find(';')));
  type.erase(type.find_last_not_of(" \t") + 1);
  return type == "application/json";
}

}  // namespace desk
