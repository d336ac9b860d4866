#include "growth.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <stop_token>
#include <thread>

#include "base/json.h"
#include "ppapi/cpp/var_dictionary.h"
#include "set/simulated_set.h"
#include "simulated.h"
#include "vconf.h"

namespace bench {
namespace {

using Page = std::shared_ptr<pp::browser::PageInstance>;

constexpr std::array kInstances{1, 2, 4, 8, 16, 32, 64};

/// How often a whole curve is measured. Each time gives one value of every point.
int SeriesRounds(const Effort& effort) { return (2 * effort.rounds + 2) / 3; }

/// The points of a curve that is measured several times.
class Points {
 public:
  void Add(double x, const std::vector<double>& values) {
    auto& point = points_[x];
    point.resize(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) point[i].push_back(values[i]);
    CheckStop();
  }

  std::vector<std::vector<double>> Medians() const {
    std::vector<std::vector<double>> medians;
    for (const auto& [x, columns] : points_) {
      medians.push_back({x});
      for (const auto& column : columns) medians.back().push_back(Median(column));
    }
    return medians;
  }

 private:
  std::map<double, std::vector<std::vector<double>>> points_;
};

/// Requests per second of all pages together, while a thread for each sends without a pause: the median of five
/// samples.
double RequestsPerSecond(const Effort& effort, const std::vector<Page>& pages, const pp::Var& request) {
  struct alignas(64) Count {
    std::atomic<std::uint64_t> value{0};
  };
  std::vector<Count> counts(pages.size());
  std::vector<std::jthread> threads;
  threads.reserve(pages.size());
  for (std::size_t i = 0; i < pages.size(); ++i) {
    threads.emplace_back([&, i](const std::stop_token& end) {
      for (std::uint64_t count = 0; !end.stop_requested();) {
        pages[i]->Send(request);
        counts[i].value.store(++count, std::memory_order_relaxed);
      }
    });
  }
  const auto total = [&] {
    double all = 0;
    for (const Count& count : counts) all += static_cast<double>(count.value.load(std::memory_order_relaxed));
    return all;
  };
  const double rate = MedianOf(5, [&] {
    const double before = total();
    const auto start = Clock::now();
    std::this_thread::sleep_for(effort.sample);
    return (total() - before) * 1e9 / Since(start);
  });
  for (std::jthread& thread : threads) thread.request_stop();
  return rate;
}

/// Creates pages until there are `count`, and sends each a request.
void GrowTo(int count, const Set& set, const pp::Var& request, std::vector<Page>& pages) {
  while (pages.size() < static_cast<std::size_t>(count)) {
    pages.push_back(set.Page());
    MustSucceed(*pages.back(), request);
  }
}

/// The KiB that an instance takes, for each number of instances.
std::map<int, double> InstanceMemory() {
  Child child({OwnProgram(), "--instances", "--scratch", Scratch::Place()});
  std::map<int, double> memory;
  for (const int count : kInstances) memory[count] = std::stod(child.ReadLine());
  if (child.End() != 0) throw std::runtime_error("measuring the memory failed");
  return memory;
}

/// The time from a change of `kMemoryKey` to the last of `events` events.
double EventTime(const Effort& effort, Arrivals& arrivals, int events) {
  return MedianOf(effort.singles, [&, value = 0]() mutable {
    Rest();
    arrivals.Expect(events);
    const auto start = Clock::now();
    if (vconf_set_int(kMemoryKey, ++value) != 0) throw std::runtime_error("a write failed");
    return Between(start, arrivals.Await());
  });
}

}  // namespace

int RunInstances() {
  HandleStopSignals();
  const Set set;
  const pp::Var request = Request("getMenuValue", kDiskKeyNumber);
  // `smaps_rollup` is exact; the kernel updates the counters in `status` only now and then.
  const auto memory = [] { return ProcessField(getpid(), "smaps_rollup", "Anonymous:"); };
  const double before = memory();
  std::vector<Page> pages;
  for (const int count : kInstances) {
    GrowTo(count, set, request, pages);
    std::cout << (memory() - before) / count << std::endl;
    CheckStop();
  }
  return EXIT_SUCCESS;
}

Figures GrowInstances(const Effort& effort) {
  const pp::Var request = Request("getMenuValue", kDiskKeyNumber);
  Points points;
  for (int round = 0; round < SeriesRounds(effort); ++round) {
    const std::map<int, double> memory = InstanceMemory();
    const Set set;
    std::vector<Page> pages;
    for (const int count : kInstances) {
      GrowTo(count, set, request, pages);
      std::size_t next = 0;
      const double in_turn = PerCall(effort, [&] { pages[next++ % pages.size()]->Send(request); });
      points.Add(count, {RequestsPerSecond(effort, pages, request), 1e9 / in_turn, memory.at(count)});
    }
  }
  const auto medians = points.Medians();
  const auto fewest = std::min_element(medians.begin(), medians.end(),
                                       [](const auto& left, const auto& right) { return left[1] < right[1]; });
  const double ratio = (*fewest)[1] / medians.front()[1];
  const auto rate = [](double value) { return Number(value / 1000, 0) + " k/s"; };
  return {{{"instances",
            {"instances", "requests/s, a thread each", "requests/s, one thread in turn", "KiB each"},
            medians}},
          {{"requests per second, fewest of 1 to 64 instances (" + Number((*fewest)[0], 0) + ")", "1 instance",
            rate(medians.front()[1]), rate((*fewest)[1]), Number(ratio), "at least 0.9", ratio >= 0.9}}};
}

Figures GrowSubscribers(const Effort& effort) {
  Points points;
  for (int round = 0; round < SeriesRounds(effort); ++round) {
    for (const int count : kInstances) {
      const Set set;
      Arrivals arrivals;
      const pp::Var subscribe = Request("registerVconfKeysForMirado", kMemoryKeyNumber);
      std::vector<Page> pages;
      while (pages.size() < static_cast<std::size_t>(count)) pages.push_back(set.Page(arrivals.Listener()));
      MustSucceed(*pages.front(), subscribe);
      const double one = EventTime(effort, arrivals, 1);
      for (const Page& page : pages) MustSucceed(*page, subscribe);
      points.Add(count, {one, EventTime(effort, arrivals, count)});
    }
  }
  // The two figures of the row are measured alternately, as in the other rows.
  const Set set;
  Arrivals arrivals;
  const Page subscriber = set.Page(arrivals.Listener());
  MustSucceed(*subscriber, Request("registerVconfKeysForMirado", kMemoryKeyNumber));
  const auto alone = [&] { return EventTime(effort, arrivals, 1); };
  const auto among_others = [&] {
    std::vector<Page> others;
    while (others.size() < kInstances.back() - 1U) others.push_back(set.Page());
    return alone();
  };
  return {
      {{"subscribers", {"instances", "ns, one of them subscribed", "ns, all of them subscribed"}, points.Medians()}},
      {AtMost("an event of 1 subscriber among 64 instances", "1 instance", Compare(effort, alone, among_others), 1.2)}};
}

Figures GrowSubscriptions(const Effort& effort) {
  Points points;
  for (int round = 0; round < SeriesRounds(effort); ++round) {
    const Set set;
    Arrivals arrivals;
    const Page page = set.Page(arrivals.Listener());
    MustSucceed(*page, Request("registerVconfKeysForMirado", kMemoryKeyNumber));
    for (int count = 1; count <= 23; ++count) {  // one key in memory, then the 22 keys of the menu
      if (count > 1) MustSucceed(*page, Request("registerVconfKeysForCaption", count - 2));
      points.Add(count, {EventTime(effort, arrivals, 1)});
    }
  }
  return {{{"subscriptions", {"subscriptions of the page", "ns to the event"}, points.Medians()}}, {}};
}

Figures GrowKeys(const Effort& effort) {
  const pp::Var request = Request("getMenuValue", kDiskKeyNumber);
  Points points;
  for (int round = 0; round < SeriesRounds(effort); ++round) {
    for (const int count : {10, 100, 1'000, 10'000, 100'000}) {
      std::vector<vconf::Entry> entries{{kDiskKey, 1}, {kMemoryKey, 1}, {kTextKey, "text"}};
      while (entries.size() < static_cast<std::size_t>(count)) {
        const std::string number = std::to_string(entries.size());
        entries.push_back({(entries.size() % 2 == 0 ? "db/other/" : "memory/other/") + number, 1});
      }
      const Set set(entries);
      Arrivals arrivals;
      const Page page = set.Page(arrivals.Listener());
      int value = 0;
      const double round_trip = PerCall(effort, [&] { page->Send(request); });
      const double read = PerCall(effort, [&] { static_cast<void>(vconf::Get(kTextKey)); });
      const double write = PerCall(effort, [&] { vconf_set_int(kMemoryKey, ++value); });
      MustSucceed(*page, Request("registerVconfKeysForMirado", kMemoryKeyNumber));
      points.Add(count, {round_trip, read, write, EventTime(effort, arrivals, 1)});
    }
  }
  return {{{"keys",
            {"keys", "ns warm round trip", "ns to look a text up", "ns write in memory", "ns to an event"},
            points.Medians()}},
          {}};
}

Figures GrowMessages(const Effort& effort) {
  const Set set;
  const Page page = set.Page();
  const std::string head = R"({"command":"getMenuValue","propertyKey":0,"more":)";
  const auto from_text_to_text = [&](const std::string& text) {
    return PerCall(effort, [&] {
      const auto parsed = desk::ParseJson(text);
      desk::ToText(desk::ToJson(page->Send(desk::ToVar(*parsed))));
    });
  };
  Points points;
  for (int round = 0; round < SeriesRounds(effort); ++round) {
    for (const std::size_t size : {100U, 1'000U, 10'000U, 100'000U, 1'048'576U}) {
      const std::string one_text = head + "\"" + std::string(size - head.size() - 3, 'x') + "\"}";
      std::string entries = head + "{";
      for (std::size_t i = 0; entries.size() + 16 < size; ++i) {
        entries += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":7";
      }
      entries += "}}";
      const auto parsed = desk::ParseJson(one_text);
      const pp::Var message = desk::ToVar(*parsed);
      points.Add(static_cast<double>(size), {PerCall(effort, [&] { page->Send(message); }), from_text_to_text(one_text),
                                             from_text_to_text(entries)});
    }
  }
  return {{{"messages",
            {"bytes", "ns as variables", "ns from and to JSON, one text", "ns from and to JSON, many entries"},
            points.Medians()}},
          {}};
}

}  // namespace bench
