// The store in several processes and threads: forks, and processes that wait, are stopped or die.

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <future>
#include <thread>

#include "layout.h"
#include "support/vconf_fixture.h"

namespace {

bool g_forked = false;

}  // namespace

/// A forked child has no leak check: there the sanitizer would not search the stacks of the parent's other threads.
extern "C" int __lsan_is_turned_off() { return g_forked ? 1 : 0; }  // NOLINT: the sanitizer's own name

namespace {

namespace fs = std::filesystem;
using vconf::Change;
using vconf::Code;
using VconfProcessTest = VconfTest;

TEST_F(VconfProcessTest, AForkedChildMayUseTheStoreAndExit) {
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

TEST_F(VconfProcessTest, ACallbackMayForkAChildThatExitsOrReturns) {
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

TEST_F(VconfProcessTest, AStoppedOrKilledReaderDoesNotMakeTheStoreGrow) {
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

TEST_F(VconfProcessTest, AStoppedWriterIsNamedAndBlocksNoReader) {
  if (!HasRobustLocks()) GTEST_SKIP() << kNoRobustLocks;
  for (const std::string path : {"db/a", "memory/a"}) {
    const std::vector<vconf::Entry> initial = {{"db/a", 0}, {"memory/a", 0}};
    // Opens no store before the fork: a process that opens its first store after a fork must be named too.
    EXPECT_EQ(Process([&] { return vconf::OpenOrCreateStore(directory(), initial).ok() ? 0 : 1; }).Wait(), 0);
    Process writer([&] {
      EXPECT_EQ(vconf::OpenStore(directory()).text(), "");
      for (int i = 1;; ++i) vconf_set_int(path.c_str(), i);
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

TEST_F(VconfProcessTest, AProcessThatLocksAFileTooLongIsNamed) {
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

TEST_F(VconfProcessTest, MountNamespacesShareAStore) {
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

TEST_F(VconfProcessTest, RootMayOpenTheStoreBeforeItsOwner) {
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

TEST_F(VconfProcessTest, EndingASubscriptionDoesNotWaitForOthers) {
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

TEST_F(VconfProcessTest, AProcessThatWaitsForChangesSleepsUntilThereIsOne) {
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

TEST_F(VconfProcessTest, AnUnpublishedCommitIsPublishedAtOpeningOrByTheNextWriter) {
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

TEST_F(VconfProcessTest, ChangesThatADeadWriterBeganToPublishArePublished) {
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

TEST_F(VconfProcessTest, ATextIsReadWholeWhileItIsWritten) {
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

}  // namespace
