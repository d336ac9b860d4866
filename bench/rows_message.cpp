// Requests and their replies: the warm round trip, the round trip to a parked worker, and the commands' own work.

#include <sys/resource.h>

#include <stdexcept>

#include "PluginMirado.h"
#include "dlog_control.h"
#include "floors.h"
#include "ppapi/cpp/var_dictionary.h"
#include "rows.h"
#include "simulated.h"

namespace bench {
namespace {

/// The time of one operation after a pause in which the other thread has gone to sleep.
template <typename Operation>
double AfterRest(Operation&& operation) {
  Rest();
  const auto start = Clock::now();
  operation();
  return Since(start);
}

/// Drops the plug-in's log lines for a while.
class WithoutLogLines {
 public:
  WithoutLogLines() { dlog::SetThreshold(7); }  // above the priority of every line
  WithoutLogLines(const WithoutLogLines&) = delete;
  WithoutLogLines& operator=(const WithoutLogLines&) = delete;
  ~WithoutLogLines() { dlog::SetThreshold(4); }  // the initial value
};

long VoluntarySwitches() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw;
}

}  // namespace

std::vector<Row> WarmRow(const Effort& effort) {
  const Set set;
  const auto page = set.Page();
  const pp::Var request = Request("getMenuValue", kDiskKeyNumber);
  MustSucceed(*page, request);

  const Scratch folder;
  BareStore bare(folder.path(), 0, kDiskKey);
  const auto floor = [&] {
    // Exists only during the measurement of the floor: it spins, which would take a core from the product.
    SpinPartner partner([&] { bare.Read(); });
    return PerCall(effort, [&] { partner.Ask(); });
  };
  const auto ours = [&] { return PerCall(effort, [&] { page->Send(request); }); };
  return {AtMost("`getMenuValue`, page to worker to store and back, warm", "spin hand-over and LMDB read",
                 Compare(effort, floor, ours), 6)};
}

std::vector<Row> ParkedRow(const Effort& effort) {
  const Set set;
  const auto page = set.Page();
  const pp::Var request = Request("getMenuValue", kDiskKeyNumber);
  MustSucceed(*page, request);

  CondvarPartner partner;
  const auto floor = [&] { return MedianOf(effort.singles, [&] { return AfterRest([&] { partner.Ask(); }); }); };
  const auto ours = [&] {
    const long before = VoluntarySwitches();
    const double time = MedianOf(effort.singles, [&] { return AfterRest([&] { page->Send(request); }); });
    // In each round the page's thread sleeps once, and the worker once: together 2; 1.9 allows for a few exceptions.
    if (VoluntarySwitches() - before < effort.singles * 19 / 10) throw std::runtime_error("the worker did not park");
    return time;
  };
  return {AtMost("the same after the worker has parked", "condition-variable ping-pong, both parked",
                 Compare(effort, floor, ours), 0.7)};
}

std::vector<Row> WorkRows(const Effort& effort) {
  const Set set;
  pp::Instance instance(0);
  MiradoMessageHandler handler(&instance);
  const pp::InstanceHandle handle(0);

  struct Case {
    const char* command;
    int key;
    const char* what;
  };
  std::vector<Row> rows;
  constexpr int kSpeedKeyNumber = 20;  // VOICE_GUIDE_SPEED
  // Log lines are not counted as work of a command; steps.cpp measures one.
  const WithoutLogLines without_log_lines;
  for (const auto& [command, key, what] :
       {Case{"getMenuValue", kDiskKeyNumber, "a number"}, Case{"getMenuValue", kSpeedKeyNumber, "a speed's name"},
        Case{"getMiradoValue", kMemoryKeyNumber, "a number"}, Case{"isTVSPicSizeResized", 0, "its log line apart"},
        Case{"getVersion", 0, "a text"}}) {
    const pp::Var request = Request(command, key);
    const pp::VarDictionary reply(handler.HandleBlockingMessage(handle, request));
    const pp::Var value = reply.Get("value");
    const std::string blank;
    const auto floor = [&] { return PerCall(effort, [&] { handler.createMessage(0, value, blank, blank); }); };
    const auto ours = [&] { return PerCall(effort, [&] { handler.HandleBlockingMessage(handle, request); }); };
    rows.push_back(AtMost("own work of `" + std::string(command) + "`, " + what, "`createMessage` of the same reply",
                          Compare(effort, floor, ours), 3));
  }
  return rows;
}

}  // namespace bench
