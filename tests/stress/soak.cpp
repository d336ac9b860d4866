// The run `soak`: pages open and close, send, post and watch, while three processes change settings and calls begin to
// fail. Each request gets one reply, each acknowledged write is stored, and each change is delivered once.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "base/json.h"
#include "browser_control.h"
#include "fuzz/property.h"
#include "harness.h"
#include "set/catalog.h"
#include "set/embedder.h"
#include "set/simulated_set.h"
#include "vconf.h"
#include "vconf_control.h"

namespace stress {
namespace {

using desk::Json;

// ---- three processes change settings

constexpr std::array kChanged = {"db/menu/caption/caption", "db/menu/subtitle/subtitle",
                                 "memory/tv-viewer/bg_executable"};

struct Writers {
  std::array<std::atomic<int>, kChanged.size()> made;  ///< successful writes of each setting
  std::atomic<std::uint64_t> refused;
  std::atomic<bool> stop;
};

/// Increments one setting again and again; a refused write does not count.
void Increment(const std::string& store, std::size_t which, Writers& writers) {
  EXPECT_EQ(vconf::OpenStore(store).text(), "");
  int number = std::get<int>(*vconf::Get(kChanged[which]));
  while (!writers.stop) {
    if (vconf_set_int(kChanged[which], number + 1) == 0) {
      ++number;
      ++writers.made[which];
      vconf_sync_key(kChanged[which]);
    } else {
      ++writers.refused;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // the rate of the load
  }
  vconf::CloseStore();
}

/// Checks that each change of one setting is delivered once and in order.
class Follower {
 public:
  explicit Follower(const char* path)
      : last_(std::get<int>(*vconf::Get(path))), watch_(*vconf::WatchPrefix(path, [this](const auto& change) {
          EXPECT_EQ(std::get<int>(change.value.value()), ++last_) << change.path;
          ++count_;
        })) {
    EXPECT_NE(watch_, nullptr);
  }
  int count() const { return count_; }

 private:
  int last_;
  std::atomic<int> count_ = 0;
  std::unique_ptr<vconf::Watch> watch_;
};

// ---- pages

/// A page with the plug-in, in this process or in one of its own.
class Page {
 public:
  Page() = default;
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;
  virtual ~Page() = default;

  /// Returns the reply and checks its form.
  Json Send(const Json& message) {
    Json reply = SendMessage(message);
    fuzz::CheckReply(reply);
    return reply;
  }
  void Post(const Json& message) {
    received_.Expect(message["command"]);
    PostMessage(message);
  }
  /// Closes the page and checks that each post has got its delivery.
  virtual void Leave() = 0;

  fuzz::ReceivedMessages& received() { return received_; }

 protected:
  virtual Json SendMessage(const Json& message) = 0;
  virtual void PostMessage(const Json& message) = 0;

  fuzz::ReceivedMessages received_;
};

class PageInThisProcess : public Page {
 public:
  explicit PageInThisProcess(pp::browser::Plugin& plugin)
      : instance_(plugin.CreateInstance([this](const pp::Var& message) { received_.Receive(desk::ToJson(message)); })) {
  }

  void Leave() override {
    instance_->EndRegistration();
    instance_->Destroy();
    received_.Finish();
  }

 private:
  Json SendMessage(const Json& message) override { return desk::ToJson(instance_->Send(desk::ToVar(message))); }
  void PostMessage(const Json& message) override { instance_->Post(desk::ToVar(message)); }

  std::shared_ptr<pp::browser::PageInstance> instance_;
};

class PageInOwnProcess : public Page {
 public:
  explicit PageInOwnProcess(const TemporaryFolder& folder)
      : host_({"host", "--store", folder / "store", "--log-level", "7"}, folder / "host.log") {}

  /// Requests the answer that `ReadUntilSettled` waits for on another thread.
  void Settle() { host_.WriteLine(R"({"settle":true})"); }
  void ReadUntilSettled() {
    for (Json line = Next(); !line.is_null() && !line.contains("settled"); line = Next()) {
      EXPECT_FALSE(line.contains("reply")) << "a reply without a request: " << line;
    }
  }

  void Leave() override {
    host_.CloseInput();
    ReadUntilSettled();
    EXPECT_EQ(host_.Wait(), 0);
    received_.Finish();
  }

 private:
  void PostMessage(const Json& message) override { host_.WriteLine(Json{{"post", message}}.dump()); }
  Json SendMessage(const Json& message) override {
    host_.WriteLine(Json{{"send", message}}.dump());
    while (true) {
      const Json line = Next();
      if (line.is_null() || line.contains("reply")) return line.is_null() ? line : line["reply"];
    }
  }
  /// The next line, null at the end. Records it if it is a message to the page.
  Json Next() {
    const std::string line = host_.ReadLine();
    if (line.empty()) return {};
    Json message = Json::parse(line);
    if (message.contains("message")) received_.Receive(message["message"]);
    return message;
  }

  Program host_;
};

// ---- the run

class Soak {
 public:
  Soak(pp::browser::Plugin& plugin, const TemporaryFolder& folder, unsigned seed)
      : plugin_(plugin), folder_(folder), random_(seed) {
    for (int key = 2; key <= 13; ++key) free_keys_.push_back(key);
  }

  /// Does one action, chosen at random.
  void Step() {
    const int choice = Any(0, 99);
    if (pages_.empty() || (choice < 3 && pages_.size() < 10)) {
      Open();
    } else if (choice < 6) {
      Close(AnyPage());
    } else if (choice < 9) {
      Fault();
    } else if (choice < 50) {
      Request(AnyPage());
    } else {
      Write(AnyPage());
    }
  }

  void CloseAll() {
    while (!pages_.empty()) Close(pages_.size() - 1);
  }

  struct Counts {
    std::uint64_t pages = 0, in_processes = 0, killed = 0, requests = 0, refused = 0, written = 0, faults = 0;
  };
  const Counts& counts() const { return counts_; }

 private:
  struct OpenPage {
    std::unique_ptr<Page> page;
    bool own_process;
    int key;  // no other page writes this key
    std::string path;
    int value;  // of the last acknowledged write
  };

  int Any(int least, int most) { return std::uniform_int_distribution<>(least, most)(random_); }
  std::size_t AnyPage() { return static_cast<std::size_t>(Any(0, static_cast<int>(pages_.size()) - 1)); }

  void Open() {
    const bool own_process = Any(0, 2) == 0;
    const int key = free_keys_.front();
    free_keys_.erase(free_keys_.begin());
    const std::string path(desk::Settings()[static_cast<std::size_t>(key)].path);
    std::unique_ptr<Page> page;
    if (own_process) {
      page = std::make_unique<PageInOwnProcess>(folder_);
    } else {
      page = std::make_unique<PageInThisProcess>(plugin_);
    }
    pages_.push_back({std::move(page), own_process, key, path, std::get<int>(*vconf::Get(path))});
    ++counts_.pages;
    counts_.in_processes += own_process ? 1 : 0;
  }

  void Close(std::size_t at) {
    OpenPage& open = pages_[at];
    if (open.own_process && Any(0, 1) == 0) {
      ++counts_.killed;  // by its destructor
    } else {
      open.page->Leave();
    }
    open.page.reset();
    EXPECT_EQ(*vconf::Get(open.path), vconf::Value(open.value)) << "lost an acknowledged write: " << open.path;
    free_keys_.push_back(open.key);
    pages_.erase(pages_.begin() + static_cast<std::ptrdiff_t>(at));
  }

  void Fault() {
    static const std::array<vconf::Fault, 6> faults = {{{"vconf_get_int", "*", -1, 3},
                                                        {"vconf_set_int", kChanged[0], -1, 5},
                                                        {"vconf_set_int", "*", -5, 2},
                                                        {"vconf_notify_key_changed", "*", -2, 2},
                                                        {"GetItemDataList", "primary-audio-language", 0, 1},
                                                        {"vconf_sync_key", "*", -1, 3}}};
    EXPECT_EQ(vconf::SetFault(faults[static_cast<std::size_t>(Any(0, 5))]).text(), "");
    if (Any(0, 3) == 0) static_cast<void>(vconf::ClearFaults());
    ++counts_.faults;
  }

  void Request(std::size_t at) {
    static constexpr std::array kCommands = {"getVersion",          "getMenuValue",
                                             "getMiradoValue",      "registerVconfKeysForCaption",
                                             "showCaption",         "registerVconfKeysForMirado",
                                             "isTVSPicSizeResized", "unRegisterVconfKeysForCaption"};
    const Json reply = pages_[at].page->Send({{"command", kCommands[static_cast<std::size_t>(Any(0, 7))]},
                                              {"propertyKey", Any(-1, 22)},
                                              {"show", Any(0, 1)}});
    ++counts_.requests;
    counts_.refused += reply["code"] != 0 ? 1 : 0;
  }

  /// The page writes its own setting. After an acknowledged write every read must return the new value at once.
  void Write(std::size_t at) {
    OpenPage& open = pages_[at];
    const int value = Any(0, 255);
    open.page->Post({{"command", "setMenuValue"}, {"propertyKey", open.key}, {"value", value}});
    const Json read = open.page->Send({{"command", "getMenuValue"}, {"propertyKey", open.key}});
    counts_.requests += 2;
    if (open.page->received().last_delivery()["code"] == 0) {
      open.value = value;
      ++counts_.written;
    }
    EXPECT_EQ(*vconf::Get(open.path), vconf::Value(open.value)) << open.path;
    EXPECT_TRUE(read["code"] != 0 || read["value"] == open.value) << open.path << ' ' << read;
  }

  pp::browser::Plugin& plugin_;
  const TemporaryFolder& folder_;
  std::mt19937 random_;
  std::vector<int> free_keys_;
  std::vector<OpenPage> pages_;
  Counts counts_;
};

/// How much the median of the last quarter exceeds that of the second quarter.
double Growth(const std::vector<double>& samples) {
  const auto quarter = static_cast<std::ptrdiff_t>(samples.size() / 4);
  return Quantile({samples.end() - quarter, samples.end()}, 0.5) -
         Quantile({samples.begin() + quarter, samples.begin() + 2 * quarter}, 0.5);
}

}  // namespace

void RunSoak(double seconds, unsigned seed) {
  Progress progress("soak", seconds, "seconds");
  const TemporaryFolder folder;
  const std::string store = folder / "store";
  dlog::SetThreshold(7);
  EXPECT_EQ(vconf::OpenOrCreateStore(store, desk::DefaultEntries()).text(), "");
  vconf::CloseStore();
  auto& writers = SharedWithForks<Writers>();
  std::array<std::unique_ptr<Process>, kChanged.size()> processes;
  // The writers start when all subscribers have subscribed.
  std::array<int, 2> start{};
  EXPECT_EQ(pipe2(start.data(), O_CLOEXEC), 0);
  for (std::size_t which = 0; which < processes.size(); ++which) {
    processes[which] = std::make_unique<Process>([&, which] {
      close(start[1]);
      char end = 0;
      static_cast<void>(!read(start[0], &end, 1));
      Increment(store, which, writers);
    });
  }

  EXPECT_EQ(vconf::OpenStore(store).text(), "");
  desk::OfferEmbedder();
  auto plugin = pp::browser::Plugin::Load(MIRADO_PLUGIN_PATH);
  ASSERT_TRUE(plugin.ok()) << plugin.status().text();
  Soak soak(**plugin, folder, seed);
  std::vector<std::unique_ptr<Follower>> followers;
  followers.reserve(kChanged.size());
  for (const char* path : kChanged) followers.push_back(std::make_unique<Follower>(path));
  // In a process of its own, where no other page can end its subscriptions.
  PageInOwnProcess listener(folder);
  EXPECT_EQ(listener.Send({{"command", "registerVconfKeysForCaption"}, {"propertyKey", 0}})["code"], 0);
  EXPECT_EQ(listener.Send({{"command", "registerVconfKeysForCaption"}, {"propertyKey", 16}})["code"], 0);
  EXPECT_EQ(listener.Send({{"command", "registerVconfKeysForMirado"}, {"propertyKey", 0}})["code"], 0);
  std::thread listening([&] { listener.ReadUntilSettled(); });
  close(start[0]);
  close(start[1]);
  EXPECT_EQ(vconf::Set("set/soak", 1).text(), "");  // the first write opens the database
  const int descriptors = OwnUsage().descriptors;

  const auto begun = Clock::now();
  std::vector<double> memory;
  std::vector<double> size;
  double done = 0;
  do {
    if (done * 100 / seconds >= static_cast<double>(memory.size())) {
      memory.push_back(OwnUsage().mebibytes);
      size.push_back(static_cast<double>(std::filesystem::file_size(store + "/keys.db")) / (1 << 20));
    }
    soak.Step();
    done = Milliseconds(Clock::now() - begun) / 1000;
  } while (progress.Continues(done));

  EXPECT_EQ(vconf::ClearFaults().text(), "");
  writers.stop = true;
  for (auto& process : processes) EXPECT_EQ(process->Wait(), 0) << "a process of the run failed";
  soak.CloseAll();
  vconf::Settle();
  EXPECT_EQ(OwnUsage().descriptors + 3, descriptors)
      << "the pipes of the three writers are closed, and nothing else changed";
  listener.Settle();
  listening.join();
  listener.Leave();
  int made = 0;
  for (std::size_t which = 0; which < kChanged.size(); ++which) {
    EXPECT_EQ(followers[which]->count(), writers.made[which]) << kChanged[which];
    made += writers.made[which];
  }
  EXPECT_EQ(listener.received().events(), static_cast<std::uint64_t>(made));
  followers.clear();
  EXPECT_EQ(vconf::SubscriptionCount(), 0U);
  EXPECT_EQ(pp::browser::LiveVarNodes(), 0);
  const bool takes_more =
      kSanitized || std::getenv("MIRADO_EMULATED") != nullptr;  // the emulator allocates some for each thread
  EXPECT_TRUE(takes_more || Growth(memory) < (done < 600 ? 2.0 : 0.3)) << Growth(memory) << " MiB";
  // The ring of kept changes reaches its full size after a minute or two.
  EXPECT_TRUE(done < 600 || Growth(size) < 1.0) << "the store grows";
  const auto& counts = soak.counts();
  std::printf("soak: %.0f seconds%s; %llu pages, %llu of them processes of their own, %llu of those killed\n", done,
              Progress::Remark().c_str(), static_cast<unsigned long long>(counts.pages),
              static_cast<unsigned long long>(counts.in_processes), static_cast<unsigned long long>(counts.killed));
  std::printf("  %llu requests, each answered once, %llu of them with a failure; %llu faults set\n",
              static_cast<unsigned long long>(counts.requests), static_cast<unsigned long long>(counts.refused),
              static_cast<unsigned long long>(counts.faults));
  std::printf("  %llu acknowledged writes of pages, all there; %d changes by three processes, %llu refused\n",
              static_cast<unsigned long long>(counts.written), made,
              static_cast<unsigned long long>(writers.refused.load()));
  std::printf("  %llu events, one for each change; %d descriptors before and after\n",
              static_cast<unsigned long long>(listener.received().events()), descriptors);
  std::printf("  memory %.1f MiB, growth in the later half %.2f MiB; store %.1f MiB, growth %.2f MiB\n", memory.back(),
              Growth(memory), size.back(), Growth(size));
  plugin->reset();
  vconf::CloseStore();
}

}  // namespace stress
