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

/// What holds of everything that the plug-in says, whatever it is told; a breach ends the process, which is how a
/// fuzzer learns of it.
namespace fuzz {

inline void Require(bool holds, const char* what, const desk::Json& said = {}) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s: %s\n", what, desk::ToText(said).c_str());
  std::abort();
}

/// A reply or an event: the four fields and, where it is named, one more.
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
      "an error tells why", reply);
}

/// The command text that the delivery for a posted `message` has to carry.
inline std::string CommandOf(const pp::Var& message) {
  return message.is_dictionary() ? pp::VarDictionary(message).Get("command").AsString() : "";
}

/// Hears what a page hears and demands one delivery for each post, in the order of the posts. Any thread.
class PageEar {
 public:
  void Expect(std::string command) {
    const std::lock_guard lock(mutex_);
    awaited_.push_back(std::move(command));
  }

  void Hear(const desk::Json& said) {
    const std::lock_guard lock(mutex_);
    if (said == "Unregister") {
      Require(!unregistered_, "the registration ends once", said);
      unregistered_ = true;
    } else if (said.is_object() && said.contains("event")) {
      CheckReply(said, "event");
      Require(said["code"] == 0 && said["value"].is_number_integer(), "an event names a key", said);
      ++events_;
    } else {
      CheckReply(said, "command");
      Require(!awaited_.empty(), "no more deliveries than posts", said);
      Require(said["command"] == awaited_.front(), "a delivery names its command", said);
      awaited_.pop_front();
      last_delivery_ = said;
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

  /// Once all that was posted has been handled and the registration has ended.
  void Finish() {
    const std::lock_guard lock(mutex_);
    Require(awaited_.empty(), "a delivery for each post", awaited_.empty() ? "" : awaited_.front());
    Require(unregistered_, "the page hears of the end");
  }

 private:
  std::mutex mutex_;
  std::deque<std::string> awaited_;
  bool unregistered_ = false;
  std::uint64_t events_ = 0;
  desk::Json last_delivery_;
};

/// The one store of the process, in a folder of its own that goes with it. Built before the first input.
class Store {
 public:
  Store() {
    std::string folder = (std::filesystem::temp_directory_path() / "mirado-fuzz-XXXXXX").string();
    Require(mkdtemp(folder.data()) != nullptr, "a folder for the store", folder);
    folder_ = folder;
    dlog::SetThreshold(8);  // above all: the fuzzer's own lines are to be read
    const auto opened = vconf::OpenOrCreateStore(folder_ / "store", desk::DefaultEntries());
    Require(opened.ok(), "the store opens", opened.text());
  }
  ~Store() {
    vconf::CloseStore();
    std::filesystem::remove_all(folder_);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// After each input: nothing is left of it, and the next one starts from the same set.
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
