#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include "base/json.h"
#include "browser_control.h"
#include "dlog_control.h"
#include "ppapi/cpp/var_dictionary.h"
#include "set/simulated_set.h"
#include "vconf_control.h"

/// What must be true of every message of the plug-in, whatever its input. A violation aborts the process, which the
/// fuzzer reports as a failure.
namespace fuzz {

inline void Require(bool condition, const char* what, const desk::Json& message = {}) {
  if (condition) return;
  std::fprintf(stderr, "violated: %s: %s\n", what, desk::ToText(message).c_str());
  std::abort();
}

/// Checks a reply or an event: it has four fields and, if `one_more` is given, that one too.
inline void CheckReply(const desk::Json& reply, const char* one_more = nullptr) {
  static const std::map<int, std::string> names = {
      {0, ""}, {9, "NotSupportedError"}, {18, "SecurityError"}, {26, "InvalidValuesError"}, {9999, "UnknownError "}};
  Require(reply.is_object() && reply.size() == (one_more == nullptr ? 4U : 5U), "the fields of a reply", reply);
  for (const char* field : {"code", "value", "errorName", "errorMessage"}) {
    Require(reply.contains(field), field, reply);
  }
  Require(one_more == nullptr || (reply.contains(one_more) && reply[one_more].is_string()), "the fifth field", reply);
  Require(reply["code"].is_number_integer(), "the code is an integer", reply);
  const int code = reply["code"];
  Require(names.contains(code) && reply["errorName"] == names.at(code), "code and error name are a pair", reply);
  Require(
      reply["errorMessage"].is_string() && (code == 0 || !reply["errorMessage"].get_ref<const std::string&>().empty()),
      "an error has a message", reply);
}

/// The command that the delivery for a posted `message` must contain.
inline std::string CommandOf(const pp::Var& message) {
  return message.is_dictionary() ? pp::VarDictionary(message).Get("command").AsString() : "";
}

/// Receives the plug-in's messages as a page would, and checks that each post gets one delivery, in the order of the
/// posts. Any thread.
class ReceivedMessages {
 public:
  void Expect(std::string command) {
    const std::lock_guard lock(mutex_);
    awaited_.push_back(std::move(command));
  }

  void Receive(const desk::Json& message) {
    const std::lock_guard lock(mutex_);
    if (message == "Unregister") {
      Require(!unregistered_, "the registration ends once", message);
      unregistered_ = true;
    } else if (message.is_object() && message.contains("event")) {
      CheckReply(message, "event");
      Require(message["code"] == 0 && message["value"].is_number_integer(), "an event contains a key", message);
      ++events_;
    } else {
      CheckReply(message, "command");
      Require(!awaited_.empty(), "no more deliveries than posts", message);
      Require(message["command"] == awaited_.front(), "a delivery contains its command", message);
      awaited_.pop_front();
      last_delivery_ = message;
    }
  }

  std::uint64_t events() {
    const std::lock_guard lock(mutex_);
    return events_;
  }
  desk::Json last_delivery() {
    const std::lock_guard lock(mutex_);
    return last_delivery_;
  }

  /// Call when all posts have been handled and the registration has ended.
  void Finish() {
    const std::lock_guard lock(mutex_);
    Require(awaited_.empty(), "a delivery for each post", awaited_.empty() ? "" : awaited_.front());
    Require(unregistered_, "the page is notified of the end of the registration");
  }

 private:
  std::mutex mutex_;
  std::deque<std::string> awaited_;
  bool unregistered_ = false;
  std::uint64_t events_ = 0;
  desk::Json last_delivery_;
};

/// The only store of the process, in a temporary folder that the destructor removes. Created before the first input.
class Store {
 public:
  Store() {
    std::string folder = (std::filesystem::temp_directory_path() / "mirado-fuzz-XXXXXX").string();
    Require(mkdtemp(folder.data()) != nullptr, "a folder for the store", folder);
    folder_ = folder;
    dlog::SetThreshold(8);  // no log lines, which would hide the fuzzer's output
    const auto opened = vconf::OpenOrCreateStore(folder_ / "store", desk::DefaultEntries());
    Require(opened.ok(), "the store opens", opened.text());
  }
  ~Store() {
    vconf::CloseStore();
    std::filesystem::remove_all(folder_);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// After each input: checks that no variable and no subscription is left, and resets the set.
  void Settle() {
    Require(pp::browser::LiveVarNodes() == 0, "no live variable is left", pp::browser::LiveVarNodes());
    Require(vconf::SubscriptionCount() == 0, "no subscription is left");
    const auto reset = desk::ResetSet();
    Require(reset.ok(), "the store still works", reset.text());
  }

 private:
  std::filesystem::path folder_;
};

}  // namespace fuzz
