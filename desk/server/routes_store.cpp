// Settings and keys over HTTP.

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "server/desk.h"
#include "set/catalog.h"

namespace desk {
namespace {

bool IsShared(std::string_view path) { return path.starts_with("db/") || path.starts_with("memory/"); }

Answer BadPath(const std::string& path) {
  return Fail({vconf::Code::kBadName, path + ": a path begins with db/ or memory/"});
}

Answer DescribeSettings(const Desk& desk) {
  Json settings = Json::array();
  for (const Setting& setting : Settings()) {
    const std::string path(setting.path);
    const vconf::Result<vconf::Value> value = vconf::Get(path);
    if (!value.ok() && value.status().code() != vconf::Code::kMissing) {
      return Fail(value.status());
    }
    Json watchers = Json::array();
    for (const auto& [number, page] : desk.pages.all()) {
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
  return Say({{"settings", std::move(settings)}});
}

Answer List(const HttpRequest& request) {
  const auto entries = vconf::List(std::string(request.Query("prefix")));
  if (!entries.ok()) {
    return Fail(entries.status());
  }
  Json keys = Json::array();
  for (const vconf::Entry& entry : *entries) {
    if (IsShared(entry.path)) {
      keys.push_back({{"path", entry.path}, {"value", ToJson(entry.value)}});
    }
  }
  return Say({{"keys", std::move(keys)}});
}

Answer Write(const std::string& path, const vconf::Value& value) {
  const vconf::Status status = vconf::Set(path, value);
  return status.ok() ? Say({{"path", path}, {"value", ToJson(value)}}) : Fail(status);
}

}  // namespace

void AddStoreRoutes(Router& router, Desk& desk) {
  constexpr char kKey[] = "/api/store/**";
  router.Get("/api/catalog", [](const HttpRequest&) { return Answer{.body = std::string(CatalogText())}; });
  router.Get("/api/settings", [&desk](const HttpRequest&) { return DescribeSettings(desk); });
  router.Get("/api/store", List);
  router.Get(kKey, [](const HttpRequest& request) {
    const std::string& path = request.parts[0];
    if (!IsShared(path)) {
      return Fail({vconf::Code::kMissing, "there is no key " + path});
    }
    const auto value = vconf::Get(path);
    return value.ok() ? Say({{"path", path}, {"value", ToJson(*value)}}) : Fail(value.status());
  });
  router.AddWithBody(http::verb::put, kKey, [&desk](HttpRequest& request, const ConnectionPtr& connection) {
    const auto body = ReadBody(request, connection);
    if (!body) {
      return;
    }
    const std::string path = request.parts[0];
    if (!IsShared(path)) {
      return connection->Reply(BadPath(path));
    }
    const std::optional<vconf::Value> value =
        body->is_object() && body->contains("value") ? ToValue(body->at("value")) : std::nullopt;
    if (!value) {
      return connection->Reply(
          Fail({vconf::Code::kBadValue, "\"value\" must be a 32-bit integer, true, false or a text"}));
    }
    desk.OnStore(connection, true, [path, value] { return Write(path, *value); });
  });
  router.Add(http::verb::delete_, kKey, [&desk](HttpRequest& request, const ConnectionPtr& connection) {
    const std::string path = request.parts[0];
    if (!IsShared(path)) {
      return connection->Reply(BadPath(path));
    }
    desk.OnStore(connection, true, [path] {
      const vconf::Status status = vconf::Remove(path);
      return status.ok() ? Answer{} : Fail(status);
    });
  });
}

}  // namespace desk
