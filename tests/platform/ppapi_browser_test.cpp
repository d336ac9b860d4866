// The browser's side of the plug-in interface (browser_control.h), with a small plug-in: loading, the order of
// messages, registrations, and instances that are destroyed while threads use them.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "browser_control.h"
#include "ppapi/cpp/message_handler.h"
#include "ppapi/cpp/message_loop.h"
#include "ppapi/cpp/module.h"
#include "ppapi_test_plugin.h"
#include "simple_thread_await_loop.h"

namespace {

using pp::browser::PageInstance;
using pp::browser::Plugin;

/// Replies to each waiting message with the message itself, and records all others.
class Handler : public pp::MessageHandler {
 public:
  void HandleMessage(pp::InstanceHandle /*instance*/, const pp::Var& message) override {
    if (on_message) on_message(message);
    handled.push_back(message.AsInt());
  }
  pp::Var HandleBlockingMessage(pp::InstanceHandle /*instance*/, const pp::Var& message) override {
    if (on_message) on_message(message);
    handled.push_back(message.AsInt());
    return message;
  }
  void WasUnregistered(pp::InstanceHandle instance) override {
    pp::Instance(instance).PostMessage("unregistered");
    if (on_unregistered) on_unregistered();
  }

  std::function<void(const pp::Var&)> on_message;
  std::function<void()> on_unregistered;
  std::vector<int> handled;  // written on the loop's thread, read while it does not run the handler
};

/// A loaded plug-in. Each instance has a worker with the handler registered on it, unless a test changes that.
class BrowserTest : public ::testing::Test {
 protected:
  BrowserTest() {
    hooks_.on_created = [this](pp::Instance* instance) {
      worker_ = std::make_unique<pp::SimpleThreadAwaitLoop>(pp::InstanceHandle(instance));
      if (start_worker_) worker_->Start();
      register_result_ = instance->RegisterMessageHandler(&handler_, worker_->message_loop());
    };
    hooks_.on_destroyed = [this] { worker_.reset(); };
    pp::browser::RegisterBrowserInterface(TestPluginHooks::kInterface, &hooks_);
  }
  ~BrowserTest() override {
    plugin_.reset();
    EXPECT_EQ(pp::Module::Get(), nullptr);
    EXPECT_EQ(pp::browser::LiveVarNodes(), nodes_before_);
    pp::browser::SetRegisterMessageHandlerResult(0);
    pp::browser::RegisterBrowserInterface(TestPluginHooks::kInterface, nullptr);
  }

  void SetUp() override {
    auto loaded = Plugin::Load(PPAPI_TEST_PLUGIN);
    ASSERT_TRUE(loaded.ok()) << loaded.status().text();
    plugin_ = *std::move(loaded);
  }

  std::shared_ptr<PageInstance> MakePage() {
    return plugin_->CreateInstance([this](const pp::Var& message) { received_.push_back(message.AsString()); });
  }

  const std::int64_t nodes_before_ = pp::browser::LiveVarNodes();
  TestPluginHooks hooks_;
  Handler handler_;
  bool start_worker_ = true;
  std::int32_t register_result_ = 0;
  std::unique_ptr<pp::SimpleThreadAwaitLoop> worker_;
  std::vector<std::string> received_;
  std::unique_ptr<Plugin> plugin_;
};

TEST_F(BrowserTest, LoadingReportsWhatFailed) {
  const auto reports = [](const char* path, const char* cause) {
    return Plugin::Load(path).status().text().find(cause) != std::string::npos;
  };
  EXPECT_TRUE(reports(PPAPI_TEST_PLUGIN, "loaded already"));
  plugin_.reset();
  EXPECT_TRUE(reports("/nowhere/plugin.so", "/nowhere/plugin.so"));
  EXPECT_TRUE(reports(PPAPI_NO_PLUGIN, "pp::CreateModule"));
  EXPECT_EQ(Plugin::Load(PPAPI_TEST_PLUGIN).status().text(), "");
}

TEST_F(BrowserTest, InitGetsTheParametersAndMayRefuse) {
  const auto listener = [this](const pp::Var& message) { received_.push_back(message.AsString()); };
  EXPECT_NE(plugin_->CreateInstance(listener, {{"id", "tv"}, {"type", ""}}), nullptr);
  EXPECT_EQ(received_, (std::vector<std::string>{"id=tv", "type="}));
  hooks_.init_result = false;
  EXPECT_EQ(plugin_->CreateInstance(listener), nullptr);
  EXPECT_EQ(worker_, nullptr) << "the refused instance was not deleted";
}

TEST_F(BrowserTest, HandlesSendsAndPostsInTheOrderOfTheCalls) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 2000;
  const auto page = MakePage();
  {
    std::vector<std::jthread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&page, thread] {
        for (int i = 0; i < kMessages; ++i) {
          const pp::Var message(thread * kMessages + i);
          if (i % 7 != 0) {
            page->Post(message);
          } else {
            ASSERT_EQ(page->Send(message).AsInt(), message.AsInt());
          }
        }
      });
    }
  }
  page->Settle();
  ASSERT_EQ(handler_.handled.size(), std::size_t{kThreads} * kMessages);
  std::array<int, kThreads> next{};
  for (const int message : handler_.handled) {
    ASSERT_EQ(message % kMessages, next.at(static_cast<std::size_t>(message / kMessages))++);
  }
}

