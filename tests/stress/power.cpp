// power [STATES [SEED]]: opens the store in states that a power failure can leave on the disk.
//
// The store writes in this process, and each call by which it or SQLite changes a file is recorded: this program
// defines functions of the same names, which take precedence over the C library's. From each point of the record,
// possible states of the disk are created: of the data that was not synced, all, some or none is present. Each state is
// opened and read.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <random>

#include "dlog_control.h"
#include "numbered_values.h"
#include "support/files.h"
#include "vconf.h"
#include "vconf_control.h"

namespace {

enum class Kind { kWrite, kTruncate, kSync, kCreate, kRename, kUnlink, kSyncFolder, kSyncParent, kTry, kAcknowledge };

/// A recorded call, or the beginning (kTry) or success (kAcknowledge) of a write to the store.
struct Step {
  Kind kind;
  int file = 0;        // of kTry and kAcknowledge: the index in kKeys, -1 for the creation of the store
  std::size_t at = 0;  // of kTry and kAcknowledge: the number written
  std::string text;    // the written bytes, a name, or of kAcknowledge the beginning of the region
  std::string to;      // the new name
};

constexpr int kFolder = -2;
constexpr int kParent = -3;

struct Recorder {
  bool on = false;
  std::string folder;
  std::map<std::string, int> names;
  std::map<int, int> descriptors;
  int files = 0;
  std::vector<Step> steps;

