// The program on a store that is full, read-only, damaged or gone: what cannot be done is refused in words, what can be
// read is still served, and nothing is made up.
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "set/catalog.h"
#include "support/host_program.h"

namespace {

namespace fs = std::filesystem;
using desk::Json;

class FaultsTest : public ProgramTest {
 protected:
  FaultsTest() {
    fs::create_directory(folder() / "memory");
    setenv("MIRADO_MEMORY_ROOT", (folder() / "memory").c_str(), 1);
  }
  ~FaultsTest() override {
    if (mounted_) umount2(store().c_str(), MNT_DETACH);
    unsetenv("MIRADO_MEMORY_ROOT");
  }

  std::string file() const { return store() + "/data.mdb"; }

  Program Start() const { return Program({"host", "--store", store(), "--log-level", "6"}, log()); }

  static Json Ask(Program& host, const Json& message) {
    host.Say(Json{{"send", message}}.dump());
    const Json line = Json::parse(host.Hear());
    return line["reply"];
  }
  static Json Get(Program& host, int key) { return Ask(host, {{"command", "getMenuValue"}, {"propertyKey", key}}); }
  /// The reply to a posted write.
  static Json Set(Program& host, int key, int value) {
    host.Say(Json{{"post", {{"command", "setMenuValue"}, {"propertyKey", key}, {"value", value}}}}.dump());
    return Json::parse(host.Hear())["message"];
  }
  static void EndWell(Program& host) {
    host.CloseInput();
    EXPECT_EQ(host.Hear(), R"({"message":"Unregister"})");
    EXPECT_EQ(host.Wait(), 0);
  }

  /// How many lines of the log name `culprit`.
  long Complaints(const std::string& culprit) const {
    std::istringstream lines(Contents(log()));
    long count = 0;
    for (std::string line; std::getline(lines, line);) count += line.find(culprit) != std::string::npos ? 1 : 0;
    return count;
  }

  /// Puts a file system of its own behind the store; false where this user may not. It goes with this process at the
  /// latest, whatever ends it.
  bool Mount(const char* source, const char* type, unsigned long flags, const char* options) {
    mounted_ = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount(source, store().c_str(), type, flags, options) == 0;
    return mounted_;
  }

