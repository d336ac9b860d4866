// Routes of the settings and of the store's keys.

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "server/desk.h"
#include "set/catalog.h"

namespace desk {
namespace {

Answer DescribeSettings(const Desk& desk) {
  Json settings = Json::array();
  for (const Setting& setting : Settings()) {
    const std::string path(setting.path);
    const vconf::Result<vconf::Value> value = vconf::Get(path);
    if (!value.ok() && value.status().code() != vconf::Code::kMissing) {
      return Fail(value.status());
    }
    Json watchers = Json::array();
    for (const auto& [number, page] : desk.pages().all()) {
      if (page->Watches(setting.path)) {
        watchers.push_back(number);
      }
    }
    settings.push_back({{"table", setting.table->name},
                        {"key", setting.key},
                        {"name", setting.enumerator},
                        {"path", setting.path},
                        {"type", std::holds_alternative<bool>(setting.initial) ? "bool" : "int"},
                        {"value", value.ok() ? ToJson(*value) : Json()},
                        {"initial", ToJson(setting.initial)},
                        {"group", setting.group},
                        {"label", setting.label},
                        {"command", setting.table->read},
                        {"values", *setting.values},
                        {"watchers", std::move(watchers)}});
  }
  return JsonAnswer({{"settings", std::move(settings)}});
}

Answer List(const HttpRequest& request) {
  const auto entries = vconf::List(std::string(request.Query("prefix")));
  if (!entries.ok()) {
    return Fail(entries.status());
  }
  Json keys = Json::array();
  for (const vconf::Entry& entry : *entries) {
    if (IsKeyOfPrograms(entry.path)) {
      keys.push_back({{"path", entry.path}, {"value", ToJson(entry.value)}});
    }
  }
  return JsonAnswer({{"keys", std::move(keys)}});
}

Answer Read(const HttpRequest& request) {
  const std::string& path = request.parts[0];
  if (!IsKeyOfPrograms(path)) {
    return Fail({vconf::Code::kMissing, "there is no key " + path});
  }
  const auto value = vconf::Get(path);
  return value.ok() ? JsonAnswer({{"path", path}, {"value", ToJson(*value)}}) : Fail(value.status());
}

vconf::Status CheckPath(const std::string& path) {
  return IsKeyOfPrograms(path) ? vconf::Status()
                               : vconf::Status(vconf::Code::kBadName, path + ": a path begins with db/ or memory/");
}

Answer Write(const HttpRequest& request) {
  const std::string& path = request.parts[0];
  const ParsedJson& body = request.json;
  const auto value = body.is_object() && body.contains("value") ? ToValue(body["value"]) : std::nullopt;
  vconf::Status status = CheckPath(path);
  if (status.ok()) {
    status = value ? vconf::Set(path, *value) : BadValue("\"value\" must be a 32-bit integer, true, false or a text");
  }
  return status.ok() ? JsonAnswer({{"path", path}, {"value", ToJson(*value)}}) : Fail(status);
}

Answer Remove(const HttpRequest& request) {
  const std::string& path = request.parts[0];
  const vconf::Status status = CheckPath(path);
  return AnswerOf(status.ok() ? vconf::Remove(path) : status);
}

}  // namespace

void AddStoreRoutes(Router& router, Desk& desk) {
  using http::verb;
  router.Get("/api/catalog", [](const HttpRequest&) { return Answer{.body = std::string(CatalogText())}; });
  router.Get("/api/settings", [&desk](const HttpRequest&) { return DescribeSettings(desk); });
  router.Get("/api/store", List);
  router.Get("/api/store/**", Read);
  router.Add(verb::put, "/api/store/**", Body::kJson, desk.OnStore(Write));
  router.Add(verb::delete_, "/api/store/**", Body::kNone, desk.OnStore(Remove));
}

}  // namespace desk