  // "" for a file that is not recorded. The region is never synced; each kAcknowledge has its beginning instead.
  std::string NameOf(const std::string& path) const {
    const std::string name = path.starts_with(folder + "/") ? path.substr(folder.size() + 1) : path;
    return on && name.starts_with("keys.db") ? name : "";
  }
  int Opened(int descriptor, const std::string& path) {
    if (on && path == folder) descriptors[descriptor] = kFolder;
    if (on && folder == path + "/store") descriptors[descriptor] = kParent;
    if (const std::string name = NameOf(path); descriptor >= 0 && !name.empty() && !name.ends_with("-shm")) {
      const auto [found, is_new] = names.try_emplace(name, files);
      if (is_new) steps.push_back({Kind::kCreate, files++, 0, name, {}});
      descriptors[descriptor] = found->second;
    }
    return descriptor;
  }
  void Record(int descriptor, Kind kind, std::size_t at, std::string text) {
    if (const auto found = descriptors.find(descriptor); on && found != descriptors.end()) {
      if (kind == Kind::kSync && found->second < 0) {
        kind = found->second == kFolder ? Kind::kSyncFolder : Kind::kSyncParent;
      }
      steps.push_back({kind, found->second, at, std::move(text), {}});
    }
  }
  void Renamed(const std::string& from, const std::string& to) {
    if (const auto found = names.find(NameOf(from)); found != names.end()) {
      steps.push_back({Kind::kRename, found->second, 0, found->first, NameOf(to)});
      names[NameOf(to)] = found->second;
      names.erase(found);
    }
  }
  void Unlinked(const std::string& path) {
    if (const auto found = names.find(NameOf(path)); found != names.end()) {
      steps.push_back({Kind::kUnlink, found->second, 0, found->first, {}});
      names.erase(found);
    }
  }
};

Recorder& TheRecorder() {
  static Recorder recorder;
  return recorder;
}

template <typename Function>
Function* Real(Function* /*ours*/, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) Real(&(name), #name)

mode_t ModeOf(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

extern "C" {
#define RECORDED_OPEN(name, parameters, arguments)           \
  int name parameters {                                      \
    va_list list;                                            \
    va_start(list, flags);                                   \
    const mode_t mode = ModeOf(flags, list);                 \
    va_end(list);                                            \
    return TheRecorder().Opened(REAL(name) arguments, path); \
  }
RECORDED_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
RECORDED_OPEN(open64, (const char* path, int flags, ...), (path, flags, mode))
RECORDED_OPEN(openat, (int folder, const char* path, int flags, ...), (folder, path, flags, mode))
int close(int descriptor) {
  TheRecorder().descriptors.erase(descriptor);
  return REAL(close)(descriptor);
}
ssize_t pwrite64(int descriptor, const void* bytes, std::size_t size, off64_t at) {
  TheRecorder().Record(descriptor, Kind::kWrite, static_cast<std::size_t>(at),
                       std::string(static_cast<const char*>(bytes), size));
  return REAL(pwrite64)(descriptor, bytes, size, at);
}
int ftruncate64(int descriptor, off64_t size) noexcept {
  TheRecorder().Record(descriptor, Kind::kTruncate, static_cast<std::size_t>(size), "");
  return REAL(ftruncate64)(descriptor, size);
}
int fdatasync(int descriptor) {
  TheRecorder().Record(descriptor, Kind::kSync, 0, "");
  return REAL(fdatasync)(descriptor);
}
int fsync(int descriptor) {
  TheRecorder().Record(descriptor, Kind::kSync, 0, "");
  return REAL(fsync)(descriptor);
}
int rename(const char* from, const char* to) noexcept {
  TheRecorder().Renamed(from, to);
  return REAL(rename)(from, to);
}
int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept {
  TheRecorder().Renamed(from, to);
  return REAL(renameat)(from_folder, from, to_folder, to);
}
int unlink(const char* path) noexcept {
  TheRecorder().Unlinked(path);
  return REAL(unlink)(path);
}
int unlinkat(int folder, const char* path, int flags) noexcept {
  TheRecorder().Unlinked(path);
  return REAL(unlinkat)(folder, path, flags);
}
}

namespace {

constexpr std::array kKeys = {"db/power/number", "db/power/text", "set/power/text"};
const std::vector<vconf::Entry> kInitial = {{"db/initial", 7}, {"set/initial", std::string(5'000, 'i')}};

/// The beginning of the region, which contains the number of commits.
std::string RegionNow(const std::string& store) {
  std::string bytes(4096, '\0');
  std::ifstream(store + "/live", std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

void RecordAStore(const std::string& store, int writes) {
  Recorder& recorder = TheRecorder();
  recorder.folder = std::filesystem::canonical(store.substr(0, store.rfind('/'))) / "store";
  recorder.on = true;
  EXPECT_EQ(vconf::OpenOrCreateStore(store, kInitial).text(), "");
  recorder.steps.push_back({Kind::kAcknowledge, -1, 0, {}, {}});
  for (int number = 1; number <= writes; ++number) {
    for (int key = 0; key < 3; ++key) {
      const char* const path = kKeys.at(static_cast<std::size_t>(key));
      const auto count = static_cast<std::size_t>(number);
      recorder.steps.push_back({Kind::kTry, key, count, {}, {}});
      EXPECT_EQ(key == 0 ? vconf_set_int(path, number) : vconf::Set(path, TextOf(number)).ok() ? 0 : 1, 0);
      EXPECT_EQ(key == 0 ? vconf_sync_key(path) : 0, 0);
      recorder.steps.push_back({Kind::kAcknowledge, key, count, RegionNow(store), {}});
    }
  }
  vconf::CloseStore();
  recorder.on = false;
}

/// The synced content of the disk, and the changes that are not synced.
class Disk {
 public:
  explicit Disk(bool syncs) : syncs_(syncs) {}

  void Take(const Step& step) {
    switch (step.kind) {
      case Kind::kWrite:
      case Kind::kTruncate:
        unsynced_[step.file].push_back(&step);
        break;
      case Kind::kCreate:
      case Kind::kRename:
      case Kind::kUnlink:
        unsynced_names_.push_back(&step);
        break;
      case Kind::kSync:
        if (syncs_) {
          for (const Step* each : std::exchange(unsynced_[step.file], {})) Apply(*each, &synced_[step.file]);
        }
        break;
      case Kind::kSyncFolder:
        for (const Step* each : std::exchange(unsynced_names_, {})) Apply(*each, &names_);
        break;
      case Kind::kSyncParent:
        has_folder_ = true;
        break;
      case Kind::kAcknowledge:
        region_ = step.text;
        break;
      default:
        break;
    }
  }

  /// Creates one possible state in `folder`. Of the unsynced changes of names the first few are present; of the
  /// unsynced writes all, none, the first few and some sectors of the next one, or some sectors of each.
  void Write(const std::string& folder, std::mt19937& random) const {
    auto names = names_;
    const std::size_t changes = random() % (unsynced_names_.size() + 1);
    for (std::size_t i = 0; i < changes; ++i) Apply(*unsynced_names_[i], &names);
    std::filesystem::remove_all(folder);
    if (!has_folder_ && random() % 2 == 0) return;
    std::filesystem::create_directory(folder);
    if (!region_.empty() && random() % 2 == 0) {  // otherwise it is missing
      std::ofstream(folder + "/live", std::ios::binary) << region_;
      std::filesystem::resize_file(folder + "/live", 16U << 20U);  // a shorter region is ignored
    }
    const unsigned way = random() % 4;  // all, none, up to a point, or some
    const std::size_t sector = random() % 2 == 0 ? 512 : 4096;
    for (const auto& [name, file] : names) {
      const auto found = synced_.find(file);
      std::string content = found != synced_.end() ? found->second : "";
      const auto pending = unsynced_.find(file);
      const std::size_t count = pending != unsynced_.end() ? pending->second.size() : 0;
      const std::size_t point = random() % (count + 1);
      for (std::size_t i = 0; i < count; ++i) {
        const Step& step = *pending->second[i];
        const bool torn = (way == 2 && i == point) || way == 3;
        if (torn && step.kind == Kind::kWrite) {
          for (std::size_t at = 0; at < step.text.size();) {
            const std::size_t size = std::min(sector - (step.at + at) % sector, step.text.size() - at);
            if (random() % 2 == 0) Apply({Kind::kWrite, file, step.at + at, step.text.substr(at, size), {}}, &content);
            at += size;
          }
        } else if (way == 0 || (way == 2 && i < point) || (torn && random() % 2 == 0)) {
          Apply(step, &content);
        }
      }
      std::ofstream(std::filesystem::path(folder) / name, std::ios::binary) << content;
    }
  }

 private:
  static void Apply(const Step& step, std::string* content) {
    if (step.kind == Kind::kTruncate) {
      content->resize(step.at);
    } else {
      content->resize(std::max(content->size(), step.at + step.text.size()));
      content->replace(step.at, step.text.size(), step.text);
    }
  }
  static void Apply(const Step& step, std::map<std::string, int>* names) {
    if (step.kind == Kind::kCreate) {
      (*names)[step.text] = step.file;
    } else {
      if (step.kind == Kind::kRename) (*names)[step.to] = step.file;
      names->erase(step.text);
    }
  }

  const bool syncs_;
  bool has_folder_ = false;  // its name is synced
  std::map<int, std::string> synced_;
  std::map<std::string, int> names_;
  std::map<int, std::vector<const Step*>> unsynced_;
  std::vector<const Step*> unsynced_names_;
  std::string region_;
};

/// What is wrong with the store in `folder`, or "". `least` was acknowledged, `most` was attempted.
std::string Check(const std::string& folder, bool made, const std::array<int, 3>& least,
                  const std::array<int, 3>& most) {
  const auto opened = vconf::OpenStore(folder);
  if (!opened.ok()) {
    return !made && opened.code() == vconf::Code::kMissing ? "" : "does not open: " + opened.text();
  }
  std::string wrong;
  for (const auto& entry : kInitial) {
    if (const auto value = vconf::Get(entry.path); !value.ok() || *value != entry.value)
      wrong = entry.path + " is lost";
  }
  for (std::size_t key = 0; key < kKeys.size(); ++key) {
    const int number = NumberIn(kKeys.at(key));
    if (number < least.at(key) || number > most.at(key)) {
      wrong = std::string(kKeys.at(key)) + " has " + std::to_string(number) + ", acknowledged was " +
              std::to_string(least.at(key)) + ", attempted " + std::to_string(most.at(key));
    }
  }
  if (vconf_set_int(kKeys[0], most[0]) != 0) wrong = "cannot be written";
  vconf::CloseStore();
  return wrong;
}

/// Opens `states` disk states from all points of the record. Returns how many were wrong; `first` describes the first.
int Replay(const std::string& folder, int states, bool syncs, std::mt19937& random, std::string* first) {
  const std::vector<Step>& steps = TheRecorder().steps;
  Disk disk(syncs);
  std::array<int, 3> least{};
  std::array<int, 3> most{};
  bool made = false;
  int done = 0;
  int wrong = 0;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const Step& step = steps[i];
    disk.Take(step);
    if (step.kind == Kind::kTry) most.at(static_cast<std::size_t>(step.file)) = static_cast<int>(step.at);
    if (step.kind == Kind::kAcknowledge) {
      made = true;
      if (step.file >= 0) least.at(static_cast<std::size_t>(step.file)) = static_cast<int>(step.at);
    }
    for (; static_cast<std::size_t>(done) * steps.size() < (i + 1) * static_cast<std::size_t>(states); ++done) {
      disk.Write(folder, random);
      if (const std::string text = Check(folder, made, least, most); !text.empty() && wrong++ == 0) {
        *first = "after step " + std::to_string(i) + ": " + text;
      }
    }
  }
  return wrong;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const int states = argc > 1 ? std::atoi(argv[1]) : 10'000;
  const unsigned seed = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : std::random_device{}();
  if (states <= 0 || argc > 3) {
    std::fputs("usage: power [STATES [SEED]]\n", stderr);
    return 2;
  }
  std::fprintf(stderr, "power: seed %u\n", seed);
  dlog::SetSink([](const dlog::Line&) {});
  const TemporaryFolder folder(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path());
  std::mt19937 random(seed);
  RecordAStore(folder / "store", 200);
  std::string first;
  const int wrong = Replay(folder / "disk", states, true, random, &first);
  EXPECT_EQ(wrong, 0) << first;
  // As if syncs of files had no effect: wrong states must be found, otherwise the check above proves nothing.
  const int without = Replay(folder / "disk", std::max(100, states / 20), false, random, &first);
  EXPECT_GT(without, 0);
  std::printf("power: %d states from %zu steps, %d wrong; without syncs of files %d of %d are wrong, the first %s\n",
              states, TheRecorder().steps.size(), wrong, without, std::max(100, states / 20), first.c_str());
  return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}
