#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/json.h"
#include "browser_control.h"
#include "dlog_control.h"
#include "pepper/platform_calls.h"
#include "ppapi/c/ppb_extension_system_norvika.h"
#include "set/simulated_set.h"
#include "support/files.h"
#include "vconf_control.h"

inline std::string Text(const pp::Var& var) {
  return var.is_undefined() ? "undefined" : desk::ToText(desk::ToJson(var));
}

inline pp::Var Message(const std::string& json) {
  const auto parsed = desk::ParseJson(json);
  EXPECT_TRUE(parsed.ok()) << json;
  return parsed.ok() ? desk::ToVar(*parsed) : pp::Var();
}

/// The embedder that the plug-in asks, answering as the test says.
struct TestEmbedder {
  static inline std::atomic<int> calls = 0;
  static inline PP_Instance last_instance = 0;
  static inline std::string last_operation;
  static inline std::string last_data;
  static inline std::int32_t status = 0;
  static inline pp::Var reply{true};
  static inline pp::Var name{"OstraWRT"};

  static void Offer() {
    static const PPB_ExtensionSystem_Norvika_0_1 record = {
        [](PP_Instance) { return pp::Var(name).Detach(); },
        [](PP_Instance instance) { return pp::Var(instance).Detach(); },
        [](PP_Instance instance, PP_Var operation, PP_Var data, PP_Var* result) {
          ++calls;
          last_instance = instance;
          last_operation = Text(pp::Var(operation));
          last_data = Text(pp::Var(data));
          PlatformCalls::Add("GenericSyncCall " + last_operation + " " + last_data);
          *result = pp::Var(reply).Detach();  // of no meaning, and not the plug-in's to free, after a failure
          if (status != 0) pp::Var(pp::PASS_REF, *result);
          return status;
        }};
    pp::browser::RegisterBrowserInterface(PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1, &record);
  }
};

/// A page with the plug-in embedded, and what its message listener got.
class Page {
 public:
  explicit Page(pp::browser::Plugin& plugin)
      : instance_(plugin.CreateInstance(
            [this](const pp::Var& message) {
              const std::lock_guard lock(mutex_);
              heard_.push_back(Text(message));
              changed_.notify_all();
            },
            {{"type", "application/x-mirado"}, {"id", "tv"}})) {}
  ~Page() { Destroy(); }

  std::string Send(const std::string& json) { return Text(instance_->Send(Message(json))); }
  void Post(const std::string& json) { instance_->Post(Message(json)); }
  void EndRegistration() { instance_->EndRegistration(); }
  void Destroy() {
    if (instance_) instance_->Destroy();
  }
  pp::browser::PageInstance& instance() { return *instance_; }
  bool exists() const { return instance_ != nullptr; }

  /// All that came, once everything asked and changed so far has been handled.
  Lines Heard() {
    instance_->Settle();
    vconf::Settle();
    const std::lock_guard lock(mutex_);
    return std::exchange(heard_, {});
  }

  /// The next `count` messages, as they come.
  Lines Await(std::size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(30), [&] { return heard_.size() >= count; }));
    return std::exchange(heard_, {});
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Lines heard_;
  std::shared_ptr<pp::browser::PageInstance> instance_;
};

/// The text of a message. Keys and values are JSON, for 7, 7.0 and "7" are three things to the plug-in.
inline std::string Ask(const std::string& command, const std::string& entries = "") {
  return R"({"command":")" + command + "\"" + (entries.empty() ? "" : "," + entries) + "}";
}
inline std::string AskKey(const std::string& command, const desk::Json& key) {
  return Ask(command, R"("propertyKey":)" + key.dump());
}
inline std::string Write(const desk::Json& key, const desk::Json& value) {
  return Ask("setMenuValue", R"("propertyKey":)" + key.dump() + R"(,"value":)" + value.dump());
}

inline std::string Done(const std::string& value) {
  return R"({"code":0,"value":)" + value + R"(,"errorName":"","errorMessage":""})";
}
inline std::string CaptionChanged(int key) {
  std::string reply = Done(std::to_string(key));
  reply.pop_back();
  return reply + R"(,"event":"MIRADO_EVENT_CAPTION_CHANGED"})";
}

/// The real library on a real store in a folder of its own.
class PluginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(vconf::OpenOrCreateStore(folder_ / "store", desk::DefaultEntries()).text(), "");
    dlog::SetSink([](const dlog::Line&) {});
    TestEmbedder::Offer();
    std::string error;
    plugin_ = pp::browser::Plugin::Load(MIRADO_PLUGIN_PATH, &error);
    ASSERT_NE(plugin_, nullptr) << error;
  }

  void TearDown() override {
    plugin_.reset();
    EXPECT_EQ(vconf::SubscriptionCount(), 0U);
    vconf::CloseStore();
    TestEmbedder::status = 0;
    TestEmbedder::reply = pp::Var(true);
    TestEmbedder::name = pp::Var();
    EXPECT_EQ(pp::browser::LiveVarNodes(), 0);
    dlog::SetSink({});
  }

  static void Put(const std::string& path, const vconf::Value& value) {
    ASSERT_EQ(vconf::Set(path, value).text(), "") << path;
  }
  static void Remove(const std::string& path) { ASSERT_EQ(vconf::Remove(path).text(), "") << path; }
  static void Fault(const std::string& call, const std::string& path, int answer, unsigned times = 0) {
    ASSERT_EQ(vconf::SetFault({call, path, answer, times}).text(), "") << call;
  }

  // In memory where that can be, because these tests write much.
  TemporaryFolder folder_{access("/dev/shm", W_OK) == 0 ? "/dev/shm" : testing::TempDir()};
  std::unique_ptr<pp::browser::Plugin> plugin_;
};
