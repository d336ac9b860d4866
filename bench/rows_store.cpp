#include <stdexcept>

#include "floors.h"
#include "ppapi/cpp/var_dictionary.h"
#include "rows.h"
#include "simulated.h"
#include "vconf.h"

namespace bench {
namespace {

/// What another process needs to write and its event to come, `path` being under subscription.
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
  return {AtMost("`setMenuValue` on a `db/` key, post to reply, durable", "LMDB write with sync",
                 Compare(effort, floor, ours), 1.15)};
}

std::vector<Row> EventRows(const Effort& effort) {
  struct Case {
    const char* path;
    const char* what;
    const char* subscribe;
    int key;
    std::filesystem::path place;
    unsigned flags;  // as little is made durable as the store itself does before its sync call
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
    const auto same = [&] {
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
    const auto other = [&] {
      return MedianOf(effort.singles, [&] { return EventFromChild(child, each.path, ++value, arrivals); });
    };
    const std::string beside = "condition-variable hand-over and LMDB write, as durable";
    const std::string key = std::string("change of a ") + each.what + " key to event at the page, ";
    rows.push_back(AtMost(key + "same process", beside, Compare(effort, floor, same), 1.5));
    rows.push_back(AtMost(key + "another process", beside, Compare(effort, floor, other), 2.5));
  }
  return rows;
}

}  // namespace bench
