// The built plug-in with several instances and threads: what is left of a destroyed instance, and which command a reply
// names. What a single page sees is in transcript_test.cpp.

#include <malloc.h>
#include <vconf.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "pepper/plugin_fixture.h"

namespace {

constexpr char kCaption[] = "db/menu/caption/caption";
constexpr char kMode[] = "db/menu/caption/captionmode";
constexpr char kTicker[] = "db/menu/Quayhall/Auto-Start_Settings/Channel-bound_Apps_Ticker";
constexpr char kViewer[] = "memory/tv-viewer/bg_executable";
const std::string kModeChanged = Changed("MIRADO_EVENT_CAPTION_CHANGED", 1);

// If the store fails to end a subscription, it goes on calling the callback with a handler that no longer exists.
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
    // A later instance gets only its own events, also at the address of an earlier one.
    pages.push_back(std::make_unique<Page>(*plugin_));
    pages.back()->Send(AskKey("registerVconfKeysForCaption", 1));
    for (const char* path : {kCaption, kViewer, kMode}) Put(path, round);
    for (const auto& later : pages) EXPECT_EQ(later->Received(), Lines{kModeChanged}) << round;
  }
  // The store may still call a callback after the plug-in was unloaded.
  pages.clear();
  plugin_.reset();
  calls.Take();
  Put(kCaption, 7);
  vconf::Settle();
  EXPECT_EQ(calls.Take(), Lines{});
  vconf::CloseStore();
  ASSERT_EQ(vconf::OpenStore(folder_ / "store").text(), "");
}

// For builds without a leak sanitizer, which would find this, too.
TEST_F(PluginTest, FreesTheMemoryOfAnInstance) {
  constexpr std::size_t kInstances = 1000;
  std::size_t before = 0;
  for (std::size_t i = 0; i < kInstances; ++i) {
    if (i == 10) before = mallinfo2().uordblks;  // after the allocations that are made only once
    Page(*plugin_).Send(AskKey("registerVconfKeysForCaption", 1));
  }
  EXPECT_LT(mallinfo2().uordblks, before + 10 * kInstances);
}

// Commands, events and posts may be running, and more of them queued, when the instance is destroyed.
TEST_F(PluginTest, LeavesNoSubscriptionBehindWhileCommandsRun) {
  const std::jthread writer([](const std::stop_token& stop) {
    for (int value = 0; !stop.stop_requested(); ++value) vconf_set_int(kViewer, value);
  });
  for (int round = 0; round < 300; ++round) {
    Page page(*plugin_);
    std::atomic<bool> go = false;
    std::vector<std::jthread> senders;
    senders.reserve(4);
    for (int sender = 0; sender < 4; ++sender) {
      senders.emplace_back([&, sender] {
        go.wait(false);
        const std::string command = (sender == 3 ? "unR" : "r") + std::string("egisterVconfKeysForCaption");
        for (int key = sender; page.Send(AskKey(command, key % 22)) != "undefined"; key += 5) page.Post(Ask("x"));
      });
    }
    go = true;
    go.notify_all();
    page.Send(AskKey("registerVconfKeysForMirado", 0));
    if (round % 3 == 0) page.EndRegistration();
    page.Destroy();
    senders.clear();
    ASSERT_EQ(vconf::SubscriptionCount(), 0U) << "round " << round;
  }
}

TEST_F(PluginTest, EveryReplyNamesItsOwnCommand) {
  constexpr int kPosts = 20000;  // so many that one worker runs between a command and its reply in the other
  Page pages[] = {Page(*plugin_), Page(*plugin_)};
  const std::string commands[] = {std::string(40, 'a'), std::string(3, 'b')};
  const auto run = [&](int which) {
    for (int i = 0; i < kPosts; ++i) pages[which].Post(Ask(commands[which]));
  };
  std::thread other(run, 1);
  run(0);
  other.join();
  for (const int which : {0, 1}) {
    const Lines received = pages[which].Received();
    ASSERT_EQ(received.size(), kPosts);
    desk::Json reply = desk::Json::parse(received.front());
    EXPECT_EQ(reply["command"], commands[which]);
    EXPECT_EQ(reply["errorMessage"], "Command" + commands[which] + " no recognized");
    EXPECT_EQ(std::ranges::count(received, received.front()), kPosts);
  }
}

}  // namespace
