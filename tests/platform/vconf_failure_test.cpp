// The store when processes die, stop or fork, or when its files are replaced. Each case made an earlier design lose
// data or hang.

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <future>
#include <thread>

#include "layout.h"
#include "support/vconf_fixture.h"

namespace {

bool g_forked = false;
int g_sync_error = 0;     // of each `fdatasync`, which SQLite calls
std::string g_immovable;  // no `rename` moves a file to a path that contains this

}  // namespace

/// A forked child has no leak check: there the sanitizer would not search the stacks of the parent's other threads.
extern "C" int __lsan_is_turned_off() { return g_forked ? 1 : 0; }  // NOLINT: the sanitizer's own name

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

class VconfFailureTest : public VconfTest {
 protected:
  static void Count(keynode_t* /*node*/, void* count) { ++*static_cast<std::atomic<int>*>(count); }
  /// Holds SQLite's write lock until this process ends. It is in the index of the log.
  bool LockLog() const {
    struct flock lock = {.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 120, .l_len = 1, .l_pid = 0};
    return fcntl(open((file() + "-shm").c_str(), O_RDWR | O_CLOEXEC), F_SETLK, &lock) == 0;
  }
};

TEST_F(VconfFailureTest, AForkedChildMayUseTheStoreAndExit) {
  Open({{"db/a", 1}, {"memory/b", 1}});
  std::atomic<int> calls{0};
  ASSERT_GE(vconf_notify_key_changed("memory/b", Count, &calls), 0);
  ASSERT_EQ(vconf_set_int("db/a", 2), 0);
  for (const bool writes : {false, true}) {
    const pid_t child = fork();
    if (child == 0) {
      bool has_database = false;  // SQLite does not allow a child to use a database that its parent opened
      for (const auto& each : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        has_database = has_database || fs::read_symlink(each.path(), gone) == fs::canonical(file());
      }
      const bool right = !has_database && GetInt("db/a", 0) >= 2 && vconf::SubscriptionCount() == 0 &&
                         (!writes || (vconf_set_int("db/a", 3) == 0 && vconf_set_int("memory/b", 3) == 0));
      g_forked = true;
      exit(right ? 0 : 1);  // NOLINT(concurrency-mt-unsafe): exit handlers must run
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(GetInt("db/a", 0), 3);
  ASSERT_EQ(vconf_set_int("db/a", 4), 0);
  vconf::Settle();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(Log().empty());
}

TEST_F(VconfFailureTest, ACallbackMayForkAChildThatExitsOrReturns) {
  Open({{"memory/b", 1}});
  std::atomic<int> calls{0};
  const auto fork_once = [](keynode_t*, void* count) {
    const int call = ++*static_cast<std::atomic<int>*>(count);
    const pid_t child = fork();
    if (child == 0 && call == 1) {
      g_forked = true;
      exit(GetInt("memory/b", 0) == 2 ? 0 : 1);  // NOLINT(concurrency-mt-unsafe)
    }
    int status = -1;
    if (child > 0 && (waitpid(child, &status, 0) != child || status != 0)) {
      *static_cast<std::atomic<int>*>(count) = -100;
    }
  };
  ASSERT_GE(vconf_notify_key_changed("memory/b", fork_once, &calls), 0);
  for (int value = 2; value <= 3; ++value) {
    ASSERT_EQ(vconf_set_int("memory/b", value), 0);
    vconf::Settle();
    EXPECT_EQ(calls, value - 1);
  }
}

TEST_F(VconfFailureTest, AStoppedOrKilledReaderDoesNotMakeTheStoreGrow) {
  Open({{"db/a", 0}});
  Process reader([] {
    while (GetInt("db/a", -1) >= 0) {
    }
  });
  const auto size = [&] { return fs::file_size(file()) + fs::file_size(file() + "-wal") + fs::file_size(region()); };
  std::uintmax_t after_some = 0;
  for (int i = 1; i <= 3'000; ++i) {
    ASSERT_EQ(vconf_set_int("db/a", i), 0);
    if (i == 1'000) {
      reader.Stop();
      after_some = size();
    }
    if (i == 2'000) reader.Kill();
  }
  EXPECT_LT(size(), after_some + 1'000'000) << "only the ring of kept changes may grow";
  EXPECT_EQ(GetInt("db/a", 0), 3'000);
}

TEST_F(VconfFailureTest, AStoppedWriterIsNamedAndBlocksNoReader) {
  if (!HasRobustLocks()) GTEST_SKIP() << kNoRobustLocks;
  for (const std::string path : {"db/a", "memory/a"}) {
    const std::vector<vconf::Entry> initial = {{"db/a", 0}, {"memory/a", 0}};
    // Opens no store before the fork: a process that opens its first store after a fork must be named too.
    EXPECT_EQ(Process([&] { return vconf::OpenOrCreateStore(directory(), initial).ok() ? 0 : 1; }).Wait(), 0);
    Process writer([&] {
      for (int i = 1; vconf::OpenStore(directory()).ok() || true; ++i) vconf_set_int(path.c_str(), i);
      return 1;
    });
    Open();
    vconf::Status status;
    // It stops at a random moment, often while it has the lock, sometimes before it has written its process id there.
    while (status.ok() || status.text().find("another process") != std::string::npos) {
      writer.Signal(SIGCONT);
      const int last = GetInt(path, 0);
      while (GetInt(path, 0) == last) std::this_thread::yield();
      writer.Stop();
      const auto before = std::chrono::steady_clock::now();
      EXPECT_GE(GetInt(path, -1), last);
      if (path == "db/a" && vconf_set_int("memory/b", 1) != 0) continue;  // it stopped while publishing
      EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
      // Two threads wait at the same time, not one after the other.
      const auto begun = std::chrono::steady_clock::now();
      auto parallel = std::async(std::launch::async, [&] { return vconf::Set(path, 0); });
      // If the writer has the lock for publishing, this call waits for it twice.
      auto disk = std::async(std::launch::async, [&] { return vconf::Set("db/b", 0); });
      status = vconf::Set(path, 0);
      EXPECT_EQ(parallel.get().code(), status.code());
      EXPECT_EQ(disk.get().code(), status.code());
      EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(9));
    }
    EXPECT_EQ(status.code(), Code::kBusy) << status.text();
    EXPECT_NE(status.text().find("process " + std::to_string(writer.id())), std::string::npos)
        << status.text() << ", not " << writer.id() << "; this is " << getpid();
    writer.Kill();
    writer.Wait();
    EXPECT_EQ(vconf::Set(path, 3).text(), "");
    EXPECT_EQ(GetInt(path, 0), 3);
    vconf::CloseStore();
    fs::remove_all(directory());
  }
}

TEST_F(VconfFailureTest, AProcessThatLocksAFileTooLongIsNamed) {
  Open({{"db/a", 0}});
  ASSERT_EQ(vconf_set_int("db/a", 1), 0);
  const std::string other = folder() + "/other";
  fs::create_directory(other);
  const Steps steps;
  Process holder([&] {
    const int folder = open(other.c_str(), O_RDONLY | O_CLOEXEC);
    steps.AwaitParent();
    EXPECT_TRUE(LockLog() && flock(folder, LOCK_EX) == 0);
    steps.SignalParent();
    steps.AwaitParent();
  });
  const std::string name = "process " + std::to_string(holder.id());
  const Steps go_on;
  Process maker([&] {
    vconf::CloseStore();
    go_on.AwaitParent();
    const auto opened = vconf::OpenOrCreateStore(other, {});
    EXPECT_EQ(opened.code(), Code::kBusy);
    EXPECT_NE(opened.text().find(name), std::string::npos) << opened.text();
  });
  ASSERT_EQ(vconf_set_int("db/a", 1), 0);
  steps.SignalChild();
  steps.AwaitChild();
  go_on.SignalChild();
  const auto written = vconf::Set("db/a", 2);
  EXPECT_EQ(written.code(), Code::kBusy);
  EXPECT_NE(written.text().find(name), std::string::npos) << written.text();
  EXPECT_EQ(maker.Wait(), 0);
  steps.SignalChild();
}

TEST_F(VconfFailureTest, MountNamespacesShareAStore) {
  Open({{"db/a", 0}});
  vconf::CloseStore();
  const std::string elsewhere = folder() + "/elsewhere";
  fs::create_directory(elsewhere);
  const Steps steps;
  Process other([&] {
    const int user = geteuid() == 0 ? 0 : CLONE_NEWUSER;
    const bool mounted = unshare(CLONE_NEWNS | user) == 0 &&
                         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount(directory().c_str(), elsewhere.c_str(), nullptr, MS_BIND, nullptr) == 0;
    steps.SignalParent();
    steps.AwaitParent();
    if (!mounted) return 77;
    if (!vconf::OpenStore(elsewhere).ok()) return 1;
    for (int i = 1; i <= 10; ++i) {
      if (vconf_set_int("db/a", i) != 0 || vconf_set_int("memory/a", i) != 0) return 2;
    }
    return GetInt("memory/own", 0) == 1 ? 0 : 3;
  });
  steps.AwaitChild();
  Open();
  std::vector<Change> changes;
  const auto watch = *vconf::WatchPrefix("", [&](const Change& change) { changes.push_back(change); });
  ASSERT_EQ(vconf_set_int("memory/own", 1), 0);
  steps.SignalChild();
  const int status = other.Wait();
  if (status == 77) GTEST_SKIP() << "this user may not mount";
  EXPECT_EQ(status, 0);
  vconf::Settle();
  EXPECT_EQ(changes.size(), 21U);
}

TEST_F(VconfFailureTest, RootMayOpenTheStoreBeforeItsOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "requires root";
  constexpr uid_t kNobody = 65534;
  fs::permissions(folder(), fs::perms::all);
  const auto as_owner = [&](auto&& body) {
    return Process([&] {
             vconf::CloseStore();
             return setgid(kNobody) == 0 && setuid(kNobody) == 0 ? body() : 99;
           })
        .Wait();
  };
  EXPECT_EQ(as_owner([&] { return vconf::OpenOrCreateStore(directory(), {{"db/a", 1}}).ok() ? 0 : 1; }), 0);
  fs::remove(region());  // as after a boot
  for (const char* suffix : {"-wal", "-shm"}) fs::remove(file() + suffix);
  Open();
  EXPECT_EQ(vconf_set_int("db/a", 2) | vconf_set_int("memory/a", 2), 0);
  EXPECT_EQ(as_owner([&] {
              return vconf::OpenStore(directory()).ok() && vconf_set_int("db/a", 3) == 0 &&
                             GetInt("memory/a", 0) == 2 && vconf_set_int("memory/a", 3) == 0
                         ? 0
                         : 1;
            }),
            0);
  EXPECT_EQ(GetInt("db/a", 0), 3);
}

TEST_F(VconfFailureTest, ACopyIsASeparateStoreAndAMovedStoreIsTheSame) {
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

TEST_F(VconfFailureTest, PlantedFilesAreNotFollowed) {
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

TEST_F(VconfFailureTest, AProcessWithAReplacedStoreOpenUsesTheNewOne) {
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

TEST_F(VconfFailureTest, EndingASubscriptionDoesNotWaitForOthers) {
  Open();
  struct Other {
    std::promise<void> running;
    std::promise<void> go_on;
    static void Call(keynode_t* node, void* self) {
      vconf_ignore_key_changed(node->keyname, Call);
      static_cast<Other*>(self)->running.set_value();
      static_cast<Other*>(self)->go_on.get_future().wait();
    }
  } other;
  std::atomic<int> calls{0};
  ASSERT_GE(vconf_notify_key_changed("memory/other", Other::Call, &other), 0);
  ASSERT_GE(vconf_notify_key_changed("memory/a", Count, &calls), 0);
  ASSERT_EQ(vconf_set_int("memory/other", 1), 0);
  other.running.get_future().wait();
  EXPECT_GE(vconf_ignore_key_changed("memory/a", Count), 0);  // must not block
  other.go_on.set_value();
  vconf::CloseStore();  // waits for the running call
  vconf::Settle();      // now `other` may be destroyed
}

TEST_F(VconfFailureTest, AProcessThatWaitsForChangesSleepsUntilThereIsOne) {
  Open();
  vconf::CloseStore();
  const Steps steps;
  Process other([&] {
    const auto echo = [](keynode_t*, void*) { vconf_set_int("memory/echo", GetInt("memory/a", 0)); };
    if (!vconf::OpenStore(directory()).ok() || vconf_notify_key_changed("memory/a", echo, nullptr) != 0) return 1;
    steps.SignalParent();
    steps.AwaitParent();
    vconf::Settle();
    steps.SignalParent();
    steps.AwaitParent();
    return 0;
  });
  steps.AwaitChild();
  Open();
  std::atomic<int> calls{0};
  ASSERT_GE(vconf_notify_key_changed("memory/a", Count, &calls), 0);
  std::atomic<int> echoed{0};
  auto watch = *vconf::WatchPrefix("memory/echo", [&](const Change& change) {
    echoed = std::get<int>(*change.value);
    echoed.notify_one();
  });
  int late = 0;
  for (int i = 1; i <= 200; ++i) {
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_EQ(vconf_set_int("memory/a", i), 0);
    for (int last = 0; (last = echoed) != i;) echoed.wait(last);
    late += std::chrono::steady_clock::now() - begun > std::chrono::milliseconds(500) ? 1 : 0;
    ASSERT_LT(late, 5) << "a listener that is not woken checks the store once a second";
  }
  watch.reset();
  steps.SignalChild();
  steps.AwaitChild();
  const auto wakes = [&] {
    long sum = 0;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(other.id()) + "/task")) {
      const std::string status = Contents(task.path() / "status");
      if (status.find("vconf-notify") != std::string::npos) {
        constexpr std::string_view kField = "\nvoluntary_ctxt_switches:";
        sum += std::stol(status.substr(status.find(kField) + kField.size()));
      }
    }
    return sum;
  };
  const long before = wakes();
  const auto begun = std::chrono::steady_clock::now();
  for (int i = 0; i < 500; ++i) {
    vconf::Settle();
    // Ending the last subscription of this process must not wake the other process either.
    ASSERT_GE(vconf_ignore_key_changed("memory/a", Count), 0);
    ASSERT_GE(vconf_notify_key_changed("memory/a", Count, &calls), 0);
  }
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begun).count();
  EXPECT_LE(wakes() - before, 10 + 2 * seconds) << "it checks the store once a second";
  steps.SignalChild();
  EXPECT_EQ(other.Wait(), 0);
}

TEST_F(VconfFailureTest, AnUnpublishedCommitIsPublishedAtOpeningOrByTheNextWriter) {
  for (const bool at_opening : {true, false}) {
    fs::remove_all(directory());
    Open({{"db/a", 1}, {"db/gone", 1}});
    const std::string before = Contents(region());
    ASSERT_EQ(vconf_set_int("db/a", 2), 0);
    ASSERT_EQ(vconf::Remove("db/gone").text(), "");
    if (at_opening) vconf::CloseStore();
    const auto published = [this] {
      std::uint64_t number = 0;
      std::memcpy(&number, Contents(region()).data() + offsetof(vconf::layout::Header, published), sizeof number);
      return number;
    };
    const std::uint64_t committed = published();
    // The state that a writer leaves that dies after its commits.
    Overwrite(region(), 0, before);
    Overwrite(region(), offsetof(vconf::layout::Header, committing), std::string("\1\0\0\0", 4));
    if (at_opening) Open();
    std::vector<Change> changes;
    const auto watch = *vconf::WatchPrefix("", [&](const Change& change) { changes.push_back(change); });
    ASSERT_EQ(vconf_set_int("db/b", 3), 0);
    vconf::Settle();
    EXPECT_EQ(GetInt("db/a", 0), 2);
    EXPECT_EQ(vconf::Get("db/gone").status().code(), Code::kMissing);
    EXPECT_EQ(changes.size(), at_opening ? 1U : 3U);
    EXPECT_EQ(published(), committed + 2) << "each commit has a number of its own";
    vconf::CloseStore();
  }
}

TEST_F(VconfFailureTest, ChangesThatADeadWriterBeganToPublishArePublished) {
  if (!HasRobustLocks()) GTEST_SKIP() << kNoRobustLocks;
  Open({{"memory/a", 1}, {"memory/b", 1}, {"memory/c", 1}});
  EXPECT_EQ(Process([&] {
              using namespace vconf::layout;
              const int file = open(region().c_str(), O_RDWR | O_CLOEXEC);
              void* const base = mmap(nullptr, kMaxSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
              if (base == MAP_FAILED || vconf_set_int("memory/a", 2) != 0 || vconf_set_int("memory/b", 2) != 0)
                return 1;
              // Back to the moment of publishing both: one value is readable, but its change is not counted yet. The
              // process then exits with the lock.
              auto& header = *static_cast<Header*>(base);
              const std::uint64_t number = header.last;
              const std::uint32_t key = header.ring[static_cast<std::size_t>(number) % header.records].key;
              if (pthread_mutex_lock(&header.lock.mutex) != 0) return 2;
              header.last = number - 2;
              reinterpret_cast<Key*>(static_cast<char*>(base) + key)->version -= 1;
              return 0;
            }).Wait(),
            0);
  std::vector<std::string> paths;
  const auto watch = *vconf::WatchPrefix("", [&](const Change& change) { paths.push_back(change.path); });
  EXPECT_EQ(GetInt("memory/b", 0), 1);
  ASSERT_EQ(vconf_set_int("memory/c", 2), 0);
  vconf::Settle();
  EXPECT_EQ(GetInt("memory/a", 0), 2) << "a readable value is not undone";
  EXPECT_EQ(GetInt("memory/b", 0), 2);
  EXPECT_EQ(paths, (std::vector<std::string>{"memory/a", "memory/b", "memory/c"}));
}

TEST_F(VconfFailureTest, ATextIsReadWholeWhileItIsWritten) {
  Open({{"memory/text", std::string(60'000, 'a')}});
  std::jthread writer([](const std::stop_token& stop) {
    for (char letter = 'a'; !stop.stop_requested(); letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1)) {
      EXPECT_TRUE(vconf::Set("memory/text", std::string(60'000, letter)).ok());
    }
  });
  for (int i = 0; i < 2'000; ++i) {
    const auto value = vconf::Get("memory/text");
    ASSERT_TRUE(value.ok()) << value.status().text();
    const auto& text = std::get<std::string>(*value);
    ASSERT_EQ(text, std::string(60'000, text[0]));
  }
}

TEST_F(VconfFailureTest, AFullRegionCanBeEmptied) {
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
  for (int i = 0; i < 500; ++i) ASSERT_EQ(vconf::Set("memory/grows", text.substr(0, 61'000 + 8 * i)).text(), "");
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

TEST_F(VconfFailureTest, AChangeThatDoesNotFitOnTheDiskIsUndone) {
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

TEST_F(VconfFailureTest, AChangeThatCouldNotBeSyncedIsTheSameInMemoryAndOnDisk) {
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

TEST_F(VconfFailureTest, AStoreOfThePreviousVersionIsConvertedOnce) {
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