 private:
  bool mounted_ = false;
};

TEST_F(FaultsTest, AFullDiskRefusesWritesAndLosesNone) {
  constexpr std::uintmax_t kRoom = 65'536;
  // Where no small disk can be mounted, a limit for the size of files stands in for it.
  fs::create_directory(store());
  const bool disk = Mount("tmpfs", "tmpfs", 0, "size=2m");
  if (disk) {
    const std::string inside = store() + "/store";
    Program({"reset", "--store", inside}, log()).Wait();
    for (const auto& entry : fs::directory_iterator(inside)) fs::copy(entry.path(), store());
    fs::remove_all(inside);
    std::ofstream filler(store() + "/filler");
    while (filler << std::string(4096, 'x') << std::flush) {
    }
    fs::resize_file(store() + "/filler", fs::file_size(store() + "/filler") - kRoom);
  } else {
    fs::remove(store());
    Run({"reset"});
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
  }
  const rlimit no_limit = {RLIM_INFINITY, RLIM_INFINITY};
  const rlimit limit = {static_cast<rlim_t>(fs::file_size(file()) + kRoom), RLIM_INFINITY};
  if (!disk) setrlimit(RLIMIT_FSIZE, &limit);
  Program host = Start();
  setrlimit(RLIMIT_FSIZE, &no_limit);

  int written = 0;
  // The journal of the changes needs ever more room.
  Json reply = Set(host, 2, 1);
  for (; reply["code"] == 0 && written < 20'000; reply = Set(host, 2, written % 200 + 2)) written = reply["value"];
  EXPECT_EQ(reply["errorMessage"], "setMenuValue was failed");
  EXPECT_GT(written, 0);
  EXPECT_EQ(Get(host, 2)["value"], written);
  EXPECT_EQ(Get(host, 0)["code"], 0);
  EXPECT_NE(Set(host, 2, 255)["code"], 0);
  EXPECT_EQ(Complaints(file()), 1) << Contents(log());
  if (disk) {
    fs::remove(store() + "/filler");
    EXPECT_EQ(Set(host, 2, 255)["code"], 0) << "there is room again";
    written = 255;
  }
  EndWell(host);
  EXPECT_EQ(Run({"get", "db/menu/caption/digitalcaptionoptions/size"}).out, std::to_string(written) + "\n");
}

TEST_F(FaultsTest, AReadOnlyStoreIsReadAndNotWritten) {
  ASSERT_EQ(Run({"set", "db/menu/caption/caption", "7"}).status, 0);
  const std::string before = Contents(file());
  if (geteuid() == 0) {  // whom permissions do not stop
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
  EXPECT_EQ(Ask(host, {{"command", "showCaption"}, {"show", 1}})["code"], 0) << "what lies in memory may be written";
  EndWell(host);
  const auto set = Run({"set", "db/menu/caption/caption", "8"});
  EXPECT_NE(set.status, 0);
  EXPECT_NE(set.log.find(file()), std::string::npos) << set.log;
  EXPECT_EQ(Contents(file()), before);
  if (geteuid() != 0) fs::permissions(store(), fs::perms::owner_all, fs::perm_options::add);
}

TEST_F(FaultsTest, WithoutTheMemoryOnlyWhatLiesThereFails) {
  const auto check = [this](Program& host) {
    EXPECT_EQ(Get(host, 0)["code"], 0);
    EXPECT_EQ(Set(host, 0, 3)["code"], 0);
    EXPECT_EQ(Ask(host, {{"command", "showCaption"}, {"show", 1}})["code"], 9999);
    EXPECT_GE(Complaints(folder() / "memory"), 1) << Contents(log());
    EXPECT_LE(Complaints(folder() / "memory"), 2) << Contents(log());
  };
  Program open_before = Start();
  EXPECT_EQ(Ask(open_before, {{"command", "showCaption"}, {"show", 1}})["code"], 0);
  fs::remove_all(folder() / "memory");
  check(open_before);
  EndWell(open_before);
  Program open_after = Start();
  check(open_after);
  EXPECT_EQ(Ask(open_after, {{"command", "getMiradoValue"}, {"propertyKey", 0}})["code"], 9999);
  EndWell(open_after);
  fs::remove_all(store());
  Program made_without = Start();
  check(made_without);
  EndWell(made_without);
  fs::create_directory(folder() / "memory");
  Program open_again = Start();
  EXPECT_EQ(Ask(open_again, {{"command", "showCaption"}, {"show", 1}})["code"], 0);
}

TEST_F(FaultsTest, ALostBellHidesNoFault) {
  for (const char* bytes : {"", "noise and nothing but noise"}) {
    Program host({"host", "--store", store()}, folder() / "host log");
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(Get(host, 0)["code"], 0);
      EXPECT_EQ(Run({"fault", "vconf_get_int", "-1", "--times", "1"}).status, 0);
      std::ofstream(store() + "/bell", std::ios::trunc) << bytes;
      EXPECT_EQ(Get(host, 0)["code"], 9999);
    }
    // What the host does not catch itself takes its usual course, when it is sent too.
    host.Signal(SIGSEGV);
    host.CloseInput();
    EXPECT_NE(host.Wait(), 0);
  }
}

enum Served { kNever, kClosed, kOpen, kAlways };

/// A damage to the file of the store, and when something can still be read: the store being closed or open meanwhile.
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
    {"CutToOneHead", [](const std::string& file) { fs::resize_file(file, kPage); }},
    {"CutToTheHeads", [](const std::string& file) { fs::resize_file(file, 2 * kPage); }},
    {"CutInHalf", [](const std::string& file) { fs::resize_file(file, fs::file_size(file) / 2); }},
    {"CutByAPage", [](const std::string& file) { fs::resize_file(file, fs::file_size(file) - kPage); }, kAlways},
    {"NoiseInTheFirstHead", [](const std::string& file) { Spoil(file, 0, kPage); }},
    {"NoiseInTheHeads", [](const std::string& file) { Spoil(file, 0, 2 * kPage); }},
    {"NoiseInTheMiddle", [](const std::string& file) { Spoil(file, fs::file_size(file) / 2, kPage); }, kAlways},
    {"NoiseAtTheEnd", [](const std::string& file) { Spoil(file, fs::file_size(file) - kPage, kPage); }, kAlways},
    {"NoiseBehindTheHeads", [](const std::string& file) { Spoil(file, 2 * kPage, fs::file_size(file) - 2 * kPage); }},
    {"AllNoise", [](const std::string& file) { Spoil(file, 0, fs::file_size(file)); }},
    {"LockEmptied", [](const std::string& file) { fs::resize_file(fs::path(file).replace_filename("lock.mdb"), 0); },
     kClosed},
    {"Removed", [](const std::string& file) { fs::remove(file); }, kOpen},
    {"OfAnotherKind", [](const std::string& file) { fs::remove(file), fs::create_directory(file); }, kOpen}};

class DamageTest : public FaultsTest, public testing::WithParamInterface<Damage> {
 protected:
  /// Reads all, writes and reads again. Each reply is a failure, or what was written last. Tells how many are the
  /// latter.
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
    EndWell(host);
  }
};

TEST_P(DamageTest, BeforeItIsOpenedGivesFailuresAndNoNewStore) {
  MakeStore();
  GetParam().make(file());
  const bool is_file = fs::is_regular_file(file());
  const std::string damaged = is_file ? Contents(file()) : "";
  Program host = Start();
  const bool opened = Get(host, 0)["code"] == 0;
  EXPECT_TRUE(Exercise(host) > 0 || (GetParam().served & kClosed) == 0);
  EndWell(host);
  if (!opened) {
    EXPECT_GE(Complaints(file()), 1) << Contents(log());
    EXPECT_LE(Complaints(file()), 3) << "a line for each cause, not for each call";
    EXPECT_EQ(fs::is_regular_file(file()) ? Contents(file()) : "", damaged) << "what is damaged is left as it is";
  }
}

TEST_P(DamageTest, WhileItIsOpenGivesFailuresAndNoCrash) {
  // The newest of the two heads is now the one, now the other.
  for (const bool one_more : {false, true}) {
    fs::remove_all(store());
    MakeStore();
    Program other({"host", "--store", store()}, folder() / "other log");
    Program host = Start();
    EXPECT_EQ(Get(host, 0)["value"], Stored(0));
    if (one_more) Set(other, 0, Stored(0));
    GetParam().make(file());
    EXPECT_TRUE(Exercise(host) > 0 || (GetParam().served & kOpen) == 0);
    Ask(other, {{"command", "showCaption"}, {"show", 1}});  // nobody keeps the lock from it
    EndWell(other);
    EndWell(host);
    EXPECT_LE(Complaints(file()), 3) << Contents(log());
  }
}

INSTANTIATE_TEST_SUITE_P(All, DamageTest, testing::ValuesIn(kDamages),
                         [](const auto& info) { return info.param.name; });

}  // namespace
