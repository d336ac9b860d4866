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

// The parts of `path` that match the stars of `pattern`, not decoded; empty if the path does not match.
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

void Router::Add(http::verb method, std::string pattern, Body body, Handler handler) {
  entries_.push_back({.method = method, .pattern = std::move(pattern), .body = body, .handler = std::move(handler)});
}

void Router::Get(std::string pattern, std::function<Answer(const HttpRequest&)> answer) {
  Add(http::verb::get, std::move(pattern), Body::kNone,
      [answer = std::move(answer)](HttpRequest& request, const ConnectionPtr& to) { to->Reply(answer(request)); });
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
        return connection->Reply(Fail(400, request.path + ": a % must be followed by two hexadecimal digits"));
      }
      request.parts.push_back(std::move(*decoded));
    }
    if (entry.body == Body::kJson) {
      if (!IsJsonType(request.content_type)) {
        return connection->Reply(Fail(415, "the body must be application/json"));
      }
      auto json = ParseJson(request.body);
      if (!json.ok()) {
        return connection->Reply(Fail(json.status()));
      }
      request.json = *std::move(json);
    }
    return entry.handler(request, connection);
  }
  if (allowed.empty()) {
    return connection->Reply(Fail(404, "there is nothing at " + request.path));
  }
  Answer answer = Fail(405, request.path + " takes " + allowed);
  answer.fields = {{"Allow", allowed}};
  connection->Reply(std::move(answer));
}

}  // namespace desk
