// Reads the files of the previous version: an LMDB environment with one tree. The library is loaded only when such
// files are found, so the build depends neither on it nor on its header.
#include <dlfcn.h>

#include <cstring>
#include <memory>
#include <string_view>

#include "store_files.h"

namespace vconf::store_files {
namespace {

enum class Tag : std::uint8_t { kInt = 1, kBool = 2, kText = 3 };

std::uint64_t Mix(std::uint64_t hash, std::string_view bytes) {
  const auto step = [&hash](std::uint64_t chunk) {
    hash = (hash ^ chunk) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 32U;
  };
  step(bytes.size());
  while (!bytes.empty()) {
    std::uint64_t chunk = 0;
    const std::size_t size = std::min(bytes.size(), sizeof chunk);
    std::memcpy(&chunk, bytes.data(), size);
    step(chunk);
    bytes.remove_prefix(size);
  }
  return hash;
}

// A record is a checksum over its key and the rest, a tag, and the value in native byte order.
std::optional<Value> Decode(std::string_view key, std::string_view record) {
  std::uint64_t checksum = 0;
  if (record.size() < sizeof checksum + 1) {
    return std::nullopt;
  }
  std::memcpy(&checksum, record.data(), sizeof checksum);
  record.remove_prefix(sizeof checksum);
  if (checksum != Mix(Mix(0, key), record)) {
    return std::nullopt;
  }
  const auto tag = static_cast<Tag>(record.front());
  record.remove_prefix(1);
  int number = 0;
  if (tag == Tag::kInt && record.size() == sizeof number) {
    std::memcpy(&number, record.data(), sizeof number);
    return number;
  }
  if (tag == Tag::kBool && record.size() == 1) {
    return record.front() != 0;
  }
  return tag == Tag::kText ? std::optional<Value>(std::string(record)) : std::nullopt;
}

// As in lmdb.h.
struct MDB_env;
struct MDB_txn;
struct MDB_cursor;
using MDB_dbi = unsigned;
struct MDB_val {
  std::size_t mv_size;
  void* mv_data;
};
constexpr unsigned kReadOnly = 0x20000;
constexpr unsigned kNoLock = 0x400000;
constexpr int kNext = 8;
constexpr int kNotFound = -30798;

class Library {
 public:
  bool loaded() const { return handle_ != nullptr; }

  /// Calls the function `name`, which returns a status or nothing.
  template <typename... Arguments>
  int Call(const char* name, Arguments... arguments) const {
    auto* const function = reinterpret_cast<int (*)(Arguments...)>(dlsym(handle_, name));
    return function != nullptr ? function(arguments...) : kNotFound - 1;
  }

 private:
  void* handle_ = dlopen("liblmdb.so.0", RTLD_NOW | RTLD_LOCAL);
};

}  // namespace

Status ReadOldStore(const Folder& folder, const std::function<void(Row)>& visit) {
  const std::string file = folder.File(Folder::kOldStore);
  const Library library;
  if (!library.loaded()) {
    return {Code::kFailed,
            file + ": is of an earlier version; install liblmdb0, which reads it, and open the store again"};
  }
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi tree = 0;
  MDB_cursor* cursor = nullptr;
  int result = library.Call("mdb_env_create", &env);
  const auto then = [&](const char* name, auto... arguments) {
    result = result == 0 ? library.Call(name, arguments...) : result;
  };
  const char* const no_name = nullptr;
  MDB_txn* const no_parent = nullptr;
  then("mdb_env_set_mapsize", env, std::size_t{256} << 20U);
  then("mdb_env_open", env, folder.path().c_str(), kReadOnly | kNoLock, mode_t{0600});
  then("mdb_txn_begin", env, no_parent, kReadOnly, &txn);
  then("mdb_dbi_open", txn, no_name, 0U, &tree);
  then("mdb_cursor_open", txn, tree, &cursor);
  bool sound = result == 0;
  MDB_val key{};
  MDB_val record{};
  while (sound && (result = library.Call("mdb_cursor_get", cursor, &key, &record, kNext)) == 0) {
    const std::string path(static_cast<const char*>(key.mv_data), key.mv_size);
    if (path.starts_with("db/") || path.starts_with("set/")) {
      auto value = Decode(path, {static_cast<const char*>(record.mv_data), record.mv_size});
      sound = value.has_value();
      visit({path, std::move(value)});
    }
  }
  if (cursor != nullptr) {
    library.Call("mdb_cursor_close", cursor);
  }
  if (txn != nullptr) {
    library.Call("mdb_txn_abort", txn);
  }
  library.Call("mdb_env_close", env);
  return sound && result == kNotFound ? Status()
                                      : Status(Code::kDamaged, file + ": is damaged; restore it, or replace the store");
}

}  // namespace vconf::store_files
