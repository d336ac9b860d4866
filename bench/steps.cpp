// The time of each step of a warm round trip, measured separately, and of the whole; `script/bench steps` runs it.

#include <benchmark/benchmark.h>

#include "PluginMirado.h"
#include "dlog.h"
#include "floors.h"
#include "ppapi/cpp/var_dictionary.h"
#include "simulated.h"
#include "vconf.h"

namespace {

using namespace bench;

template <typename Step>
void Register(const char* name, Step step) {
  benchmark::RegisterBenchmark(name, [step](benchmark::State& state) {
    CheckStop();
    for ([[maybe_unused]] auto _ : state) step();
  })->UseRealTime();
}

/// The accesses to the request by which a command reads its two entries.
void ReadRequest(const pp::VarDictionary& request) {
  if (request.HasKey("command") && request.Get("command").type() == PP_VARTYPE_STRING) {
    benchmark::DoNotOptimize(request.Get("command").AsString());
  }
  if (request.HasKey("propertyKey") && request.Get("propertyKey").type() == PP_VARTYPE_INT32) {
    benchmark::DoNotOptimize(request.Get("propertyKey").AsInt());
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc == 2) Scratch::Place() = argv[1];
  HandleStopSignals();
  DiscardStderr();
  try {
    const Set set;
    const auto page = set.Page();
    const pp::VarDictionary request(Request("getMenuValue", kDiskKeyNumber));
    MustSucceed(*page, request);
    pp::Instance instance(0);
    MiradoMessageHandler handler(&instance);
    const Scratch folder;
    BareStore bare(folder.path(), 0, kDiskKey);

    Register("floor: LMDB read", [&] { benchmark::DoNotOptimize(bare.Read()); });
    benchmark::RegisterBenchmark("floor: spin hand-over, there and back", [](benchmark::State& state) {
      SpinPartner partner([] {});
      for ([[maybe_unused]] auto _ : state) partner.Ask();
    })->UseRealTime();
    Register("loop: hand-over without work, there and back", [&] { page->Settle(); });
    Register("store: `vconf_get_int`", [] {
      int value = 0;
      benchmark::DoNotOptimize(vconf_get_int(kDiskKey, &value));
    });
    const std::string text = kTextKey;
    OrThrow(vconf::Set(text, "text"));
    Register("store: a text, which is looked up each time", [&] { benchmark::DoNotOptimize(vconf::Get(text)); });
    Register("variables: reading the request", [&] { ReadRequest(request); });
    const std::string blank;
    Register("variables: `createMessage` of the reply, and its end",
             [&] { handler.createMessage(0, pp::Var(1), blank, blank); });
    Register("plug-in: the command on one thread",
             [&] { handler.HandleBlockingMessage(pp::InstanceHandle(0), request); });
    Register("whole: warm round trip", [&] { page->Send(request); });

    Register("not included: a log line",
             [] { __dlog_print(0, 4, "QRL_BASE", "%s: %s(%d) > PictureSize is %d", "", "", 1, 0); });

    benchmark::RunSpecifiedBenchmarks();
  } catch (const Stop&) {
    Progress("stopped");
    return 130;
  } catch (const std::exception& error) {
    Progress(std::string("error: ") + error.what());
    return EXIT_FAILURE;
  }
}
