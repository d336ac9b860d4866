// The files of the version before this one: an LMDB environment with one tree. The library is loaded when such files
// are found, so nothing else depends on it; where its header is missing, they cannot be read.
#include <dlfcn.h>

#include <cstring>
#include <memory>
#include <string_view>

#include "making.h"

#if __has_include(<lmdb.h>)
#include <lmdb.h>

namespace vconf::making {
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

// A record is a checksum over its key and what follows, a tag, and the value in the machine's own order.
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

struct Library {
  void* handle = dlopen("liblmdb.so.0", RTLD_NOW | RTLD_LOCAL);

  template <typename Function>
  Function* Find(Function* /*type*/, const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle, name));
  }
};
#define LMDB_CALL(name) (library.Find(decltype(&name){nullptr}, #name))

}  // namespace

Status ReadOldStore(const Folder& folder, const std::function<void(Row)>& visit) {
  const std::string file = folder.File(Folder::kOldStore);
  const Library library;
  if (library.handle == nullptr) {
    return {Code::kFailed, file + ": is of an earlier version; install liblmdb0, which reads it, and open it again"};
  }
  const Status damaged(Code::kDamaged, file + ": is damaged");
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi tree = 0;
  MDB_cursor* cursor = nullptr;
  int result = LMDB_CALL(mdb_env_create)(&env);
  if (result == 0) {
    result = LMDB_CALL(mdb_env_set_mapsize)(env, std::size_t{256} << 20U);
  }
  if (result == 0) {
    result = LMDB_CALL(mdb_env_open)(env, folder.path().c_str(), MDB_RDONLY | MDB_NOLOCK, 0600);
  }
  if (result == 0) {
    result = LMDB_CALL(mdb_txn_begin)(env, nullptr, MDB_RDONLY, &txn);
  }
  if (result == 0) {
    result = LMDB_CALL(mdb_dbi_open)(txn, nullptr, 0, &tree);
  }
  if (result == 0) {
    result = LMDB_CALL(mdb_cursor_open)(txn, tree, &cursor);
  }
  bool sound = result == 0;
  MDB_val key{};
  MDB_val record{};
  while (sound && (result = LMDB_CALL(mdb_cursor_get)(cursor, &key, &record, MDB_NEXT)) == 0) {
    const std::string path(static_cast<const char*>(key.mv_data), key.mv_size);
    if (path.starts_with("db/") || path.starts_with("set/")) {
      auto value = Decode(path, {static_cast<const char*>(record.mv_data), record.mv_size});
      sound = value.has_value();
      visit({path, std::move(value)});
    }
  }
  if (txn != nullptr) {
    LMDB_CALL(mdb_txn_abort)(txn);
  }
  LMDB_CALL(mdb_env_close)(env);
  return sound && result == MDB_NOTFOUND ? Status() : damaged;
}

}  // namespace vconf::making

#else

vconf::Status vconf::making::ReadOldStore(const Folder& folder, const std::function<void(Row)>& /*visit*/) {
  return {Code::kFailed, folder.File(Folder::kOldStore) + ": is of an earlier version, which this build does not read"};
}

#endif
