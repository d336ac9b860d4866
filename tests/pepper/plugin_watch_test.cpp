// Subscriptions, events, and the end of an instance, from the page's side: the real library on a real store.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vconf.h>

#include <cstring>
#include <random>
#include <thread>

#include "pepper/plugin_fixture.h"

namespace {

constexpr char kCaption[] = "db/menu/caption/caption";
constexpr char kMode[] = "db/menu/caption/captionmode";
constexpr char kTicker[] = "db/menu/Quayhall/Auto-Start_Settings/Channel-bound_Apps_Ticker";
constexpr char kViewer[] = "memory/tv-viewer/bg_executable";
constexpr int kOtherProcessWrites = 3000;
constexpr std::size_t kPosts = 20000;

const std::string kDone = Done("null");

/// The keys that the other process writes, in its order; both sides know it.
std::vector<int> OtherProcessKeys() {
  std::mt19937 random(7);
  std::vector<int> keys(kOtherProcessWrites);
  for (int& key : keys) key = static_cast<int>(random() % 2);
  return keys;
}

int RunOtherProcess(const char* store) {
  if (!vconf::OpenStore(store).ok()) return 1;
  int value = 0;
  for (const int key : OtherProcessKeys()) {
    if (vconf_set_int(key == 0 ? kCaption : kMode, ++value) != 0) return 2;
  }
  vconf::CloseStore();
  return 0;
}

TEST_F(PluginTest, TellsOfItsOwnWrites) {
  Page page(*plugin_);
  EXPECT_EQ(page.Send(AskKey("registerVconfKeysForCaption", 1)), kDone);
  page.Post(Write(1, 2));
  const Lines both = page.Await(2);  // in any order
  EXPECT_EQ(std::count(both.begin(), both.end(), CaptionChanged(1)), 1);
}

// A store that refuses to end subscriptions goes on with its callbacks, which name a handler that is gone.
TEST_F(PluginTest, DropsTheEventsOfADestroyedInstance) {
  PlatformCalls calls;
  std::vector<std::unique_ptr<Page>> pages;
  for (int round = 0; round < 20; ++round) {
    Page page(*plugin_);
    for (const int key : {1, 0, 14}) page.Send(AskKey("registerVconfKeysForCaption", key));
    page.Send(AskKey("registerVconfKeysForMirado", 0));
    calls.Take();
    Fault("vconf_ignore_key_changed", "*", -1, 4);
    page.Destroy();
    const std::string refused =
        "log 0 4 PluginMirado.cpp ClearAllVConfKeys > unable to unregister a vconf changed cb to key: ";
    Lines expected{"log 0 4 PluginMirado.h ~PluginMirado > [PluginMirado]  destructor invoked."};
    for (const std::string path : {kTicker, kCaption, kMode, kViewer}) {
      expected.insert(expected.end(), {"vconf_ignore_key_changed " + path, refused + path});
    }
    expected.push_back("~SimpleThreadAwaitLoop");
    EXPECT_EQ(calls.Take(), expected);
    // A later instance gets its own events alone, wherever it lies in memory.
    pages.push_back(std::make_unique<Page>(*plugin_));
    pages.back()->Send(AskKey("registerVconfKeysForCaption", 1));
    Put(kCaption, round);
    Put(kViewer, round);
    Put(kMode, round);
    for (const auto& later : pages) EXPECT_EQ(later->Heard(), Lines{CaptionChanged(1)}) << round;
  }
  EXPECT_EQ(vconf::SubscriptionCount(), 100U);
  // Unloading the plug-in takes away nothing that the store may still call.
  pages.clear();
  plugin_.reset();
  calls.Take();
  Put(kCaption, 7);
  vconf::Settle();
  EXPECT_EQ(calls.Take(), Lines{});
  vconf::CloseStore();
  ASSERT_EQ(vconf::OpenStore(folder_ / "store").text(), "");
}

// A register command may be running, and others queued behind it, when the instance goes: nothing may stay subscribed.
TEST_F(PluginTest, LeavesNoSubscriptionBehindWhileCommandsRun) {
  for (int round = 0; round < 150; ++round) {
    Page page(*plugin_);
    std::atomic<bool> go = false;
    std::vector<std::thread> senders;
    senders.reserve(4);
    for (int sender = 0; sender < 4; ++sender) {
      senders.emplace_back([&, sender] {
        go.wait(false);
        for (int key = sender; page.Send(AskKey("registerVconfKeysForCaption", key % 22)) != "undefined"; key += 5) {
        }
      });
    }
    go = true;
    go.notify_all();
    page.Send(AskKey("registerVconfKeysForCaption", 3));
    page.Destroy();
    for (std::thread& sender : senders) sender.join();
    ASSERT_EQ(vconf::SubscriptionCount(), 0U) << "round " << round;
  }
}

TEST_F(PluginTest, EveryReplyNamesItsOwnCommand) {
  const auto run = [](Page& page, const std::string& command) {
    for (std::size_t i = 0; i < kPosts; ++i) page.Post(Ask(command));
  };
  // Enough for the two workers to meet between a command and its reply.
  const std::string commands[] = {std::string(40, 'a'), std::string(3, 'b')};
  Page first(*plugin_);
  Page second(*plugin_);
  std::thread other([&] { run(second, commands[1]); });
  run(first, commands[0]);
  other.join();
  const auto check = [](Page& page, const std::string& command) {
    const Lines heard = page.Heard();
    EXPECT_EQ(heard.size(), kPosts);
    for (const std::string& reply : heard) {
      ASSERT_NE(reply.find("\"Command" + command + " no recognized\",\"command\":\"" + command + "\""),
                std::string::npos);
    }
  };
  check(first, commands[0]);
  check(second, commands[1]);
}

TEST_F(PluginTest, OneEventForEachChangeOfAnotherProcess) {
  Page page(*plugin_);
  for (const int key : {0, 1, 2}) page.Send(AskKey("registerVconfKeysForCaption", key));

  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string store = folder_ / "store";
  const std::string role = "--other-process";
  char* arguments[] = {const_cast<char*>(self.c_str()), const_cast<char*>(role.c_str()),
                       const_cast<char*>(store.c_str()), nullptr};
  pid_t child = 0;
  ASSERT_EQ(posix_spawn(&child, self.c_str(), nullptr, nullptr, arguments, environ), 0);
  constexpr int kOwnWrites = 200;
  for (int i = 0; i < kOwnWrites; ++i) page.Post(Write(2, i % 200));
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);

