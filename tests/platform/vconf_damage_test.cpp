// The store with files that are damaged or read-only.

#include <fcntl.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <future>
#include <random>
#include <thread>

#include "layout.h"
#include "support/vconf_fixture.h"

namespace {

using vconf::Change;

class VconfDamageTest : public VconfTest {
 protected:
  static constexpr int kKeys = 300;

  void Fill() {
    Open();
    for (int i = 0; i < kKeys; ++i) {
      ASSERT_EQ(vconf_set_int(("db/key" + std::to_string(i)).c_str(), i), 0);
      ASSERT_EQ(vconf_set_int(("memory/key" + std::to_string(i)).c_str(), i), 0);
    }
    ASSERT_EQ(vconf::Set("set/text", std::string(20'000, 'x')).text(), "");
  }

  // Makes every call on every key. Each may fail, but no value may be wrong.
  static void UseAll() {
    for (int i = 0; i < kKeys; ++i) {
      for (const char* prefix : {"db/key", "memory/key"}) {
        const std::string path = prefix + std::to_string(i);
        EXPECT_EQ(GetInt(path, i), i);
        if (vconf_set_int(path.c_str(), i) == 0) {
          EXPECT_EQ(GetInt(path, i), i);
        }
      }
    }
    vconf_sync_key("db/key0");
    static_cast<void>(vconf::List(""));
    static_cast<void>(vconf::Remove("db/key7"));
    static_cast<void>(vconf::Get("set/text"));
    static_cast<void>(vconf::ListFaults());
  }
};

TEST_F(VconfDamageTest, AFileThatIsNoStoreIsRefusedAndNotChanged) {
  Fill();
  vconf::CloseStore();
  const std::string whole = Contents(file());
  for (const auto& bytes : {std::string(), std::string("no store at all"), Noise(whole.size(), 1),
                            std::string(whole.size(), '\0'), Noise(8192, 2) + whole.substr(8192)}) {
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << bytes;
    std::filesystem::remove(region());  // as after a boot: all values are read from the disk
    ClearLog();
    const auto error = vconf::OpenOrCreateStore(directory(), {{"db/key1", 1}});
    EXPECT_EQ(error.text(), file() + ": is damaged; restore it, or replace the store");
    EXPECT_EQ(error.code(), vconf::Code::kDamaged);
    EXPECT_EQ(Log(), std::vector<std::string>{"E/VCONF(2): " + error.text()});
    EXPECT_EQ(Contents(file()), bytes);
  }
  std::filesystem::remove(file());
  EXPECT_NE(vconf::OpenStore(directory()).text(), "");
  EXPECT_FALSE(std::filesystem::exists(file()));
  std::ofstream(file(), std::ios::binary | std::ios::trunc) << whole;
  Open();
  EXPECT_EQ(GetInt("db/key7", 0), 7);
}

TEST_F(VconfDamageTest, RandomBytesOnDiskCauseNoWrongValueAndNoCrash) {
  Fill();
  vconf::CloseStore();
  const std::string whole = Contents(file());
  int readable = 0;
  int refused = 0;
  for (unsigned seed = 0; seed < 60; ++seed) {
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << whole;
    std::mt19937 random(seed);
    const std::size_t page = random() % (whole.size() / 4096);
    // A whole page, or a few bytes of its header.
    Overwrite(file(), page * 4096 + random() % 32, seed % 2 == 0 ? Noise(4000, seed) : Noise(2 + random() % 6, seed));
    if (seed % 3 != 0) {
      std::filesystem::remove(region());  // as after a boot: all values are read from the disk
    }
    if (vconf::OpenStore(directory()).ok()) {
      UseAll();
      EXPECT_EQ(vconf::List("db/")->size() + (vconf::Get("db/key7").ok() ? 0 : 1), 0U + kKeys);
      ++readable;
    } else {
      ++refused;
    }
    vconf::CloseStore();
  }
  EXPECT_GT(readable, 0);
  EXPECT_GT(refused, 0);
}

TEST_F(VconfDamageTest, ALogThatLostCommitsIsNoticed) {
  namespace fs = std::filesystem;
  Fill();
  ASSERT_EQ(vconf::Remove("db/key8").text(), "");  // a commit without a new row
  const auto entries = *vconf::List("db/");
  vconf::CloseStore();
  const std::string copy = folder() + "/copy";
  const std::string log = "/keys.db-wal";
  const std::array<std::string, 2> whole = {Contents(file()), Contents(directory() + log)};
  const std::array<std::function<void(const std::string&)>, 4> damages = {
      [](const std::string& at) { Overwrite(at, 32 + 4120, Noise(64, 1)); },
      [](const std::string& at) { Overwrite(at, 0, std::string(32, '\0')); },
      [](const std::string& at) { fs::resize_file(at, 32 + 4120); }, [](const std::string& at) { fs::remove(at); }};
  for (const auto& damage : damages) {
    std::ofstream(file(), std::ios::binary) << whole[0];
    std::ofstream(directory() + log, std::ios::binary) << whole[1];
    fs::remove_all(copy);
    fs::copy(directory(), copy);
    damage(copy + log);
    const auto opened = vconf::OpenStore(copy);
    EXPECT_EQ(opened.code(), vconf::Code::kDamaged);
    EXPECT_NE(opened.text().find("commits"), std::string::npos) << opened.text();
    fs::remove(copy + "/live");
    EXPECT_EQ(vconf::OpenStore(copy).text(), "") << "without the region the loss cannot be noticed";
    vconf::CloseStore();
    // In the same boot the region still has all values.
    damage(directory() + log);
    Open();
    EXPECT_EQ(*vconf::List("db/"), entries);
    EXPECT_EQ(vconf::Set("db/key1", 9).code(), vconf::Code::kDamaged);
    EXPECT_EQ(vconf::Set("memory/key1", 1).text(), "");
    vconf::CloseStore();
  }
}

TEST_F(VconfDamageTest, ZerosAreNotTakenForMissingKeys) {
  Fill();
  Overwrite(region(), offsetof(vconf::layout::Header, buckets), std::string(sizeof(vconf::layout::Header::buckets), 0));
  EXPECT_EQ(vconf::List("db/").status().code(), vconf::Code::kDamaged);
  EXPECT_EQ(vconf::Get("db/key1").status().code(), vconf::Code::kDamaged);
  EXPECT_EQ(vconf::Get("db/none").status().code(), vconf::Code::kDamaged);
  EXPECT_EQ(vconf::Set("memory/none", 1).code(), vconf::Code::kDamaged);
  EXPECT_EQ(vconf::ListFaults().status().code(), vconf::Code::kDamaged);
}

TEST_F(VconfDamageTest, AFileDamagedWhileInUseCausesOnlyFailures) {
  for (const bool live : {false, true}) {
    for (const bool cut : {true, false}) {
      std::filesystem::remove_all(directory());
      Fill();
      const std::string damaged = live ? region() : file();
      const std::uintmax_t size = std::filesystem::file_size(damaged);
      std::atomic<int> calls{0};
      const auto watch = vconf::WatchPrefix("", [&](const Change&) { ++calls; });
      ClearLog();  // before the damage, which the notifying thread may report at once
      if (cut) {
        std::filesystem::resize_file(damaged, 0);
      } else {
        Overwrite(damaged, 0, Noise(size, 3));
      }
      EXPECT_EQ(vconf::CheckStore().text(), "");
      EXPECT_EQ(GetInt("db/key1", -1), 1) << "values on disk are read from the region, or again from the disk";
      EXPECT_EQ(GetInt("memory/key1", -1), live ? -1 : 1);
      UseAll();
      if (live) {
        EXPECT_EQ(vconf_set_int("memory/key1", 1), 0);
        EXPECT_EQ(vconf_set_int("db/key2", 2), 0);
      }
      vconf::CloseStore();
      const std::vector<std::string> log = Log();
      EXPECT_TRUE(std::any_of(log.begin(), log.end(), [&](const std::string& line) {
        return line.find(damaged + ": is damaged") != std::string::npos;
      })) << (log.empty() ? "no line" : log.front());
      EXPECT_LE(log.size(), 4U);
    }
  }
  Open();
  for (const std::string& both : {region(), file()}) Overwrite(both, 0, Noise(4096, 3));
  EXPECT_EQ(vconf::CheckStore().code(), vconf::Code::kDamaged);
}

TEST_F(VconfDamageTest, AChangeThatFailedHalfwayDoesNotContainTheNext) {
  std::vector<vconf::Entry> entries;
  for (int i = 100; i < 400; ++i) entries.push_back({"db/key" + std::to_string(i), std::string(100, 'a')});
  Open(entries);
  ASSERT_EQ(vconf::Set("db/key100", std::string("a")).text(), "");
  const std::string whole = Contents(file());
  const std::size_t page = whole.find("db/key399") / 4096 * 4096;
  Overwrite(file(), page, Noise(4096, 4));
  for (auto& entry : entries) entry.value = std::string(100, 'b');
  EXPECT_EQ(vconf::Reset(entries).code(), vconf::Code::kDamaged);
  Overwrite(file(), page, whole.substr(page, 4096));
  EXPECT_EQ(vconf::Set("db/key100", std::string("c")).text(), "");
  vconf::CloseStore();
  std::filesystem::remove(region());  // as after a boot
  Open();
  EXPECT_EQ(*vconf::Get("db/key100"), vconf::Value("c"));
  EXPECT_EQ(*vconf::Get("db/key101"), vconf::Value(std::string(100, 'a')));
}

TEST_F(VconfDamageTest, SettleReturnsWhenTheRegionIsTruncated) {
  Open({{"memory/a", 0}});
  std::promise<void> called;
  std::promise<void> go_on;
  auto watch = *vconf::WatchPrefix("memory/first", [&](const Change&) {
    called.set_value();
    go_on.get_future().wait();
  });
  ASSERT_EQ(vconf_set_int("memory/first", 1), 0);
  called.get_future().wait();
  ASSERT_EQ(vconf_set_int("memory/a", 1), 0);
  std::promise<pid_t> id;
  std::thread waiting([&] {
    id.set_value(gettid());
    vconf::Settle();
  });
  // When the thread sleeps, it has read the number of the change that it waits for.
  const std::string state = "/proc/self/task/" + std::to_string(id.get_future().get()) + "/stat";
  while (Contents(state).find(") S ") == std::string::npos) {
    std::this_thread::yield();
  }
  std::filesystem::resize_file(region(), 0);
  go_on.set_value();
  waiting.join();
  watch.reset();
}

TEST_F(VconfDamageTest, AReaderThatOpensBeforeTheOwnerSeesItsChanges) {
  constexpr uid_t kNobody = 65534;
  Fill();
  vconf::CloseStore();
  std::filesystem::remove(region());  // as after a boot
  if (geteuid() == 0) {
    std::filesystem::permissions(folder(), std::filesystem::perms::all);
    for (const auto& entry : std::filesystem::directory_iterator(directory())) {
      ASSERT_EQ(chown(entry.path().c_str(), kNobody, kNobody), 0);
    }
    ASSERT_EQ(chown(directory().c_str(), kNobody, kNobody), 0);
  }
  std::filesystem::permissions(directory(), std::filesystem::perms(0555));
  Process reader([&](int pipe) {
    std::promise<void> notified;
    std::atomic<bool> seen{false};
    if ((getuid() == 0 && setuid(kNobody) != 0) || !vconf::OpenStore(directory()).ok() || GetInt("db/key1", 0) != 1) {
      return 1;
    }
    const auto watch = vconf::WatchPrefix("db/key1", [&](const Change& change) {
      // May be called twice: for the value found in the owner's region, and for the change.
      if (change.path == "db/key1" && change.value == vconf::Value(7) && !seen.exchange(true)) notified.set_value();
    });
    if (write(pipe, "", 1) != 1) return 2;
    notified.get_future().wait();
    return GetInt("db/key1", 0) == 7 ? 0 : 3;
  });
  char ready = 0;
  EXPECT_TRUE(reader.Read(&ready));
  std::filesystem::permissions(directory(), std::filesystem::perms(0755));
  Open();
  ASSERT_EQ(vconf_set_int("db/key1", 7), 0);
  EXPECT_EQ(reader.Wait(), 0);
}

TEST_F(VconfDamageTest, AReadOnlyStoreCanBeRead) {
  Fill();
  ASSERT_EQ(vconf::SetFault({"vconf_get_int", "db/key4", -9, 1}).text(), "");
  vconf::CloseStore();
  for (const std::string& each : {folder(), directory()}) {
    std::filesystem::permissions(each, std::filesystem::perms(0555));
  }
  for (const auto& entry : std::filesystem::directory_iterator(directory())) {
    std::filesystem::permissions(entry.path(), std::filesystem::perms(0444));
  }
  Process reader([&] {
    constexpr uid_t kNobody = 65534;
    if (getuid() == 0 && setuid(kNobody) != 0) {
      return 1;
    }
    if (!vconf::OpenStore(directory()).ok()) {
      return 2;
    }
    std::atomic<int> calls{0};
    const auto watch = vconf::WatchPrefix("", [&](const Change&) { ++calls; });
    const auto error = vconf::Set("db/key3", 1);
    vconf::Settle();
    int value = 0;
    return vconf_get_int("db/key4", &value) == -9 && GetInt("db/key3", -1) == 3 &&
                   error.code() == vconf::Code::kReadOnly &&
                   error.text() == file() +
                                       ": can only be read by this process; run the program as the owner, or mount the "
                                       "file system for writing"
               ? 0
               : 3;
  });
  EXPECT_EQ(reader.Wait(), 0);
  std::filesystem::permissions(folder(), std::filesystem::perms(0755));
  std::filesystem::permissions(directory(), std::filesystem::perms(0755));
}

}  // namespace
