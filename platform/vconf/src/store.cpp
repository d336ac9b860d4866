#include "store.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <thread>
#include <utility>

#include "dlog.h"
#include "shared_lock.h"

namespace vconf {
namespace {

// If a call finds its region damaged, it looks for a new one, at most this often and for this long: a read must not
// wait for a process that was stopped while it creates one.
constexpr std::chrono::milliseconds kRenewalLimit{500};
constexpr std::chrono::milliseconds kLookAgain{100};

struct Prefix {
  std::string_view text;
  bool control_only;
};
constexpr std::array<Prefix, 3> kPrefixes{{{"db/", false}, {kMemoryPrefix, false}, {"set/", true}}};

const Prefix* PrefixOf(std::string_view path) {
  const auto* const found =
      std::find_if(kPrefixes.begin(), kPrefixes.end(), [&](const Prefix& each) { return path.starts_with(each.text); });
  return found != kPrefixes.end() ? found : nullptr;
}

// What is wrong with a path that `IsPath` refuses, and what to do.
Status BadPath(std::string_view path) {
  const std::string name(path.substr(0, layout::kMaxPath));
  if (path.size() > layout::kMaxPath) {
    return {Code::kBadName, name + "…: is longer than " + std::to_string(layout::kMaxPath) + " bytes; shorten it"};
  }
  if (path.find('\0') != std::string_view::npos) {
    return {Code::kBadName,
            name.substr(0, name.find('\0')) + ": the path contains a NUL character after this text; remove it"};
  }
  return PrefixOf(path) == nullptr
             ? Status(Code::kBadName,
                      name + ": does not begin with `db/`, `memory/` or `set/`; put one of them in front")
             : Status(Code::kBadName, name + ": has no name after the `/`; add one");
}

Status CheckValue(std::string_view path, const Value& value) {
  const auto* const text = std::get_if<std::string>(&value);
  return text == nullptr || text->size() <= layout::kMaxText
             ? Status()
             : Status(Code::kBadValue, std::string(path) + ": the text is longer than " +
                                           std::to_string(layout::kMaxText) + " bytes; shorten it");
}

}  // namespace

bool IsPath(std::string_view path, bool control) {
  const Prefix* const prefix = PrefixOf(path);
  return prefix != nullptr && (control || !prefix->control_only) && path.size() > prefix->text.size() &&
         path.size() <= layout::kMaxPath && (!control || path.find('\0') == std::string_view::npos);
}

Status CheckEntries(const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) {
    if (Status status = IsPath(entry.path, true) ? CheckValue(entry.path, entry.value) : BadPath(entry.path);
        !status.ok()) {
      return status;
    }
  }
  return {};
}

Store::Home Store::HomeOf(std::string_view path) {
  return path.starts_with(kMemoryPrefix) ? Home::kMemory : Home::kDisk;
}

// ---- opening

Result<std::unique_ptr<Store>> Store::Open(const std::string& directory, const std::vector<Entry>* initial) {
  if (Status status = initial != nullptr ? CheckEntries(*initial) : Status(); !status.ok()) {
    return status;
  }
  const WaitLimit limit;
  auto files = store_files::Attach(directory, initial);
  if (!files.ok()) {
    return files.status();
  }
  std::unique_ptr<Store> store(new Store(files->folder.path()));
  store->region_ = files->region.get();
  store->opened_.push_back(*std::move(files));
  store->RecoverIfNeeded();
  return store;
}

Region& Store::region() {
  Region& region = *region_.load(std::memory_order_acquire);
  return region.IsWhole() && region.is_shared() ? region : Renew(region);
}

Region& Store::Renew(Region& old) {
  using Clock = std::chrono::steady_clock;
  if (Clock::now() < look_again_.load(std::memory_order_relaxed)) {
    return old;
  }
  const WaitLimit limit(kRenewalLimit);
  const std::lock_guard lock(database_mutex_);
  Region* const now = region_.load(std::memory_order_acquire);
  if (now != &old) {
    return *now;
  }
  if (auto files = Successor(old)) {
    opened_.push_back(*std::move(files));
    region_.store(opened_.back().region.get(), std::memory_order_release);
  } else {
    look_again_ = Clock::now() + kLookAgain;
  }
  return *region_.load(std::memory_order_relaxed);
}

