// The store: reads, durable writes, writes in memory next to a durable writer, and the time from a change to its event.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "floors.h"
#include "ppapi/cpp/var_dictionary.h"
#include "rows.h"
#include "shared_words.h"
#include "simulated.h"
#include "vconf.h"

namespace bench {
namespace {

/// The time from a write of `path` by another process to its event. `path` is subscribed.
double EventFromChild(Child& child, const char* path, int value, Arrivals& arrivals) {
  Rest();
  arrivals.Expect(1);
  child.Write(std::string(path) + " " + std::to_string(value) + "\n");
  const Clock::time_point start{Clock::duration(std::stoll(child.ReadLine()))};
  return Between(start, arrivals.Await());
}

}  // namespace

std::vector<Row> WriteRow(const Effort& effort) {
  const Set set;
  Arrivals arrivals;
  const auto page = set.Page(arrivals.Listener());
  int value = 0;
  const auto request = [&] {
    pp::VarDictionary message(Request("setMenuValue", kDiskKeyNumber));
    message.Set("value", ++value % 2);
    return message;
  };

  const Scratch folder;
  BareStore bare(folder.path(), 0, kDiskKey);
  const auto floor = [&] {
    return MedianOf(effort.singles, [&] {
      const auto start = Clock::now();
      bare.Write(++value % 2);
      const double time = Since(start);
      if (bare.Read() != value % 2) throw std::runtime_error("a write failed");
      return time;
    });
  };
  const auto ours = [&] {
    return MedianOf(effort.singles, [&] {
      const pp::Var message = request();
      arrivals.Expect(1);
      const auto start = Clock::now();
      page->Post(message);
      const double time = Between(start, arrivals.Await());
      int stored = 0;
      if (vconf_get_int(kDiskKey, &stored) != 0 || stored != value % 2) throw std::runtime_error("a write failed");
      return time;
    });
  };
  const std::string log = folder.path() / "log";
  const int file = open(log.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const std::string block(1U << 20U, 'x');  // written once, so that no append changes the size of the file
  if (file < 0 || write(file, block.data(), block.size()) < 0 || fsync(file) != 0) throw std::runtime_error(log);
  off_t at = 0;
  const auto append = [&] {
    return MedianOf(effort.singles, [&] {
      std::array<char, 64> record{};
      const auto start = Clock::now();
      if (pwrite(file, record.data(), record.size(), at) < 0 || fdatasync(file) != 0) throw std::runtime_error(log);
      at = (at + 64) % (1 << 20);
      return Since(start);
    });
  };
  const std::string what = "`setMenuValue` on a `db/` key, post to reply, durable";
  std::vector<Row> rows{AtMost(what, "LMDB write with sync", Compare(effort, floor, ours), 0.9),
                        AtMost(what, "preallocated append with `fdatasync`", Compare(effort, append, ours), 1.5)};
  close(file);
  return rows;
}

std::vector<Row> ReadRow(const Effort& effort) {
  constexpr int kKeys = 30;
  const Set set;
  std::vector<std::string> paths;
  for (int i = 0; i < kKeys; ++i) {
    paths.push_back("db/menu/other/setting/number/" + std::to_string(i));  // the paths of BareStore
    if (vconf_set_int(paths.back().c_str(), i) != 0) throw std::runtime_error("a write failed");
  }
  const Scratch folder;
  BareStore bare(folder.path(), 0, kDiskKey, kKeys);
  std::size_t turn = 0;
  long sum = 0;
  const auto floor = [&] { return PerCall(effort, [&] { sum += bare.Read(paths[++turn % paths.size()]); }); };
  const auto ours = [&] {
    return PerCall(effort, [&] {
      int value = -1;
      if (vconf_get_int(paths[++turn % paths.size()].c_str(), &value) != 0) throw std::runtime_error("a read failed");
      sum += value;
    });
  };
  Row row = AtMost("`vconf_get_int`, one key after another", "LMDB read", Compare(effort, floor, ours), 1);
  if (sum <= 0) throw std::runtime_error("the reads gave no values");
  return {std::move(row)};
}

std::vector<Row> NextToWriterRow(const Effort& effort) {
  const Set set;
  int value = 0;
  const auto p99 = [&] {
    std::vector<double> times;
    for (int i = 0; i < 50 * effort.singles; ++i) {
      const auto start = Clock::now();
      if (vconf_set_int(kMemoryKey, ++value) != 0) throw std::runtime_error("a write failed");
      times.push_back(Since(start));
      if (i % 64 == 0) Rest();  // the writes extend over several commits of the writer
    }
    CheckStop();
    std::sort(times.begin(), times.end());
    return times[times.size() * 99 / 100];
  };
  const auto next_to_writer = [&] {
    Child child({OwnProgram(), "--durable-writer", set.store()});
    child.ReadLine();
    return p99();
  };
  return {AtMost("`memory/` write next to a durable writer, p99", "the same alone",
                 Compare(effort, p99, next_to_writer), 2)};
}

namespace {

double CpuOf(const std::vector<std::unique_ptr<Child>>& children) {
  double sum = 0;
  for (const auto& child : children) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(child->pid()) + "/task")) {
      double nanoseconds = 0;
      if (std::ifstream(task.path() / "schedstat") >> nanoseconds) sum += nanoseconds;
    }
  }
  return sum;
}

}  // namespace