  std::vector<int> from_other;
  int own = 0;
  for (const std::string& message : page.Heard()) {
    if (message == CaptionChanged(2)) ++own;
    if (message == CaptionChanged(0)) from_other.push_back(0);
    if (message == CaptionChanged(1)) from_other.push_back(1);
  }
  EXPECT_EQ(own, kOwnWrites);
  EXPECT_EQ(from_other, OtherProcessKeys());
  const std::string last = page.Send(AskKey("getMenuValue", OtherProcessKeys().back()));
  EXPECT_EQ(last, Done(std::to_string(kOtherProcessWrites)));
}

// Instances come and go while other threads send, post and change the store. Each thread does a little with every
// instance, so that its work falls before, into and after the end of it.
TEST_F(PluginTest, InstancesComeAndGoUnderLoad) {
  constexpr int kInstances = 10000;
  std::mutex mutex;
  std::shared_ptr<pp::browser::PageInstance> current;
  std::atomic<int> made = 0;
  const auto load = [&](auto&& work) {
    return std::thread([&, work] {
      for (int seen = 0; seen < kInstances;) {
        made.wait(seen);
        seen = made;
        std::shared_ptr<pp::browser::PageInstance> instance;
        {
          const std::lock_guard lock(mutex);
          instance = current;
        }
        for (int i = 0; i < 6; ++i) work(*instance, seen + i);
      }
    });
  };
  std::thread threads[] = {
      load([](auto& instance, int i) { instance.Send(Message(AskKey("registerVconfKeysForCaption", i % 22))); }),
      load([](auto& instance, int i) {
        instance.Send(Message(AskKey(i % 2 != 0 ? "unRegisterVconfKeysForCaption" : "getMenuValue", i % 22)));
        if (i % 4 == 0) instance.Post(Message(Ask("unknown")));
        if (i % 5 == 0) instance.Settle();
      }),
      load([](auto&, int i) { vconf_set_int(i % 2 != 0 ? "memory/webapp/caption" : kViewer, i); }),
  };
  for (int i = 1; i <= kInstances; ++i) {
    auto instance = plugin_->CreateInstance([](const pp::Var&) {});
    ASSERT_NE(instance, nullptr);
    {
      const std::lock_guard lock(mutex);
      current = instance;
    }
    made = i;
    made.notify_all();
    instance->Send(Message(AskKey("registerVconfKeysForMirado", 0)));
    if (i % 3 == 0) instance->EndRegistration();
    instance->Destroy();
  }
  for (std::thread& thread : threads) thread.join();
  current.reset();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--other-process") == 0) return RunOtherProcess(argv[2]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