// The region that replaces a damaged, replaced or private one; empty while there is none.
std::optional<store_files::Opened> Store::Successor(Region& old) {
  const bool is_private = old.IsWhole();
  const bool replaced = old.header().state == layout::kReplaced;
  database_.reset();  // closing any other descriptor of the file would release SQLite's locks on it
  auto files = store_files::Attach(directory_, nullptr, !is_private);
  if (is_private) {
    if (!files.ok() || !files->region->is_shared()) {
      return std::nullopt;
    }
    old.MarkReplaced();
  } else if (!files.ok()) {
    static_cast<void>(LogRead(replaced ? Status(Code::kRemoved, files.status().text()) : files.status()));
    return std::nullopt;
  } else if (!replaced) {
    __dlog_print(2, 6, "VCONF", "%s: is damaged; db/ and set/ were read from disk again, memory/ is lost",
                 old.file().c_str());
  }
  return *std::move(files);
}

void Store::BeforeFork() {
  database_mutex_.lock();
  database_.reset();
}

void Store::AfterFork() { database_mutex_.unlock(); }

// ---- reading

Status Store::LogIfNew(std::atomic<Code>& last, Status status) {
  const Code code = status.code();
  const bool of_the_file = code >= Code::kFull;
  if ((of_the_file || code == Code::kOk) && last.load(std::memory_order_relaxed) != code &&
      last.exchange(code) != code && of_the_file) {
    __dlog_print(2, 6, "VCONF", "%s", status.text().c_str());
  }
  return status;
}

Status Store::ToStatus(Code code, std::string_view path, const Region& region) const {
  switch (code) {
    case Code::kOk:
      return {};
    case Code::kMissing:
      return {code, std::string(path) + ": no such key"};
    case Code::kWrongType:
      return {code, std::string(path) + ": holds a value of another type"};
    case Code::kFull:
      return {code, region.file() + ": is full; remove keys"};
    default:
      return {Code::kDamaged,
              region.file() +
                  ": is damaged; end the programs that use this file, then remove the file. The keys on "
                  "disk are kept, the memory/ keys are lost"};
  }
}

// Calls `read` on the current region; again if that was replaced meanwhile.
template <typename Read>
inline Code Store::ReadKey(std::string_view path, const Read& read) {
  while (true) {
    Region& now = region();
    const Code code = read(Table(now));
    if (code == Code::kOk || now.IsWhole()) {
      return code == Code::kDamaged ? LogRead(ToStatus(code, path, now)).code() : code;
    }
    if (&region() == &now) {
      return Code::kDamaged;
    }
  }
}

Code Store::GetNumber(std::string_view path, layout::Kind kind, int* number) {
  return ReadKey(path, [&](const Table& table) { return table.ReadNumber(path, kind, number); });
}

Result<Value> Store::Get(std::string_view path) {
  if (!IsPath(path, true)) {
    return BadPath(path);
  }
  std::optional<Value> value;
  const Code code = ReadKey(path, [&](const Table& table) { return table.Read(path, &value); });
  return code == Code::kOk ? Result(*std::move(value)) : ToStatus(code, path, region());
}

Status Store::List(std::string_view prefix, std::vector<Entry>* entries) {
  Region& now = region();
  Code code = Code::kOk;
  for (const Prefix& each : kPrefixes) {
    const bool within = prefix.starts_with(each.text);
    if (code == Code::kOk && (within || each.text.starts_with(prefix))) {
      code = Table(now).List(within ? prefix : each.text, entries);
    }
  }
  return LogRead(ToStatus(now.IsWhole() ? code : Code::kDamaged, prefix, now));
}

// ---- writing

Status Store::ForWriting(Region** region) {
  *region = &this->region();
  const bool replaced = (*region)->header().state == layout::kReplaced;
  if (!replaced && !(*region)->IsWhole()) {
    return ToStatus(Code::kDamaged, "", **region);
  }
  if (replaced || (*region)->IsRemoved()) {
    return {Code::kRemoved, (*region)->file() + ": was removed while it was in use; restart this program"};
  }
  if ((*region)->writable() && (*region)->is_shared()) {
    return {};
  }
  const auto folder = Folder::Open(directory_);
  return folder.ok() && folder->may_write() && !(*region)->is_shared()
             ? Status(Code::kFull, (*region)->file() + ": its disk is full, so the store can only be read; make room")
             : SystemFailure(directory_ + "/" + Folder::kDatabase, EROFS);
}

Status Store::Change(Home home, const Plan& plan) {
  constexpr int kTries = 3;  // again after the first; a store is hardly ever replaced even once during a call
  const WaitLimit limit;
  for (int tries = 0;; ++tries) {
    Region* region = nullptr;
    Status status = ForWriting(&region);
    if (status.ok()) {
      status = home == Home::kDisk ? ChangeOnDisk(*region, plan) : ChangeInMemory(*region, plan);
    }
    // The region was replaced meanwhile, so the change was not made: repeat it in the new one.
    if (status.code() != Code::kRemoved || region->IsWhole() || tries == kTries) {
      return LogWrite(home, std::move(status));
    }
  }
}

