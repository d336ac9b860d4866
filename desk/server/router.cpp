#include "server/router.h"

#include <optional>
#include <utility>

#include <boost/beast/http/verb.hpp>

namespace desk {
namespace {

std::string_view TakePart(std::string_view& path) {
  path.remove_prefix(1);
  const std::string_view part = path.substr(0, path.find('/'));
  path.remove_prefix(part.size());
  return part;
}

// What the stars of `pattern` stand for in `path`, not decoded; nothing when it does not match.
std::optional<std::vector<std::string_view>> Match(std::string_view pattern, std::string_view path) {
  std::vector<std::string_view> parts;
  while (pattern.starts_with('/') && path.starts_with('/')) {
    const std::string_view wanted = TakePart(pattern);
    if (wanted == "**") {
      parts.push_back(path.substr(1));
      return parts.back().empty() ? std::nullopt : std::optional(parts);
    }
    const std::string_view part = TakePart(path);
    if (wanted == "*" && !part.empty()) {
      parts.push_back(part);
    } else if (wanted != part) {
      return std::nullopt;
    }
  }
  return pattern.empty() && path.empty() ? std::optional(parts) : std::nullopt;
}

}  // namespace

void Router::Add(http::verb method, std::string pattern, Handler handler) {
  entries_.push_back(
      {.method = method, .pattern = std::move(pattern), .with_body = false, .handler = std::move(handler)});
}

void Router::Get(std::string pattern, Plain handler) {
  Add(http::verb::get, std::move(pattern),
      [handler = std::move(handler)](HttpRequest& request, const ConnectionPtr& to) { to->Reply(handler(request)); });
}

void Router::AddWithBody(http::verb method, std::string pattern, Handler handler) {
  Add(method, std::move(pattern), std::move(handler));
  entries_.back().with_body = true;
}

void Router::Route(HttpRequest& request, const ConnectionPtr& connection) const {
  std::string allowed;
  for (const Entry& entry : entries_) {
    const auto parts = Match(entry.pattern, request.path);
    if (!parts) {
      continue;
    }
    if (entry.method != request.method) {
      const auto name = http::to_string(entry.method);
      allowed.append(allowed.empty() ? "" : ", ").append(name.data(), name.size());
      continue;
    }
    for (const std::string_view part : *parts) {
      auto decoded = Decode(part);
      if (!decoded) {
        return connection->Reply(Fail(400, request.path + ": a % is followed by two figures of 16"));
      }
      request.parts.push_back(std::move(*decoded));
    }
    if (entry.with_body && !IsJsonType(request.content_type)) {
      return connection->Reply(Fail(415, "the body must be application/json"));
    }
    return entry.handler(request, connection);
  }
  if (allowed.empty()) {
    return connection->Reply(Fail(404, "there is nothing at " + request.path));
  }
  Answer answer = Fail(405, request.path + " takes " + allowed);
  answer.allow = allowed;
  connection->Reply(std::move(answer));
}

std::optional<ParsedJson> ReadBody(const HttpRequest& request, const ConnectionPtr& connection) {
  auto body = ParseJson(request.body);
  if (!body.ok()) {
    connection->Reply(Fail(body.status()));
    return std::nullopt;
  }
  return *std::move(body);
}

}  // namespace desk
