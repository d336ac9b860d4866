#include "server/origin.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <random>
#include <system_error>

#include "base/unique_fd.h"

namespace desk {
namespace {

constexpr std::size_t kTokenLength = 32;  // figures of 4 bits

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

// The host without its port, in small letters; empty when what is behind it is no port.
std::string NameOf(std::string_view host) {
  const std::size_t colon = host.find(':', host.starts_with('[') ? std::min(host.find(']'), host.size()) : 0);
  if (colon != std::string_view::npos && !IsPort(host.substr(colon + 1))) {
    return "";
  }
  return Lower(host.substr(0, colon));
}

bool IsLoopbackAddress(const std::string& name) {
  in_addr address{};
  return inet_pton(AF_INET, name.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24U) == 127;
}

std::string_view HostOf(std::string_view origin) {
  const std::size_t scheme = origin.find("://");
  return scheme == std::string_view::npos ? std::string_view() : origin.substr(scheme + 3);
}

[[noreturn]] void ThrowErrno(const std::string& file) { throw std::system_error(errno, std::generic_category(), file); }

std::string MakeToken() {
  constexpr std::string_view kFigures = "0123456789abcdef";
  std::random_device random;
  std::string token;
  for (std::size_t index = 0; index < kTokenLength; ++index) {
    token += kFigures[random() % kFigures.size()];
  }
  return token;
}

}  // namespace

bool IsLoopbackHost(std::string_view host) {
  const std::string name = NameOf(host);
  return name == "localhost" || name == "[::1]" || name.ends_with(".localhost") || IsLoopbackAddress(name);
}

bool IsAddress(std::string_view host) {
  const std::string name = NameOf(host);
  in_addr v4{};
  in6_addr v6{};
  return inet_pton(AF_INET, name.c_str(), &v4) == 1 ||
         (name.starts_with('[') && name.ends_with(']') &&
          inet_pton(AF_INET6, name.substr(1, name.size() - 2).c_str(), &v6) == 1);
}

bool IsJsonType(std::string_view content_type) {
  std::string type = Lower(content_type.substr(0, content_type.find(';')));
  type.erase(type.find_last_not_of(" \t") + 1);
  return type == "application/json";
}

std::optional<std::string> OriginCheck::Refuse(const Claim& claim) const {
  const bool knows = Knows(claim.token);
  if (!IsLoopbackHost(claim.host) && !(elsewhere_ && (knows || IsAddress(claim.host)))) {
    return elsewhere_ ? "the desk answers to addresses, or to any name with its token"
                      : "the desk answers to loopback names only";
  }
  if (!claim.is_api) {
    return std::nullopt;  // A script that did not load could not say why its page gets no plug-in.
  }
  if (!token_.empty() && !knows) {
    return "this desk wants its token; open the link that it printed, or load the script from there";
  }
  if (knows) {
    return std::nullopt;
  }
  if (!claim.origin.empty()) {
    return IsLoopbackHost(HostOf(claim.origin)) || IsOwn(claim)
               ? std::nullopt
               : std::optional(
                     "the origin " + std::string(claim.origin) +
                     " needs the desk's token; start the desk with --token and load the script that it names");
  }
  // An image or a script of a foreign page does not say whose it is.
  return claim.site == "cross-site" ? std::optional("another site's page must name its origin") : std::nullopt;
}

bool OriginCheck::IsOwn(const Claim& claim) {
  return claim.origin.empty() ? claim.site == "same-origin" : HostOf(claim.origin) == claim.host;
}

// Takes the same time wherever the difference is.
bool OriginCheck::Knows(std::string_view token) const {
  if (token_.empty() || token.size() != token_.size()) {
    return false;
  }
  unsigned difference = 0;
  for (std::size_t index = 0; index < token_.size(); ++index) {
    difference |= static_cast<unsigned char>(token[index] ^ token_[index]);
  }
  return difference == 0;
}

std::string KeptToken(const std::string& store) {
  const std::string file = store + "/token";
  constexpr mode_t kOwnerOnly = 0600;
  for (int tries = 0; tries < 2; ++tries) {
    if (const UniqueFd made(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly)); made) {
      std::string token = MakeToken();
      if (write(made.get(), token.data(), token.size()) != static_cast<ssize_t>(token.size())) {
        unlink(file.c_str());
        ThrowErrno(file);
      }
      return token;
    }
    const UniqueFd kept(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (errno != EEXIST && !kept) {
      ThrowErrno(file);
    }
    struct stat status {};
    std::array<char, kTokenLength> token{};
    if (kept && fstat(kept.get(), &status) == 0 && status.st_uid == geteuid() && (status.st_mode & 077U) == 0 &&
        read(kept.get(), token.data(), token.size()) == static_cast<ssize_t>(token.size())) {
      return {token.data(), token.size()};
    }
    // Others could read it, or it is none; what is made in its place nobody knows yet.
    unlink(file.c_str());
  }
  ThrowErrno(file);
}

}  // namespace desk
