// Routes of the simulated set: its state, its faults and scenarios, and of the desk itself.

#include <functional>
#include <string>
#include <utility>

#include "server/desk.h"
#include "set/faults.h"
#include "set/scenario.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

vconf::Result<Json> DescribeFaults() {
  const auto faults = vconf::ListFaults();
  if (!faults.ok()) {
    return faults.status();
  }
  Json calls = Json::array();
  for (const FaultCall& call : FaultCalls()) {
    calls.push_back({{"name", call.name}, {"failures", call.failures}, {"path", call.path}});
    if (!call.prefix.empty()) {
      const auto known = KnownPaths(call.prefix);
      if (!known.ok()) {
        return known.status();
      }
      calls.back()["paths"] = *known;
    }
  }
  return Json{{"calls", std::move(calls)}, {"faults", *faults}};
}

vconf::Status ClearFaults(const HttpRequest& request) {
  if (!request.query.contains("call")) {
    return vconf::ClearFaults();
  }
  const std::string call(request.Query("call"));
  if (const auto found = FindFaultCall(call); !found.ok()) {
    return found.status();
  }
  return vconf::ClearFault(call, request.query.contains("path") ? std::string(request.Query("path")) : kEveryPath);
}

vconf::Status SaveAs(const std::string& store, const HttpRequest& request) {
  const ParsedJson& body = request.json;
  if (!body.is_object() || body.size() != body.count("scenario")) {
    return BadValue(R"(the body is {} or {"scenario": S})");
  }
  return body.empty() ? SaveScenario(store, request.parts[0]) : SaveScenario(store, request.parts[0], body["scenario"]);
}

// The answer after a change: what `describe` returns, or the failure of the change.
Answer AnswerWith(const vconf::Status& changed, vconf::Result<Json> (*describe)()) {
  return changed.ok() ? AnswerOf(describe()) : Fail(changed);
}

}  // namespace

void AddSetRoutes(Router& router, Desk& desk) {
  using http::verb;
  using Request = const HttpRequest&;
  const std::string& store = desk.options().store;
  const auto changes_set = [&desk](std::function<Answer(Request)> work) {
    return desk.OnStore([&desk, work = std::move(work)](Request request) {
      Answer answer = work(request);
      desk.SendSetEvent();
      return answer;
    });
  };
  router.Get("/api/desk", [&desk](Request) { return JsonAnswer(desk.Describe()); });

  router.Add(verb::get, "/api/set", Body::kNone, desk.OnStore([](Request) { return AnswerOf(DescribeSet()); }));
  router.Add(verb::patch, "/api/set", Body::kJson,
             desk.OnStore([](Request request) { return AnswerWith(ChangeSet(request.json), DescribeSet); }));
  router.Add(verb::post, "/api/reset", Body::kNone, changes_set([&desk](Request request) {
               return request.Query("force") == "1" ? desk.ReplaceStore() : AnswerOf(ResetSet());
             }));

  router.Add(verb::get, "/api/faults", Body::kNone, desk.OnStore([](Request) { return AnswerOf(DescribeFaults()); }));
  router.Add(verb::post, "/api/faults", Body::kJson, changes_set([](Request request) {
               const auto fault = FaultFromJson(request.json);
               return AnswerWith(fault.ok() ? AddFault(*fault) : fault.status(), DescribeFaults);
             }));
  router.Add(verb::delete_, "/api/faults", Body::kNone,
             changes_set([](Request request) { return AnswerWith(ClearFaults(request), DescribeFaults); }));

  router.Add(verb::get, "/api/scenarios", Body::kNone, desk.OnStore([&store](Request) {
    const auto scenarios = ListScenarios(store);
    return scenarios.ok() ? JsonAnswer({{"scenarios", *scenarios}}) : Fail(scenarios.status());
  }));
  router.Add(verb::get, "/api/scenarios/*", Body::kNone, desk.OnStore([&store](Request request) {
    const auto scenario = ReadScenario(store, request.parts[0]);
    return scenario.ok() ? Answer{.body = scenario->dump()} : Fail(scenario.status());
  }));
  router.Add(verb::put, "/api/scenarios/*", Body::kJson,
             desk.OnStore([&store](Request request) { return AnswerOf(SaveAs(store, request)); }));
  router.Add(verb::delete_, "/api/scenarios/*", Body::kNone,
             desk.OnStore([&store](Request request) { return AnswerOf(RemoveScenario(store, request.parts[0])); }));
  router.Add(verb::post, "/api/scenarios/*/load", Body::kNone, changes_set([&store](Request request) {
               const auto scenario = ReadScenario(store, request.parts[0]);
               return AnswerOf(scenario.ok() ? LoadScenario(*scenario) : scenario.status());
             }));
}

}  // namespace desk
