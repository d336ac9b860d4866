// The files of the store: copied, moved, planted by others, replaced while in use, full, not synced, or of the previous
// version.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <future>
#include <random>
#include <thread>

#include "layout.h"
#include "support/vconf_fixture.h"

namespace {

int g_sync_error = 0;     // of each `fdatasync`, which SQLite calls
std::string g_immovable;  // no `rename` moves a file to a path that contains this

}  // namespace

extern "C" int fdatasync(int file) {
  errno = g_sync_error;
  return errno != 0 ? -1 : static_cast<int>(syscall(SYS_fdatasync, file));
}
extern "C" int rename(const char* from, const char* to) noexcept {
  errno = EXDEV;
  const bool moves = g_immovable.empty() || std::string_view(to).find(g_immovable) == std::string_view::npos;
  return moves ? renameat(AT_FDCWD, from, AT_FDCWD, to) : -1;
}

namespace {

namespace fs = std::filesystem;
using vconf::Change;
using vconf::Code;
using VconfFilesTest = VconfTest;

TEST_F(VconfFilesTest, AProcessKilledWhileReplacingLeavesOneStoreForAll) {
  Open({{"memory/round", 0}});
  std::mt19937 random(7);  // NOLINT(cert-msc51-cpp)
  for (int round = 1; round <= 60; ++round) {
    {
      Process replacer([&] { static_cast<void>(vconf::ReplaceStore(directory(), {{"db/a", 1}})); });
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 6'000));  // until the random moment of the kill
    }
    EXPECT_EQ(Process([&] {
                vconf::CloseStore();
                return vconf::OpenOrCreateStore(directory(), {}).ok() && vconf_set_int("memory/round", round) == 0 ? 0
                                                                                                                   : 1;
              }).Wait(),
              0);
    ASSERT_EQ(GetInt("memory/round", 0), round);
  }
}

TEST_F(VconfFilesTest, ACopyIsASeparateStoreAndAMovedStoreIsTheSame) {
  Open({{"db/a", 1}, {"memory/a", 1}});
  ASSERT_EQ(vconf_set_int("db/a", 2), 0);
  const std::string copy = folder() + "/copy";
  fs::copy(directory(), copy, fs::copy_options::recursive);
  EXPECT_EQ(Process([&] {
              vconf::CloseStore();
              return vconf::OpenStore(copy).ok() && GetInt("db/a", 0) == 2 && GetInt("memory/a", 7) == 7 &&
                             vconf_set_int("db/a", 5) == 0 && vconf_set_int("memory/a", 5) == 0
                         ? 0
                         : 1;
            }).Wait(),
            0);
  EXPECT_EQ(GetInt("db/a", 0), 2);
  EXPECT_EQ(GetInt("memory/a", 0), 1);
  vconf::CloseStore();
  // A region that was replaced by a copy must not be used: processes that have the original open would not see it.
  fs::copy_file(region(), copy + "/live", fs::copy_options::overwrite_existing);
  fs::rename(region(), copy + "/original");
  fs::rename(copy + "/live", region());
  Open();
  EXPECT_EQ(GetInt("memory/a", 7), 7);
  EXPECT_EQ(GetInt("db/a", 0), 2);
  ASSERT_EQ(vconf_set_int("memory/a", 1), 0);
  vconf::CloseStore();
  const std::string moved = folder() + "/moved";
  fs::rename(directory(), moved);
  ASSERT_TRUE(vconf::OpenStore(moved).ok());
  EXPECT_EQ(GetInt("memory/a", 0), 1);
  // The folder is removed while it is in use: each write must fail.
  fs::remove_all(moved);
  EXPECT_EQ(vconf::Set("db/a", 3).code(), Code::kRemoved);
  EXPECT_EQ(vconf::Set("memory/a", 3).code(), Code::kRemoved);
  EXPECT_EQ(GetInt("db/a", 0), 2);
}

TEST_F(VconfFilesTest, PlantedFilesAreNotFollowed) {
  Open({{"db/a", 1}});
  ASSERT_EQ(vconf_set_int("db/a", 2), 0);
  vconf::CloseStore();
  const std::string victim = folder() + "/victim";
  std::ofstream(victim) << "untouched";
  for (const std::string& file : {region(), this->file(), this->file() + "-wal", this->file() + "-shm"}) {
    const std::string backup = folder() + "/backup";
    fs::rename(file, backup);
    for (const bool link : {true, false}) {
      if (link) {
        fs::create_symlink(victim, file);
      } else {
        ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
      }
      const auto status = vconf::OpenOrCreateStore(directory(), {{"db/a", 9}});
      EXPECT_EQ(status.code(), Code::kNotPermitted) << status.text();
      EXPECT_NE(status.text().find(file), std::string::npos) << status.text();
      EXPECT_EQ(Contents(victim), "untouched");
      fs::remove(file);
    }
    if (geteuid() == 0) {  // a file of another user
      std::ofstream(file) << Contents(backup);
      ASSERT_EQ(chown(file.c_str(), 1234, 1234), 0);
      EXPECT_EQ(vconf::OpenStore(directory()).code(), Code::kNotPermitted);
    }
    fs::rename(backup, file);
  }
  Open();
  EXPECT_EQ(GetInt("db/a", 0), 2);
}

TEST_F(VconfFilesTest, AProcessWithAReplacedStoreOpenUsesTheNewOne) {
  Open({{"db/a", 1}, {"memory/a", 1}});
  vconf::CloseStore();
  const Steps steps;
  Process other([&] {
    std::atomic<int> calls{0};
    std::promise<void> notified;
    if (!vconf::OpenStore(directory()).ok() || vconf_set_int("db/a", 2) != 0) return 1;
    const auto watch = vconf::WatchPrefix("db/new", [&](const Change&) {
      if (++calls == 1) notified.set_value();
    });
    steps.SignalParent();
    notified.get_future().wait();
    steps.AwaitParent();
    vconf::Settle();
    return GetInt("db/a", 7) == 7 && GetInt("db/new", 0) == 5 && vconf_set_int("db/new", 6) == 0 ? 0 : 2;
  });
  steps.AwaitChild();
  Overwrite(file(), 0, Noise(4096, 3));
  const auto moved = vconf::ReplaceStore(directory(), {{"db/new", 4}});
  ASSERT_TRUE(moved.ok()) << moved.status().text();
  EXPECT_TRUE(fs::exists(*moved + "/keys.db"));
  Open();
  EXPECT_EQ(vconf_set_int("db/new", 5), 0);
  steps.SignalChild();
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(GetInt("db/new", 0), 6);
  g_immovable = "store.replaced-";
  EXPECT_EQ(*vconf::ReplaceStore(directory(), {}), directory() + "/replaced-1");
  g_immovable.clear();
  EXPECT_TRUE(fs::exists(directory() + "/replaced-1/keys.db") && !fs::exists(directory() + ".replaced-2"));
  EXPECT_EQ(Process([&] {
              vconf::CloseStore();
              return vconf::OpenStore(directory()).ok() && vconf::SetFault({"other_call", "*", 5, 0}).ok() ? 0 : 1;
            }).Wait(),
            0);
  EXPECT_EQ(vconf::TakeFault("other_call", "db/new"), 5) << "also if no other call was made meanwhile";
  std::atomic<int> calls{0};
  ASSERT_GE(vconf_notify_key_changed("db/new", Count, &calls), 0);
  ASSERT_TRUE(vconf::ReplaceStore(directory(), {{"db/new", 7}}).ok());
  vconf::Settle();
  EXPECT_EQ(calls, 1);
}

TEST_F(VconfFilesTest, AFullRegionCanBeEmptied) {
  using namespace vconf::layout;
  Open({{"db/a", 0}, {"db/text", std::string("short")}});
  std::promise<void> called;
  std::promise<void> go_on;
  std::atomic<int> calls{0};
  const auto watch = *vconf::WatchPrefix("memory/counted", [&](const Change&) {
    if (++calls > 1) return;
    called.set_value();
    go_on.get_future().wait();
  });
  ASSERT_EQ(vconf_set_int("memory/counted", 0), 0);
  called.get_future().wait();
  for (int i = 1; i < 4; ++i) ASSERT_EQ(vconf_set_int("memory/counted", i), 0);
  const std::string text(65'536, 'x');
  const auto size = fs::file_size(region());
  for (std::size_t i = 0; i < 500; ++i)
    ASSERT_EQ(vconf::Set("memory/grows", text.substr(0, 61'000 + 8 * i)).text(), "");
  EXPECT_LT(fs::file_size(region()), size + (1U << 20U));
  int count = 0;
  vconf::Status status;
  const auto fill = [&] {
    while ((status = vconf::Set("memory/text" + std::to_string(count), text)).ok()) ++count;
  };
  fill();
  EXPECT_EQ(status.code(), Code::kFull);
  EXPECT_GT(count, 500);
  EXPECT_EQ(vconf::Get("memory/text0")->index(), 2U);
  go_on.set_value();
  vconf::Settle();
  EXPECT_EQ(calls, 2) << "what is freed is no longer kept as a change";

  // What is prepared for a write that waits for the disk stays when a write in memory frees the rest.
  for (int i = 0; i < 2; ++i) ASSERT_EQ(vconf::Remove("memory/text" + std::to_string(--count)).text(), "");
  const int file = open(region().c_str(), O_RDONLY | O_CLOEXEC);
  void* const base = mmap(nullptr, kMaxSize, PROT_READ, MAP_SHARED, file, 0);
  close(file);
  ASSERT_NE(base, MAP_FAILED);
  const std::string_view bytes(static_cast<char*>(base), kMaxSize);
  const auto& key = *reinterpret_cast<const Key*>(bytes.data() + bytes.find("db/text") - sizeof(Key));
  const Slot& next = key.slots[(key.version + 1) % 2];
  const Steps steps;
  Process holder([&] {
    steps.AwaitParent();
    EXPECT_TRUE(LockLog());
    steps.SignalParent();
    steps.AwaitParent();
  });
  EXPECT_EQ(vconf_set_int("db/a", 1), 0);
  steps.SignalChild();
  steps.AwaitChild();
  auto write = std::async(std::launch::async, [&] { return vconf::Set("db/text", text); });
  while (next.form != FormOf(kText, kMaxText) &&
         write.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
  }
  fill();
  EXPECT_EQ(write.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
      << "should wait for the other process";
  steps.SignalChild();
  EXPECT_EQ(write.get().text(), "");
  const auto written = vconf::Get("db/text");
  EXPECT_TRUE(written.ok() && *written == vconf::Value(text)) << written.status().text();
  munmap(base, kMaxSize);

  // A process that dies while it frees memory may lose the list of free blocks; the next allocation finds them again.
  const int half = count / 2;
  for (int i = 0; i < half; ++i) ASSERT_EQ(vconf::Remove("memory/text" + std::to_string(i)).text(), "");
  ASSERT_EQ(vconf::Set("memory/text0", text).text(), "");
  Overwrite(region(), offsetof(vconf::layout::Header, free), std::string(sizeof(vconf::layout::Header::free), '\0'));
  for (int i = 1; i < half; ++i) ASSERT_EQ(vconf::Set("memory/other" + std::to_string(i), text).text(), "");
  for (const auto& entry : *vconf::List("memory/")) ASSERT_EQ(vconf::Remove(entry.path).text(), "");
  for (int i = 0; i < 20'000; ++i) ASSERT_EQ(vconf_set_int(("memory/number" + std::to_string(i)).c_str(), i), 0);
  EXPECT_EQ(vconf::Reset({{"memory/last", text}}).text(), "");
  EXPECT_EQ(vconf_set_int("db/a", 1), 0);
  EXPECT_EQ(vconf::List("")->size(), 2U);
}

TEST_F(VconfFilesTest, AChangeThatDoesNotFitOnTheDiskIsUndone) {
  const auto texts = [](std::size_t size, char letter) {
    std::vector<vconf::Entry> entries = {{"db/a", 0}};
    for (int i = 0; i < 20; ++i)
      entries.push_back({std::string("db/text") + static_cast<char>('A' + i), std::string(size, letter)});
    return entries;
  };
  EXPECT_EQ(Process([&] {
              Open(texts(33'000, 'a'));
              EXPECT_EQ(vconf::Reset(texts(33'000, 'b')).text(), "");  // the region has room for the next texts now
              signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{static_cast<rlim_t>(fs::file_size(file() + "-wal")), RLIM_INFINITY};
              EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
              EXPECT_EQ(vconf::Reset(texts(60'000, 'c')).code(), Code::kFull);
              EXPECT_EQ(*vconf::List(""), texts(33'000, 'b'));
              EXPECT_EQ(vconf_set_int("db/a", 1), 0);
            }).Wait(),
            0);
  fs::remove(region());  // as after a boot
  Open();
  EXPECT_EQ(GetInt("db/a", 0), 1);
  EXPECT_EQ(*vconf::Get("db/textA"), vconf::Value(std::string(33'000, 'b')));
}

TEST_F(VconfFilesTest, AChangeThatCouldNotBeSyncedIsTheSameInMemoryAndOnDisk) {
  for (const int error : {EIO, ENOSPC}) {
    fs::remove_all(directory());
    Open({{"db/a", 1}});
    ASSERT_EQ(vconf_set_int("db/a", 2), 0);
    g_sync_error = error;
    EXPECT_NE(vconf_set_int("db/a", 3), 0);
    g_sync_error = 0;
    // Reads what is committed. The failed commit is still in the log, and may be found there when that is opened anew.
    if (error == EIO) {
      EXPECT_EQ(vconf::Remove("db/none").code(), Code::kMissing);
    }
    Reopen();
    const int before = GetInt("db/a", 0);
    vconf::CloseStore();
    fs::remove(region());  // as after a boot
    Open();
    EXPECT_EQ(GetInt("db/a", 0), before);
    vconf::CloseStore();
  }
}

TEST_F(VconfFilesTest, AStoreOfThePreviousVersionIsConvertedOnce) {
  if (dlopen("liblmdb.so.0", RTLD_NOW) == nullptr || sizeof(void*) != 8) {
    GTEST_SKIP() << "requires liblmdb0 and a 64-bit machine, like the one that wrote the sample";
  }
  fs::create_directory(directory());
  fs::copy_file(VCONF_OLD_STORE, directory() + "/data.mdb");
  const std::vector<vconf::Entry> sample{
      {"db/number", 7}, {"db/switch", true}, {"db/text", std::string("Grüße")}, {"set/power", true}};
  Open({{"db/number", 1}});
  EXPECT_EQ(*vconf::List(""), sample);
  EXPECT_EQ(Contents(directory() + ".replaced-1/data.mdb"), Contents(VCONF_OLD_STORE));
  EXPECT_EQ(Log().size(), 1U);
  ASSERT_EQ(vconf_set_int("db/number", 8), 0);
  Reopen();
  EXPECT_EQ(GetInt("db/number", 0), 8);
  EXPECT_FALSE(fs::exists(directory() + "/data.mdb"));
  EXPECT_EQ(Log().size(), 1U);
  vconf::CloseStore();

  fs::remove_all(directory());
  fs::create_directory(directory());
  std::string damaged = Contents(VCONF_OLD_STORE);
  damaged.replace(damaged.find("Grüße"), 1, "g");
  std::ofstream(directory() + "/data.mdb") << damaged;
  EXPECT_EQ(vconf::OpenStore(directory()).code(), Code::kDamaged);
  EXPECT_EQ(Contents(directory() + "/data.mdb"), damaged);
}

}  // namespace
