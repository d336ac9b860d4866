#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

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

// What the tests of the plug-in share: a loaded plug-in, pages that embed it, their messages, and an embedder.

inline std::string Text(const pp::Var& var) {
  return var.is_undefined() ? "undefined" : desk::ToText(desk::ToJson(var));
}

inline pp::Var Message(const std::string& json) { return desk::ToVar(desk::ParsedJson::parse(json)); }

/// An embedder for the plug-in, whose answers the test sets.
struct TestEmbedder {
  static inline PP_Instance last_instance = 0;
  static inline std::int32_t status = 0;
  static inline pp::Var reply{true};
  static inline pp::Var name;

  static void Offer() {
    static const PPB_ExtensionSystem_Norvika_0_1 record = {
        [](PP_Instance) {
          PlatformCalls::Add("GetEmbedderName");
          return pp::Var(name).Detach();
        },
        [](PP_Instance instance) { return pp::Var(instance).Detach(); },
        [](PP_Instance instance, PP_Var operation, PP_Var data, PP_Var* result) {
          last_instance = instance;
          PlatformCalls::Add("GenericSyncCall " + Text(pp::Var(operation)) + " " + Text(pp::Var(data)));
          *result = pp::Var(reply).Detach();  // after a failure it has no meaning, and the plug-in must not release it
          if (status != 0) pp::Var(pp::PASS_REF, *result);
          return status;
        }};
    pp::browser::RegisterBrowserInterface(PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1, &record);
  }
};

/// A page that embeds the plug-in, and the messages that its listener received.
class Page {
 public:
  explicit Page(pp::browser::Plugin& plugin)
      : instance_(plugin.CreateInstance(
            [this](const pp::Var& message) {
              const std::lock_guard lock(mutex_);
              received_.push_back(Text(message));
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

  /// Waits until all earlier messages and changes have been handled; returns the messages received since the last call.
  Lines Received() {
    instance_->Settle();
    vconf::Settle();
    const std::lock_guard lock(mutex_);
    return std::exchange(received_, {});
  }

 private:
  std::mutex mutex_;
  Lines received_;
  std::shared_ptr<pp::browser::PageInstance> instance_;
};

/// The text of a message with this command; `entries` are further members, as JSON.
inline std::string Ask(const std::string& command, const std::string& entries = "") {
  return R"({"command":")" + command + "\"" + (entries.empty() ? "" : "," + entries) + "}";
}
inline std::string AskKey(const std::string& command, int key) {
  return Ask(command, R"("propertyKey":)" + std::to_string(key));
}

/// The text of a successful reply, and below of an event.
inline std::string Done(const std::string& value) {
  return R"({"code":0,"value":)" + value + R"(,"errorName":"","errorMessage":""})";
}
inline std::string Changed(const std::string& event, int key) {
  std::string reply = Done(std::to_string(key));
  reply.back() = ',';
  return reply + R"("event":")" + event + "\"}";
}

/// The plug-in's library, loaded, on a store in a temporary folder.
class PluginTest : public ::testing::Test {
 protected:
  PluginTest() {
    dlog::SetSink([](const dlog::Line&) {});
  }
  ~PluginTest() override { dlog::SetSink({}); }

  void SetUp() override {
    ASSERT_EQ(vconf::OpenOrCreateStore(folder_ / "store", desk::DefaultEntries()).text(), "");
    TestEmbedder::Offer();
    auto loaded = pp::browser::Plugin::Load(MIRADO_PLUGIN_PATH);
    ASSERT_TRUE(loaded.ok()) << loaded.status().text();
    plugin_ = *std::move(loaded);
  }

  void TearDown() override {
    plugin_.reset();
    EXPECT_EQ(vconf::SubscriptionCount(), 0U);
    vconf::CloseStore();
    TestEmbedder::status = 0;
    TestEmbedder::reply = pp::Var(true);
    TestEmbedder::name = pp::Var();
    EXPECT_EQ(pp::browser::LiveVarNodes(), 0);
  }

  static void Put(const std::string& path, const vconf::Value& value) {
    ASSERT_EQ(vconf::Set(path, value).text(), "") << path;
  }
  static void Remove(const std::string& path) { ASSERT_EQ(vconf::Remove(path).text(), "") << path; }
  static void Fault(const std::string& call, const std::string& path, int answer, unsigned times = 0) {
    ASSERT_EQ(vconf::SetFault({call, path, answer, times}).text(), "") << call;
  }

  // In memory if possible, because these tests write much.
  TemporaryFolder folder_{access("/dev/shm", W_OK) == 0 ? "/dev/shm" : testing::TempDir()};
  std::unique_ptr<pp::browser::Plugin> plugin_;
};
