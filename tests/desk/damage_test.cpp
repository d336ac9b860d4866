// `mirado` on a store that is full, read-only, damaged or removed: calls fail with a message, keys that can be read are
// read, and no wrong value is returned.
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "set/catalog.h"
#include "support/program.h"

namespace {

namespace fs = std::filesystem;
using desk::Json;

class DiskTest : public ProgramTest {
 protected:
  ~DiskTest() override {
    if (mounted_) umount2(store().c_str(), MNT_DETACH);
  }

  std::string file() const { return store() + "/keys.db"; }

  Program Start() const { return Program({"host", "--store", store(), "--log-level", "6"}, log()); }

  static Json Ask(Program& host, const Json& message) {
    host.WriteLine(Json{{"send", message}}.dump());
    const Json line = Json::parse(host.ReadLine());
    return line["reply"];
  }
  static Json Get(Program& host, int key) { return Ask(host, {{"command", "getMenuValue"}, {"propertyKey", key}}); }
  /// The reply to a posted write.
  static Json Set(Program& host, int key, int value) {
    host.WriteLine(Json{{"post", {{"command", "setMenuValue"}, {"propertyKey", key}, {"value", value}}}}.dump());
    return Json::parse(host.ReadLine())["message"];
  }
  static void CloseAndCheckExit(Program& host) {
    host.CloseInput();
    EXPECT_EQ(host.ReadLine(), R"({"message":"Unregister"})");
    EXPECT_EQ(host.Wait(), 0);
  }

  /// The number of log lines that contain `file`.
  long LogLinesAbout(const std::string& file) const {
    std::istringstream lines(Contents(log()));
    long count = 0;
    for (std::string line; std::getline(lines, line);) count += line.find(file) != std::string::npos ? 1 : 0;
    return count;
  }

  /// Mounts a file system on the store's folder, in a mount namespace of this process, which ends with it; false if
  /// this user may not mount.
  bool Mount(const char* source, const char* type, unsigned long flags, const char* options) {
    mounted_ = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount(source, store().c_str(), type, flags, options) == 0;
    return mounted_;
  }