TEST_F(BrowserTest, WithoutARegisteredHandlerNoCallWaits) {
  const auto unanswered = [](PageInstance* page) {
    page->Post(1);
    page->Settle();
    page->EndRegistration();
    return page->Send(1).is_undefined();
  };
  pp::browser::SetRegisterMessageHandlerResult(-5);
  auto page = MakePage();
  EXPECT_EQ(register_result_, -5);
  EXPECT_TRUE(unanswered(page.get()));

  pp::browser::SetRegisterMessageHandlerResult(0);
  pp::Instance instance(page->id());
  EXPECT_NE(instance.RegisterMessageHandler(&handler_, pp::MessageLoop()), 0);
  const pp::MessageLoop loop = worker_->message_loop();
  EXPECT_EQ(instance.RegisterMessageHandler(&handler_, loop), 0);
  EXPECT_NE(instance.RegisterMessageHandler(&handler_, loop), 0) << "there is one already";
  EXPECT_EQ(page->Send(7).AsInt(), 7);
  worker_.reset();  // ends the loop while the handler is registered
  EXPECT_TRUE(unanswered(page.get()));
  EXPECT_NE(instance.RegisterMessageHandler(&handler_, loop), 0) << "the loop has ended";
  page->Destroy();
  EXPECT_NE(instance.RegisterMessageHandler(&handler_, loop), 0) << "the embedding is gone";
  EXPECT_TRUE(unanswered(page.get()));
  EXPECT_EQ(handler_.handled, std::vector<int>{7});
}

TEST_F(BrowserTest, ARegistrationEndsAfterTheEarlierPosts) {
  const auto page = MakePage();
  std::latch may_go_on(1);
  handler_.on_message = [&](const pp::Var& message) {
    if (message.AsInt() == 1) may_go_on.wait();
    pp::Instance(page->id()).PostMessage("handled");
  };
  handler_.on_unregistered = [&] { page->Post(3); };
  page->Post(1);
  page->Post(2);
  std::jthread other_end([&] { page->EndRegistration(); });
  may_go_on.count_down();
  page->EndRegistration();
  other_end.join();  // otherwise it could end the next registration
  page->Post(4);
  EXPECT_TRUE(page->Send(5).is_undefined());
  EXPECT_EQ(received_, (std::vector<std::string>{"handled", "handled", "unregistered"}));
  EXPECT_EQ(pp::Instance(page->id()).RegisterMessageHandler(&handler_, worker_->message_loop()), 0);
  EXPECT_EQ(page->Send(6).AsInt(), 6);
  EXPECT_EQ(handler_.handled, (std::vector<int>{1, 2, 6}));
}

TEST_F(BrowserTest, CallsOnTheLoopsOwnThreadDoNotWaitForIt) {
  const auto page = MakePage();
  bool undefined = false;
  handler_.on_message = [&](const pp::Var& message) {
    EXPECT_EQ(pp::MessageLoop::GetCurrent().core(), worker_->message_loop().core());
    if (message.AsInt() != 1) return;
    undefined = page->Send(2).is_undefined();
    page->Settle();
    page->EndRegistration();
  };
  EXPECT_EQ(page->Send(1).AsInt(), 1);
  EXPECT_TRUE(undefined);
  EXPECT_EQ(page->Send(3).AsInt(), 3) << "still registered";
  EXPECT_TRUE(pp::MessageLoop::GetCurrent().is_null());
}

TEST_F(BrowserTest, AWaitingPageGetsUndefinedWhenTheInstanceIsDestroyed) {
  start_worker_ = false;  // so queued messages stay queued
  const auto page = MakePage();
  std::latch about_to_send(3);
  std::vector<std::jthread> pages;
  pages.reserve(3);
  for (int i = 0; i < 3; ++i) {
    pages.emplace_back([&] {
      about_to_send.count_down();
      EXPECT_TRUE(page->Send(pp::Var("never handled")).is_undefined());
    });
  }
  about_to_send.wait();
  page->Post(pp::Var("never handled either"));
  page->Destroy();
}

TEST_F(BrowserTest, ARunningCallGetsItsReplyAndTheNextDoesNot) {
  const auto page = MakePage();
  std::latch running(1);
  std::latch destroying(1);
  handler_.on_message = [&](const pp::Var&) {
    running.count_down();
    destroying.wait();
  };
  hooks_.on_destroyed = [&, delete_worker = hooks_.on_destroyed] {
    destroying.count_down();
    delete_worker();
  };
  std::jthread waiting([&] {
    EXPECT_EQ(page->Send(1).AsInt(), 1);
    while (!page->Send(2).is_undefined()) {
    }
  });
  running.wait();
  page->Destroy();
  page->Destroy();
}

TEST_F(BrowserTest, ALoopDoesNotCallTheHandlerOfADestroyedInstance) {
  const auto page = MakePage();
  std::latch running(1);
  std::latch destroyed(1);
  handler_.on_message = [&](const pp::Var&) {
    running.count_down();
    destroyed.wait();
  };
  hooks_.on_destroyed = [&] { destroyed.count_down(); };
  page->Post(1);
  running.wait();
  page->Post(2);
  page->Destroy();
  const auto handled = handler_.handled;  // a data race that ThreadSanitizer reports if the handler still runs
  EXPECT_EQ(handled.front(), 1);
  worker_.reset();
  EXPECT_EQ(handler_.handled, handled);
}

TEST_F(BrowserTest, ADestroyedInstanceDeliversNoMessages) {
  std::atomic<bool> gone{false};
  const auto page = plugin_->CreateInstance([&](const pp::Var&) { EXPECT_FALSE(gone); });
  std::latch posting(1);
  std::jthread poster([&, instance = pp::Instance(page->id())](const std::stop_token& stop) mutable {
    for (int i = 0; !stop.stop_requested(); ++i) {
      instance.PostMessage("an event");
      if (i == 100) posting.count_down();
    }
  });
  posting.wait();
  page->Destroy();
  gone = true;
  pp::Instance(page->id()).PostMessage("too late");
}

}  // namespace
