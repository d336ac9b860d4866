// The simulated set over HTTP: its state, its faults, scenarios, and the desk itself.

#include <string>
#include <utility>

#include "server/desk.h"
#include "set/faults.h"
#include "set/scenario.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

Answer AnswerWithSet() {
  const auto set = DescribeSet();
  return set.ok() ? Say(*set) : Fail(set.status());
}

Answer AnswerWithFaults() {
  const auto set_faults = vconf::ListFaults();
  if (!set_faults.ok()) {
    return Fail(set_faults.status());
  }
  Json calls = Json::array();
  for (const FaultCall& call : FaultCalls()) {
    calls.push_back({{"name", call.name}, {"failures", call.failures}, {"path", call.path}});
  }
  Json faults = Json::array();
  for (const vconf::Fault& fault : *set_faults) {
    faults.push_back(ToJson(fault));
  }
  return Say({{"calls", std::move(calls)}, {"faults", std::move(faults)}});
}

vconf::Status Clear(const HttpRequest& request) {
  if (!request.query.contains("call")) {
    return vconf::ClearFaults();
  }
  const std::string call(request.Query("call"));
  if (const auto found = FindFaultCall(call); !found.ok()) {
    return found.status();
  }
  return vconf::ClearFault(call, request.query.contains("path") ? std::string(request.Query("path")) : kEveryPath);
}

Answer AnswerWithScenarios(const std::string& store) {
  const auto files = ListScenarios(store);
  if (!files.ok()) {
    return Fail(files.status());
  }
  Json scenarios = Json::array();
  for (const ScenarioFile& file : *files) {
    scenarios.push_back({{"name", file.name}, {"saved", file.saved}});
  }
  return Say({{"scenarios", std::move(scenarios)}});
}

Answer AnswerWith(const vconf::Status& status) { return status.ok() ? Answer{} : Fail(status); }

// Saves what the body holds, or the present state.
Answer SaveAs(const std::string& store, const std::string& name, const ParsedJson& body) {
  if (!body.is_object() || body.size() != body.count("scenario")) {
    return Fail(BadValue(R"(the body is {} or {"scenario": S})"));
  }
  if (body.contains("scenario")) {
    return AnswerWith(SaveScenario(store, name, body["scenario"]));
  }
  const auto present = DescribeScenario();
  return AnswerWith(present.ok() ? SaveScenario(store, name, ParsedJson(*present)) : present.status());
}

void AddScenarioRoutes(Router& router, Desk& desk) {
  const std::string& store = desk.options.host.store;
  router.Add(http::verb::get, "/api/scenarios", [&](HttpRequest&, const ConnectionPtr& connection) {
    desk.OnStore(connection, false, [&store] { return AnswerWithScenarios(store); });
  });
  constexpr char kOne[] = "/api/scenarios/*";
  router.Add(http::verb::get, kOne, [&](HttpRequest& request, const ConnectionPtr& connection) {
    desk.OnStore(connection, false, [&store, name = request.parts[0]] {
      const auto scenario = ReadScenario(store, name);
      return scenario.ok() ? Answer{.body = scenario->dump()} : Fail(scenario.status());
    });
  });
  router.AddWithBody(http::verb::put, kOne, [&](HttpRequest& request, const ConnectionPtr& connection) {
    if (auto body = ReadBody(request, connection)) {
      desk.OnStore(connection, false,
                   [&store, name = request.parts[0], body = *std::move(body)] { return SaveAs(store, name, body); });
    }
  });
  router.Add(http::verb::delete_, kOne, [&](HttpRequest& request, const ConnectionPtr& connection) {
    desk.OnStore(connection, false,
                 [&store, name = request.parts[0]] { return AnswerWith(RemoveScenario(store, name)); });
  });
  router.Add(http::verb::post, "/api/scenarios/*/load", [&](HttpRequest& request, const ConnectionPtr& connection) {
    desk.OnStore(connection, true, [&desk, &store, name = request.parts[0]] {
      const auto scenario = ReadScenario(store, name);
      const vconf::Status status = scenario.ok() ? LoadScenario(*scenario) : scenario.status();
      boost::asio::post(desk.loop, [&desk] { desk.TellSet(); });  // faults are no keys
      return AnswerWith(status);
    });
  });
}

}  // namespace

void AddSetRoutes(Router& router, Desk& desk) {
  router.Get("/api/desk", [&desk](const HttpRequest&) { return Say(desk.Describe()); });
  router.Add(http::verb::get, "/api/set", [&desk](HttpRequest&, const ConnectionPtr& connection) {
    desk.OnStore(connection, false, AnswerWithSet);
  });
  router.AddWithBody(http::verb::patch, "/api/set", [&desk](HttpRequest& request, const ConnectionPtr& connection) {
    if (auto body = ReadBody(request, connection)) {
      desk.OnStore(connection, true, [body = *std::move(body)] {
        const vconf::Status status = ChangeSet(body);
        return status.ok() ? AnswerWithSet() : Fail(status);
      });
    }
  });

  // A fault is no key of the store, so its changes have to be told from here.
  const auto change_faults = [&desk](const ConnectionPtr& connection, std::function<vconf::Status()> change) {
    desk.OnStore(connection, true, [&desk, change = std::move(change)] {
      const vconf::Status status = change();
      boost::asio::post(desk.loop, [&desk] { desk.TellSet(); });
      return status.ok() ? AnswerWithFaults() : Fail(status);
    });
  };
  router.Add(http::verb::get, "/api/faults", [&desk](HttpRequest&, const ConnectionPtr& connection) {
    desk.OnStore(connection, false, AnswerWithFaults);
  });
  router.AddWithBody(http::verb::post, "/api/faults",
                     [change_faults](HttpRequest& request, const ConnectionPtr& connection) {
                       if (auto body = ReadBody(request, connection)) {
                         change_faults(connection, [body = *std::move(body)] {
                           const auto fault = FaultFromJson(body);
                           return fault.ok() ? AddFault(*fault) : fault.status();
                         });
                       }
                     });
  router.Add(http::verb::delete_, "/api/faults",
             [change_faults](HttpRequest& request, const ConnectionPtr& connection) {
               change_faults(connection, [request] { return Clear(request); });
             });
  router.Add(http::verb::post, "/api/reset", [&desk](HttpRequest& request, const ConnectionPtr& connection) {
    if (request.Query("force") == "1") {
      return desk.ReplaceStore(connection);
    }
    desk.OnStore(connection, true, [&desk] {
      const vconf::Status status = ResetSet();
      boost::asio::post(desk.loop, [&desk] { desk.TellSet(); });
      return AnswerWith(status);
    });
  });
  AddScenarioRoutes(router, desk);
}

}  // namespace desk