 private:
  bool mounted_ = false;
};

TEST_F(DiskTest, AFullDiskRefusesWritesAndLosesNone) {
  constexpr std::uintmax_t kRoom = 65'536;
  // If no small file system can be mounted, a limit on file sizes is used instead.
  fs::create_directory(store());
  const bool disk = Mount("tmpfs", "tmpfs", 0, "size=2m");
  ASSERT_EQ(Run({"set", "db/menu/caption/caption", "3"}).status, 0);
  if (disk) {
    std::ofstream filler(store() + "/filler");
    while (filler << std::string(4096, 'x') << std::flush) {
    }
    fs::resize_file(store() + "/filler", fs::file_size(store() + "/filler") - kRoom);
  } else {
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
  }
  const rlimit no_limit = {RLIM_INFINITY, RLIM_INFINITY};
  const rlimit limit = {static_cast<rlim_t>(fs::file_size(file()) + kRoom), RLIM_INFINITY};
  if (!disk) setrlimit(RLIMIT_FSIZE, &limit);
  Program host = Start();
  const std::string text(20'000, 'x');
  int written = 0;
  Outcome last = Run({"set", "db/text0", text});
  for (; last.status == 0 && written < 200; last = Run({"set", "db/text" + std::to_string(written), text})) ++written;
  EXPECT_NE(last.status, 0);
  EXPECT_NE(last.log.find("full"), std::string::npos) << last.log;
  EXPECT_GT(written, 0);
  EXPECT_EQ(Run({"get", "db/text0"}).out, text + "\n");
  EXPECT_EQ(Get(host, 0)["value"], 3);
  EXPECT_LE(LogLinesAbout(file()), 1) << Contents(log());
  // After a reset there is space again.
  ASSERT_EQ(Run({"reset"}).status, 0);
  EXPECT_EQ(Set(host, 0, 5)["code"], 0);
  EXPECT_EQ(Run({"set", "db/text0", text}).status, 0);
  setrlimit(RLIMIT_FSIZE, &no_limit);
  CloseAndCheckExit(host);
  EXPECT_EQ(Run({"get", "db/menu/caption/caption"}).out, "5\n");
}

TEST_F(DiskTest, AReadOnlyStoreIsReadAndNotWritten) {
  ASSERT_EQ(Run({"set", "db/menu/caption/caption", "7"}).status, 0);
  const std::string before = Contents(file());
  if (geteuid() == 0) {  // permissions do not apply to root
    if (!Mount(store().c_str(), nullptr, MS_BIND, nullptr) ||
        mount(nullptr, store().c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
      GTEST_SKIP() << "nothing can be mounted here";
    }
  } else {
    for (const auto& entry : fs::directory_iterator(store())) fs::permissions(entry.path(), fs::perms::owner_read);
    fs::permissions(store(), fs::perms::owner_read | fs::perms::owner_exec);
  }
  Program host = Start();
  EXPECT_EQ(Get(host, 0)["value"], 7);
  EXPECT_EQ(Set(host, 0, 8)["errorMessage"], "setMenuValue was failed");
  EXPECT_EQ(Get(host, 0)["value"], 7);
  EXPECT_EQ(Ask(host, {{"command", "showCaption"}, {"show", 1}})["code"], 9999)
      << "keys in memory cannot be written, either";
  CloseAndCheckExit(host);
  const auto set = Run({"set", "db/menu/caption/caption", "8"});
  EXPECT_NE(set.status, 0);
  EXPECT_NE(set.log.find(file()), std::string::npos) << set.log;
  EXPECT_EQ(Contents(file()), before);
  if (geteuid() != 0) fs::permissions(store(), fs::perms::owner_all, fs::perm_options::add);
}

enum Served { kNever, kClosed, kOpen, kAlways };

/// A way to damage the store's database, `file`, or another of its files, and whether `mirado host` can then still read
/// some keys: if it opens the store afterwards (kClosed), if it had it open (kOpen), in both cases, or never.
struct Damage {
  const char* name;
  void (*make)(const std::string& file);
  Served served = kNever;
};

void Spoil(const std::string& file, std::uintmax_t from, std::uintmax_t size) {
  Overwrite(file, from, Noise(size, 4711));
}

constexpr std::uintmax_t kPage = 4096;
const Damage kDamages[] = {
    {"Emptied", [](const std::string& file) { fs::resize_file(file, 0); }},
    {"CutInAPage", [](const std::string& file) { fs::resize_file(file, 100); }},
    {"CutToOnePage", [](const std::string& file) { fs::resize_file(file, kPage); }},
    {"CutToTwoPages", [](const std::string& file) { fs::resize_file(file, 2 * kPage); }},
    {"CutInHalf", [](const std::string& file) { fs::resize_file(file, fs::file_size(file) / 2); }},
    {"CutByAPage", [](const std::string& file) { fs::resize_file(file, fs::file_size(file) - kPage); }, kOpen},
    {"NoiseInTheFirstPage", [](const std::string& file) { Spoil(file, 0, kPage); }},
    {"NoiseInTwoPages", [](const std::string& file) { Spoil(file, 0, 2 * kPage); }},
    {"NoiseInTheMiddle", [](const std::string& file) { Spoil(file, fs::file_size(file) / 2, kPage); }, kAlways},
    {"NoiseAtTheEnd", [](const std::string& file) { Spoil(file, fs::file_size(file) - kPage, kPage); }, kAlways},
    {"NoiseAfterTwoPages", [](const std::string& file) { Spoil(file, 2 * kPage, fs::file_size(file) - 2 * kPage); }},
    {"AllNoise", [](const std::string& file) { Spoil(file, 0, fs::file_size(file)); }},
    {"IndexEmptied", [](const std::string& file) { fs::resize_file(file + "-shm", 0); }, kAlways},
    {"RegionEmptied", [](const std::string& file) { fs::resize_file(fs::path(file).replace_filename("live"), 0); },
     kAlways},
    {"RegionNoise", [](const std::string& file) { Spoil(fs::path(file).replace_filename("live"), 0, 100'000); },
     kAlways},
    {"RegionIndexNoise", [](const std::string& file) { Spoil(fs::path(file).replace_filename("live"), 8192, 50'000); }},
    {"Removed", [](const std::string& file) { fs::remove(file); }, kOpen},
    {"AFolder", [](const std::string& file) { fs::remove(file), fs::create_directory(file); }, kOpen}};

class DamageTest : public DiskTest, public testing::WithParamInterface<Damage> {
 protected:
  /// Reads all keys, writes them and reads them again. Each reply must be a failure or the value written last; returns
  /// how many reads succeeded.
  int Exercise(Program& host) const {
    int served = 0;
    std::array<int, 14> last{};  // the settings that are plain numbers
    for (std::size_t key = 0; key < last.size(); ++key) last[key] = Stored(key);
    for (const bool write : {false, true}) {
      for (std::size_t key = 0; key < last.size(); ++key) {
        const int number = static_cast<int>(key);
        if (write && Set(host, number, 40 + number)["code"] == 0) last[key] = 40 + number;
        const Json reply = Get(host, number);
        EXPECT_TRUE(reply["code"] == 9999 || (reply["code"] == 0 && reply["value"] == last[key])) << reply;
        served += reply["code"] == 0 ? 1 : 0;
      }
    }
    const Json memory = Ask(host, {{"command", "showCaption"}, {"show", 1}});
    EXPECT_TRUE(memory["code"] == 0 || memory["code"] == 9999) << memory;
    return served;
  }

  static int Stored(std::size_t key) { return static_cast<int>(100 + key); }

  void MakeStore() const {
    Program host = Start();
    for (std::size_t key = 0; key < 14; ++key) EXPECT_EQ(Set(host, static_cast<int>(key), Stored(key))["code"], 0);
    CloseAndCheckExit(host);
  }
};

TEST_P(DamageTest, OfAClosedStoreCausesFailuresAndNoNewStore) {
  MakeStore();
  GetParam().make(file());
  const bool is_file = fs::is_regular_file(file());
  const std::string damaged = is_file ? Contents(file()) : "";
  Program host = Start();
  const bool opened = Get(host, 0)["code"] == 0;
  EXPECT_TRUE(Exercise(host) > 0 || (GetParam().served & kClosed) == 0);
  CloseAndCheckExit(host);
  if (!opened) {
    EXPECT_GE(LogLinesAbout(store()), 1) << Contents(log());
    EXPECT_LE(LogLinesAbout(store()), 3) << "one line for each cause, not for each call";
    EXPECT_EQ(fs::is_regular_file(file()) ? Contents(file()) : "", damaged) << "the damaged file is not changed";
  }
}

TEST_P(DamageTest, OfAnOpenStoreCausesFailuresAndNoCrash) {
  // Also with a change that the other process has written last.
  for (const bool one_more : {false, true}) {
    fs::remove_all(store());
    MakeStore();
    Program other({"host", "--store", store()}, folder() / "other log");
    Program host = Start();
    EXPECT_EQ(Get(host, 0)["value"], Stored(0));
    if (one_more) Set(other, 0, Stored(0));
    GetParam().make(file());
    for (const char* key : {"0", "1", "2"}) EXPECT_NE(Run({"get", key}).status, 1) << "no key is reported as missing";
    EXPECT_TRUE(Exercise(host) > 0 || (GetParam().served & kOpen) == 0);
    Ask(other, {{"command", "showCaption"}, {"show", 1}});  // returns only if the lock is free
    CloseAndCheckExit(other);
    CloseAndCheckExit(host);
    EXPECT_LE(LogLinesAbout(file()), 3) << Contents(log());
  }
}

INSTANTIATE_TEST_SUITE_P(All, DamageTest, testing::ValuesIn(kDamages),
                         [](const auto& info) { return info.param.name; });

}  // namespace