void Store::Difference(const std::vector<Entry>& held, const Wanted& wanted, std::vector<Row>* rows) {
  std::map<std::string, std::optional<Value>, std::less<>> changes(wanted.begin(), wanted.end());
  for (const Entry& entry : held) {
    const auto keep = wanted.find(entry.path);
    if (keep == wanted.end()) {
      changes.emplace(entry.path, std::nullopt);
    } else if (keep->second == entry.value) {
      changes.erase(entry.path);
    }
  }
  for (auto& [path, value] : changes) {
    rows->push_back({path, std::move(value)});
  }
}

Status Store::Prepare(Home home, Region& region, const std::vector<Row>& rows, std::vector<std::uint32_t>* keys) const {
  Table table(region);
  for (const bool swept : {false, true}) {
    keys->clear();
    const bool fits = std::all_of(rows.begin(), rows.end(), [&](const Row& row) {
      return table.Prepare(row.path, row.value ? &*row.value : nullptr, &keys->emplace_back());
    });
    if (fits) {
      return {};
    }
    if (!swept) {
      table.Sweep(home == Home::kMemory && region.header().committing != 0);
    }
  }
  return ToStatus(Code::kFull, "", region);
}

Status Store::ChangeInMemory(Region& region, const Plan& plan) {
  Publisher publisher(region);
  std::vector<Row> rows;
  std::vector<std::uint32_t> keys;
  Status status = publisher.status().ok() ? plan(region, &rows) : publisher.status();
  if (status.ok()) {
    status = Prepare(Home::kMemory, region, rows, &keys);
  }
  if (status.ok()) {
    publisher.Publish(keys);
  }
  return status;
}

Status Store::Set(std::string_view path, const Value& value) {
  if (!IsPath(path, true)) {
    return BadPath(path);
  }
  if (Status status = CheckValue(path, value); !status.ok()) {
    return status;
  }
  return Change(HomeOf(path), [&](Region& region, std::vector<Row>* rows) {
    std::optional<Value> old;
    const Code code = Table(region).Read(path, &old);
    if (code != Code::kOk && code != Code::kMissing) {
      return ToStatus(code, path, region);
    }
    if (old && old->index() != value.index()) {
      return ToStatus(Code::kWrongType, path, region);
    }
    rows->push_back({std::string(path), value});
    return Status();
  });
}

Status Store::Remove(std::string_view path) {
  if (!IsPath(path, true)) {
    return BadPath(path);
  }
  return Change(HomeOf(path), [&](Region& region, std::vector<Row>* rows) {
    std::optional<Value> old;
    rows->push_back({std::string(path), std::nullopt});
    const Code code = Table(region).Read(path, &old);
    return ToStatus(code == Code::kDamaged ? Code::kOk : code, path, region);
  });
}

Status Store::Reset(const std::vector<Entry>& entries) {
  if (Status wrong = CheckEntries(entries); !wrong.ok()) {
    return wrong;
  }
  for (const Home home : {Home::kMemory, Home::kDisk}) {
    const auto change = [&](bool removals_only) {
      return Change(home, [&](Region& region, std::vector<Row>* rows) {
        std::vector<Entry> held;
        Wanted wanted;
        for (const Entry& entry : entries) {
          if (HomeOf(entry.path) == home) {
            wanted.insert_or_assign(entry.path, entry.value);
          }
        }
        for (const Prefix& each : kPrefixes) {
          if (HomeOf(each.text) == home && Table(region).List(each.text, &held) != Code::kOk) {
            return ToStatus(Code::kDamaged, each.text, region);
          }
        }
        Difference(held, wanted, rows);
        if (removals_only) {
          std::erase_if(*rows, [](const Row& row) { return row.value.has_value(); });
        }
        return Status();
      });
    };
    Status status = change(false);
    if (status.code() == Code::kFull) {  // removing keys first makes room for the new values
      status = change(true);
      status = status.ok() ? change(false) : status;
    }
    if (!status.ok()) {
      return status;
    }
  }
  return {};
}

Status Store::Check() {
  Region* region = nullptr;
  Status status = ForWriting(&region);
  return status.code() == Code::kReadOnly ? Status() : LogWrite(Home::kDisk, std::move(status));
}

}  // namespace vconf
