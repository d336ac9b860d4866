#pragma once

#include <gtest/gtest.h>

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
#include "ppapi/c/ppb_extension_system_norvika.h"
#include "set/faults.h"
#include "set/simulated_set.h"
#include "support/files.h"
#include "vconf_control.h"

using Lines = std::vector<std::string>;

/// One log line as the tests compare it: "id priority operation > text".
inline std::string BriefLine(const dlog::Line& line) {
  // "File.cpp: operation(12) > text": the file and the number of the line are nobody's business here.
  std::string text(line.text);
  const auto colon = text.find(": ");
  const auto paren = text.find('(', colon);
  const auto close = text.find(") > ", paren);
  const std::string operation = text.substr(colon + 2, paren - colon - 2);
  return std::to_string(line.log_id) + " " + std::to_string(line.priority) + " " + operation + text.substr(close + 1);
}

/// The plug-in's log lines, in order, from its construction on.
class LogCapture {
 public:
  LogCapture() {
    dlog::SetSink([this](const dlog::Line& line) {
      if (line.tag != "QRL_BASE") return;
      const std::lock_guard lock(mutex_);
      lines_.push_back(BriefLine(line));
    });
  }
  ~LogCapture() { dlog::SetSink({}); }

  Lines Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  Lines lines_;
};

inline std::string Text(const pp::Var& var) { return desk::ToText(desk::ToJson(var)); }

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
          if (status == 0) *result = pp::Var(reply).Detach();
          return status;
        }};
    pp::browser::RegisterBrowserInterface(PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1, &record);
  }
};

/// A page with the plug-in embedded, and what its message listener got.
class Page {
 public:
  explicit Page(pp::browser::Plugin& plugin)
      : instance_(plugin.CreateInstance([this](const pp::Var& message) {
          const std::lock_guard lock(mutex_);
          heard_.push_back(Text(message));
          changed_.notify_all();
        })) {}
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

inline std::string Reply(int code, const std::string& value, const std::string& name, const std::string& message) {
  return R"({"code":)" + std::to_string(code) + R"(,"value":)" + value + R"(,"errorName":")" + name +
         R"(","errorMessage":")" + message + "\"";
}
inline std::string Waited(int code, const std::string& value, const std::string& name, const std::string& message) {
  return Reply(code, value, name, message) + "}";
}
inline std::string Delivered(const std::string& command, int code, const std::string& value, const std::string& name,
                             const std::string& message) {
  return Reply(code, value, name, message) + R"(,"command":")" + command + "\"}";
}
inline std::string Event(const std::string& event, int key) {
  return Reply(0, std::to_string(key), "", "") + R"(,"event":")" + event + "\"}";
}
inline std::string Done(const std::string& value) { return Waited(0, value, "", ""); }

/// The real library on a real store in a folder of its own.
class PluginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(vconf::OpenOrCreateStore(folder_ / "store", desk::DefaultEntries()).text(), "");
    TestEmbedder::Offer();
    std::string error;
    plugin_ = pp::browser::Plugin::Load(MIRADO_PLUGIN_PATH, &error);
    ASSERT_NE(plugin_, nullptr) << error;
  }

  void TearDown() override {
    plugin_.reset();
    EXPECT_EQ(vconf::SubscriptionCount(), 0U);
    vconf::CloseStore();
    TestEmbedder::reply = pp::Var(true);
    TestEmbedder::name = pp::Var();
    EXPECT_EQ(pp::browser::LiveVarNodes(), 0);
  }

  static void Fault(const std::string& call, const std::string& path, int answer) {
    ASSERT_EQ(desk::AddFault({call, path, answer, 0}).text(), "");
  }

  TemporaryFolder folder_;
  LogCapture log_;
  std::unique_ptr<pp::browser::Plugin> plugin_;
};
