#include "rows.h"

#include <utility>

namespace vconf {
namespace {

const Value* ValueOf(const Row& row) { return row.value ? &*row.value : nullptr; }

}  // namespace

Code PrepareAll(Table& table, const std::vector<Row>& rows, std::vector<std::uint32_t>* keys) {
  Code code = Code::kOk;
  for (const Row& row : rows) {
    std::uint32_t key = 0;
    code = code == Code::kOk ? table.Prepare(row.path, ValueOf(row), &key) : code;
    if (code == Code::kOk) {
      keys->push_back(key);
    }
  }
  if (code != Code::kOk) {
    table.Drop(*keys);
  }
  return code;
}

void Difference(const std::vector<Entry>& held, const Wanted& wanted, std::vector<Row>* rows) {
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

}  // namespace vconf
