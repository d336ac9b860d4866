// Injected faults. Each is a key, kFaultPrefix CALL 0x1f PATH, with the text "ANSWER TIMES"; TIMES 0 is without end. No
// subscription is notified of them.
#include <charconv>

#include "store.h"

namespace vconf {
namespace {

constexpr std::string_view kAnyPath = "*";
constexpr char kBetween = '\x1f';

std::string KeyOf(std::string_view call, std::string_view path) {
  return std::string(kFaultPrefix).append(call).append(1, kBetween).append(path);
}

std::string TextOf(const Fault& fault) { return std::to_string(fault.answer) + ' ' + std::to_string(fault.times); }

std::optional<Fault> FaultOf(std::string_view key, const Value& value) {
  const auto* const text = std::get_if<std::string>(&value);
  const std::string_view name = key.substr(kFaultPrefix.size());
  const std::size_t between = name.find(kBetween);
  Fault fault;
  if (text == nullptr || between == std::string_view::npos) {
    return std::nullopt;
  }
  fault.call = name.substr(0, between);
  fault.path = name.substr(between + 1);
  const char* const end = text->data() + text->size();
  const auto answer = std::from_chars(text->data(), end, fault.answer);
  if (answer.ptr == end || std::from_chars(answer.ptr + 1, end, fault.times).ptr != end) {
    return std::nullopt;
  }
  return fault;
}

std::optional<Fault> Find(const Table& table, std::string_view key) {
  std::optional<Value> value;
  return table.Read(key, &value) == Code::kOk ? FaultOf(key, *value) : std::nullopt;
}

}  // namespace

Status Store::SetFault(const Fault& fault) {
  std::string key = KeyOf(fault.call, fault.path);
  if (fault.call.empty() || fault.path.empty() || fault.call.find(kBetween) != std::string::npos ||
      key.find('\0') != std::string::npos || key.size() > layout::kMaxName) {
    return {Code::kBadName, fault.call + " " + fault.path + ": a fault needs a call and a path, of " +
                                std::to_string(layout::kMaxName - kFaultPrefix.size() - 1) +
                                " bytes at most together, without NUL"};
  }
  return Change(Home::kDisk, [&](Region&, std::vector<Row>* rows) {
    rows->push_back({key, TextOf(fault)});
    return Status();
  });
}

Status Store::ClearFault(std::string_view call, std::string_view path) {
  return Change(Home::kDisk, [key = KeyOf(call, path)](Region& region, std::vector<Row>* rows) {
    std::optional<Value> held;
    if (Table(region).Read(key, &held) != Code::kMissing) {
      rows->push_back({key, std::nullopt});
    }
    return Status();
  });
}

Status Store::ClearFaults() {
  return Change(Home::kDisk, [](Region& region, std::vector<Row>* rows) {
    std::vector<Entry> held;
    static_cast<void>(Table(region).List(kFaultPrefix, &held));  // a fault that cannot be read stays
    for (Entry& entry : held) {
      rows->push_back({std::move(entry.path), std::nullopt});
    }
    return Status();
  });
}

Result<std::vector<Fault>> Store::ListFaults() {
  Region& now = region();
  std::vector<Entry> held;
  const Code code = Table(now).List(kFaultPrefix, &held);
  std::vector<Fault> faults;
  for (const Entry& entry : held) {
    if (auto fault = FaultOf(entry.path, entry.value)) {
      faults.push_back(*std::move(fault));
    }
  }
  Status status = LogRead(ToStatus(now.IsWhole() ? code : Code::kDamaged, kFaultPrefix, now));
  return status.ok() ? Result(std::move(faults)) : std::move(status);
}

std::optional<int> Store::ConsumeFault(std::string_view call, std::string_view path) {
  for (const std::string_view at : {path, kAnyPath}) {
    const std::string key = KeyOf(call, at);
    std::optional<Fault> found = Find(Table(region()), key);
    if (found && found->times > 0) {
      // Read again under the lock: another process may have used it up or cleared it. If the change fails, the fault
      // applies and is not counted.
      static_cast<void>(Change(Home::kDisk, [&](Region& region, std::vector<Row>* rows) {
        found = Find(Table(region), key);
        if (found && found->times > 0) {
          Fault left = *found;
          --left.times;
          rows->push_back({key, left.times > 0 ? std::optional<Value>(TextOf(left)) : std::nullopt});
        }
        return Status();
      }));
    }
    if (found) {
      return found->answer;
    }
  }
  return std::nullopt;
}

}  // namespace vconf
