// Routes of the simulated set: its state, its faults and scenarios, and of the desk itself.

#include <string>
#include <utility>

#include "server/desk.h"
#include "set/faults.h"
#include "set/scenario.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

Answer AnswerWithFaults() {
  const auto faults = vconf::ListFaults();
  if (!faults.ok()) {
    return Fail(faults.status());
  }
  Json calls = Json::array();
  for (const FaultCall& call : FaultCalls()) {
    calls.push_back({{"name", call.name}, {"failures", call.failures}, {"path", call.path}});
    if (!call.prefix.empty()) {
      const auto known = KnownPaths(call.prefix);
      if (!known.ok()) {
        return Fail(known.status());
      }
      calls.back()["paths"] = *known;
    }
  }
  return JsonAnswer({{"calls", std::move(calls)}, {"faults", *faults}});
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
  const auto scenarios = ListScenarios(store);
  return scenarios.ok() ? JsonAnswer({{"scenarios", *scenarios}}) : Fail(scenarios.status());
}

Answer AnswerWithFaults(const vconf::Status& status) { return status.ok() ? AnswerWithFaults() : Fail(status); }

vconf::Status SaveAs(const std::string& store, const HttpRequest& request) {
  const ParsedJson& body = request.json;
  if (!body.is_object() || body.size() != body.count("scenario")) {
    return BadValue(R"(the body is {} or {"scenario": S})");
  }
  return body.empty() ? SaveScenario(store, request.parts[0]) : SaveScenario(store, request.parts[0], body["scenario"]);
}

vconf::Status Load(const std::string& store, const std::string& name) {
  const auto scenario = ReadScenario(store, name);
  return scenario.ok() ? LoadScenario(*scenario) : scenario.status();
}

vconf::Status AddFaultFrom(const ParsedJson& body) {
  const auto fault = FaultFromJson(body);
  return fault.ok() ? AddFault(*fault) : fault.status();
}

}  // namespace

void AddSetRoutes(Router& router, Desk& desk) {
  using http::verb;
  using Request = const HttpRequest&;
  constexpr auto kReads = StoreUse::kReads;
  constexpr auto kChanges = StoreUse::kChangesSet;
  router.Get("/api/desk", [&desk](Request) { return JsonAnswer(desk.Describe()); });

  router.Add(verb::get, "/api/set", Body::kNone, desk.OnStore(kReads, [](Request) { return AnswerOf(DescribeSet()); }));
  router.Add(verb::patch, "/api/set", Body::kJson, desk.OnStore(kChanges, [](Request request) {
    const vconf::Status status = ChangeSet(request.json);
    return status.ok() ? AnswerOf(DescribeSet()) : Fail(status);
  }));
  router.Add(verb::post, "/api/reset", Body::kNone, desk.OnStore(kChanges, [&desk](Request request) {
    return request.Query("force") == "1" ? desk.ReplaceStore() : AnswerOf(ResetSet());
  }));

  router.Add(verb::get, "/api/faults", Body::kNone, desk.OnStore(kReads, [](Request) { return AnswerWithFaults(); }));
  router.Add(verb::post, "/api/faults", Body::kJson,
             desk.OnStore(kChanges, [](Request request) { return AnswerWithFaults(AddFaultFrom(request.json)); }));
  router.Add(verb::delete_, "/api/faults", Body::kNone,
             desk.OnStore(kChanges, [](Request request) { return AnswerWithFaults(Clear(request)); }));

  const std::string& store = desk.options.host.store;
  router.Add(verb::get, "/api/scenarios", Body::kNone,
             desk.OnStore(kReads, [&store](Request) { return AnswerWithScenarios(store); }));
  router.Add(verb::get, "/api/scenarios/*", Body::kNone, desk.OnStore(kReads, [&store](Request request) {
    const auto scenario = ReadScenario(store, request.parts[0]);
    return scenario.ok() ? Answer{.body = scenario->dump()} : Fail(scenario.status());
  }));
  router.Add(verb::put, "/api/scenarios/*", Body::kJson,
             desk.OnStore(kReads, [&store](Request request) { return AnswerOf(SaveAs(store, request)); }));
  router.Add(verb::delete_, "/api/scenarios/*", Body::kNone, desk.OnStore(kReads, [&store](Request request) {
    return AnswerOf(RemoveScenario(store, request.parts[0]));
  }));
  router.Add(verb::post, "/api/scenarios/*/load", Body::kNone,
             desk.OnStore(kChanges, [&store](Request request) { return AnswerOf(Load(store, request.parts[0])); }));
}

}  // namespace desk