std::vector<Row> ListenersRow(const Effort& effort) {
  constexpr int kProcesses = 64;
  constexpr int kChanges = 20;
  const Set set;
  const Scratch folder("/dev/shm");
  const std::string file = folder.path() / "words";
  SharedWords words(file);
  // Starts 64 processes of `command`. Returns a function that measures their CPU time for one `change`.
  const auto with_processes = [&](const std::vector<std::string>& command, const std::function<void(int)>& change) {
    std::vector<std::unique_ptr<Child>> children;
    children.reserve(kProcesses);
    for (int i = 0; i < kProcesses; ++i) children.push_back(std::make_unique<Child>(command));
    for (const auto& child : children) child->ReadLine();
    return [children = std::make_shared<decltype(children)>(std::move(children)), change] {
      const double before = CpuOf(*children);
      for (int i = 0; i < kChanges; ++i) {
        change(i);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // until all processes sleep again
      }
      CheckStop();
      return (CpuOf(*children) - before) / kChanges;
    };
  };
  const auto floor = with_processes({OwnProgram(), "--sleeper", file}, [&](int) { words.WakeAll(); });
  const auto ours =
      with_processes({OwnProgram(), "--listener", set.store()}, [](int i) { vconf_set_int(kMemoryKey, i); });
  return {AtMost("CPU time of 64 listening processes for one change", "64 bare futex wake-ups",
                 Compare(effort, floor, ours), 2)};
}

std::vector<Row> EventRows(const Effort& effort) {
  struct Case {
    const char* path;
    const char* what;
    const char* subscribe;
    int key;
    std::filesystem::path place;  // of the LMDB file
    unsigned flags;               // for LMDB: it must not sync more often than the store does
  };
  std::vector<Row> rows;
  for (const Case& each :
       {Case{kDiskKey, "`db/`", "registerVconfKeysForCaption", kDiskKeyNumber, Scratch::Place(), MDB_NOMETASYNC},
        Case{kMemoryKey, "`memory/`", "registerVconfKeysForMirado", kMemoryKeyNumber, "/dev/shm", MDB_NOSYNC}}) {
    const Set set;
    Arrivals arrivals;
    const auto page = set.Page(arrivals.Listener());
    MustSucceed(*page, Request(each.subscribe, each.key));
    int value = 0;

    const Scratch folder(each.place);
    BareStore bare(folder.path(), each.flags, each.path);
    CondvarPartner partner;
    const auto floor = [&] {
      return MedianOf(effort.singles, [&] {
        Rest();
        const auto start = Clock::now();
        bare.Write(++value);
        return Between(start, partner.Ask());
      });
    };
    const auto own_process = [&] {
      return MedianOf(effort.singles, [&] {
        Rest();
        arrivals.Expect(1);
        const auto start = Clock::now();
        if (vconf_set_int(each.path, ++value) != 0) throw std::runtime_error("a write failed");
        return Between(start, arrivals.Await());
      });
    };
    Child child({OwnProgram(), "--writer", set.store()});
    child.ReadLine();
    const auto other_process = [&] {
      return MedianOf(effort.singles, [&] { return EventFromChild(child, each.path, ++value, arrivals); });
    };
    const std::string floor_name = "condition-variable hand-over and LMDB write, as durable";
    const std::string key = std::string("change of a ") + each.what + " key to event at the page, ";
    const bool disk = each.path == kDiskKey;
    rows.push_back(AtMost(key + "same process", floor_name, Compare(effort, floor, own_process), disk ? 1.15 : 1.1));
    if (disk) {
      rows.push_back(AtMost(key + "another process", floor_name, Compare(effort, floor, other_process), 1.3));
      continue;
    }
    const std::string file = folder.path() / "words";
    SharedWords words(file);
    Child giver({OwnProgram(), "--hand-over", file});
    giver.ReadLine();
    std::atomic<Clock::time_point> taken{Clock::time_point()};
    // `seen` is read before the first wake-up, and again before each value is taken, so no later wake-up is missed.
    std::jthread taker([&, seen = words.Wakeups()](const std::stop_token& stop) mutable {
      const std::stop_callback wake(stop, [&] { words.WakeAll(); });
      while (true) {
        words.Await(seen);
        if (stop.stop_requested()) return;
        seen = words.Wakeups();
        static_cast<void>(words.Take());
        taken = Clock::now();
        taken.notify_one();
      }
    });
    const auto hand_over = [&] {
      return MedianOf(effort.singles, [&] {
        Rest();
        taken = Clock::time_point();
        giver.Write(std::to_string(++value) + "\n");
        const Clock::time_point start{Clock::duration(std::stoll(giver.ReadLine()))};
        taken.wait(Clock::time_point());
        return Between(start, taken.load());
      });
    };
    rows.push_back(AtMost(key + "another process", "hand-over between two processes: slot, robust lock, futex",
                          Compare(effort, hand_over, other_process), 1.5));
  }
  return rows;
}

}  // namespace bench
