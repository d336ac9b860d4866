#include "server/origin.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <functional>
#include <numeric>
#include <random>
#include <system_error>
#include <utility>

#include <boost/asio/ip/address.hpp>

#include "base/files.h"
#include "base/unique_fd.h"

namespace desk {
namespace {

constexpr std::size_t kTokenLength = 32;  // hexadecimal digits

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

// The host without its port, in lower case; empty if the port is not a number.
std::string NameOf(std::string_view host) {
  const std::size_t colon = host.find(':', host.starts_with('[') ? std::min(host.find(']'), host.size()) : 0);
  if (colon != std::string_view::npos && !IsPort(host.substr(colon + 1))) {
    return "";
  }
  return Lower(host.substr(0, colon));
}

// A numeric address, in brackets if it is of IPv6.
std::optional<boost::asio::ip::address> AddressOf(const std::string& name) {
  const bool in_brackets = name.starts_with('[') && name.ends_with(']');
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(in_brackets ? name.substr(1, name.size() - 2) : name, error);
  return !error && address.is_v6() == in_brackets ? std::optional(address) : std::nullopt;
}

std::string_view HostOf(std::string_view origin) {
  const std::size_t scheme = origin.find("://");
  return scheme == std::string_view::npos ? std::string_view() : origin.substr(scheme + 3);
}

}  // namespace

std::string MakeToken() {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::random_device random;
  std::string token;
  for (std::size_t index = 0; index < kTokenLength; ++index) {
    token += kDigits[random() % kDigits.size()];
  }
  return token;
}

bool IsLoopbackHost(std::string_view host) {
  const std::string name = NameOf(host);
  const auto address = AddressOf(name);
  return name == "localhost" || name.ends_with(".localhost") || (address && address->is_loopback());
}

bool IsAddress(std::string_view host) { return AddressOf(NameOf(host)).has_value(); }

bool IsJsonType(std::string_view content_type) {
  std::string type = Lower(content_type.substr(0, content_type.find(';')));
  type.erase(type.find_last_not_of(" \t") + 1);
  return type == "application/json";
}

std::optional<std::string> OriginCheck::Refuse(const Claim& claim) const {
  const bool knows = Knows(claim.token);
  if (!IsLoopbackHost(claim.host) && !(elsewhere_ && (knows || IsAddress(claim.host)))) {
    return elsewhere_ ? "the Host must be a numeric address, or the request must have the desk's token"
                      : "the Host must be a loopback name or address";
  }
  if (!claim.is_api) {
    return std::nullopt;  // A script that does not load could not report why.
  }
  if (!token_.empty() && !knows) {
    return "the request has no token or a wrong one; use the link that the desk printed";
  }
  if (knows) {
    return std::nullopt;
  }
  if (!claim.origin.empty()) {
    return IsLoopbackHost(HostOf(claim.origin)) || IsDeskPage(claim)
               ? std::nullopt
               : std::optional("the origin " + std::string(claim.origin) +
                               " needs the desk's token: start the desk with --token and load desk.js from the link "
                               "that it prints");
  }
  // Requests for images and scripts of other sites' pages have no Origin.
  return claim.site == "cross-site" ? std::optional("a cross-site request must have an Origin") : std::nullopt;
}

bool OriginCheck::IsDeskPage(const Claim& claim) {
  return claim.origin.empty() ? claim.site == "same-origin" : HostOf(claim.origin) == claim.host;
}

// Its time does not depend on where the difference is.
bool OriginCheck::Knows(std::string_view token) const {
  return !token_.empty() && token.size() == token_.size() &&
         std::transform_reduce(token.begin(), token.end(), token_.begin(), 0, std::bit_or(), std::bit_xor()) == 0;
}

vconf::Result<std::string> KeptToken(const std::string& store) {
  // Locked, so that of two desks that start at the same moment one creates the token and the other reads it.
  const UniqueFd folder(open(store.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder || flock(folder.get(), LOCK_EX) != 0) {
    return FileStatus(errno, store);
  }
  const std::string file = store + "/token";
  const UniqueFd kept(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  std::array<char, kTokenLength> token{};
  if (kept && fstat(kept.get(), &status) == 0 && status.st_uid == geteuid() && (status.st_mode & 077U) == 0 &&
      read(kept.get(), token.data(), token.size()) == static_cast<ssize_t>(token.size())) {
    return std::string(token.data(), token.size());
  }
  // It is missing, others could read it, or it is not a token.
  std::string made = MakeToken();
  const vconf::Status replaced = ReplaceFile(file, made);
  return replaced.ok() ? vconf::Result<std::string>(std::move(made)) : replaced;
}

}  // namespace desk
