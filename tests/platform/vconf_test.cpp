// The functions of the store (vconf.h, vconf_control.h) in one process: values, changes, subscriptions, faults.

#include <atomic>
#include <climits>
#include <future>
#include <iterator>
#include <latch>
#include <optional>
#include <thread>

#include "support/vconf_fixture.h"

namespace {

using vconf::Change;
using vconf::Entry;
using vconf::Fault;

void CollectPath(keynode_t* node, void* paths) {
  static_cast<std::vector<std::string>*>(paths)->emplace_back(node->keyname);
}

TEST_F(VconfTest, KeysKeepTypeAndValue) {
  Open();
  for (const std::string prefix : {"db/", "memory/"}) {
    const std::string number = prefix + "number";
    const std::string flag = prefix + "flag";
    int value = 77;
    EXPECT_NE(vconf_get_int(number.c_str(), &value), 0);
    EXPECT_EQ(value, 77);
    for (const int written : {0, -5, INT_MAX, INT_MIN}) {
      EXPECT_EQ(vconf_set_int(number.c_str(), written), 0);
      EXPECT_EQ(vconf_get_int(number.c_str(), &value), 0);
      EXPECT_EQ(value, written);
    }
    EXPECT_EQ(vconf_set_bool(flag.c_str(), 1), 0);
    EXPECT_NE(vconf_set_bool(number.c_str(), 1), 0);
    EXPECT_NE(vconf_set_int(flag.c_str(), 3), 0);
    value = 77;
    EXPECT_NE(vconf_get_bool(number.c_str(), &value), 0);
    EXPECT_NE(vconf_get_int(flag.c_str(), &value), 0);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(vconf_sync_key(number.c_str()), 0);
  }
  Reopen();
  EXPECT_EQ(GetInt("db/number", 0), INT_MIN);
  EXPECT_EQ(GetInt("memory/number", 0), INT_MIN);
  int flag = 0;
  EXPECT_EQ(vconf_get_bool("db/flag", &flag), 0);
  EXPECT_EQ(flag, 1);
  EXPECT_TRUE(Log().empty()) << Log().front();
}

TEST_F(VconfTest, CallsWithAnInvalidPathOrNoStoreReturnAnError) {
  int value = 77;
  std::atomic<int> calls{0};
  const auto all_fail = [&](const char* path) {
    EXPECT_LT(vconf_get_int(path, &value), 0);
    EXPECT_LT(vconf_get_bool(path, &value), 0);
    EXPECT_LT(vconf_set_int(path, 1), 0);
    EXPECT_LT(vconf_set_bool(path, 1), 0);
    EXPECT_LT(vconf_sync_key(path), 0);
    EXPECT_LT(vconf_notify_key_changed(path, Count, &calls), 0);
    EXPECT_LT(vconf_ignore_key_changed(path, Count), 0);
  };
  all_fail("db/no-store");
  EXPECT_EQ(vconf::Set("db/a", 1).text(), "no store is open; open one first");
  Open();
  const std::string too_long = "db/" + std::string(509, 'x');
  const std::string longest = too_long.substr(0, 511);
  for (const char* path :
       {static_cast<const char*>(nullptr), "", "db/", "db", "/db/a", "set/a", "other/a", too_long.c_str()}) {
    all_fail(path);
  }
  EXPECT_EQ(value, 77);
  EXPECT_LT(vconf_notify_key_changed("db/a", nullptr, nullptr), 0);
  EXPECT_EQ(vconf_set_int(longest.c_str(), 4), 0);
  EXPECT_EQ(GetInt(longest, 0), 4);
}

TEST_F(VconfTest, OnlyANewStoreGetsTheInitialEntries) {
  Open({{"db/a", 1}, {"memory/b", true}, {"set/c", std::string("text")}});
  EXPECT_EQ(*vconf::List(""), (std::vector<Entry>{{"db/a", 1}, {"memory/b", true}, {"set/c", std::string("text")}}));
  EXPECT_EQ(vconf::Remove("db/a").text(), "");
  EXPECT_NE(vconf::OpenStore(folder() + "/second").text(), "");
  vconf::CloseStore();
  Open({{"db/a", 1}, {"db/d", 2}});
  EXPECT_EQ(*vconf::List("db/"), std::vector<Entry>{});
  vconf::CloseStore();
  const auto error = vconf::OpenOrCreateStore(folder() + "/third", {{"other/a", 1}});
  EXPECT_TRUE(error.text().starts_with("other/a: does not begin with `db/`, `memory/` or `set/`")) << error.text();
  EXPECT_FALSE(std::filesystem::exists(folder() + "/third"));
  EXPECT_EQ(vconf::OpenStore(folder() + "/third/").code(), vconf::Code::kMissing);
  std::filesystem::create_directory(folder() + "/third");
  EXPECT_EQ(vconf::OpenStore(folder() + "/third").code(), vconf::Code::kMissing);
  EXPECT_EQ(vconf::OpenOrCreateStore(folder() + "/third/", {}).text(), "");
}

TEST_F(VconfTest, ControlSupportsEveryTypeAndPrefix) {
  Open();
  const std::string longest(65536, 'z');
  EXPECT_EQ(vconf::Set("set/long", longest).text(), "");
  EXPECT_EQ(*vconf::Get("set/long"), vconf::Value(longest));
  EXPECT_NE(vconf::Set("set/long", longest + "z").text(), "");
  EXPECT_EQ(vconf::Set("set/long", 1).text(), "set/long: holds a value of another type");
  EXPECT_EQ(vconf::Remove("db/none").text(), "db/none: no such key");
  EXPECT_EQ(vconf::Set("memory/m", std::string()).text(), "");
  EXPECT_EQ(vconf::Set("db/b", false).text(), "");
  EXPECT_EQ(vconf::Set("db/a", 1).text(), "");
  EXPECT_EQ(*vconf::List("db"), (std::vector<Entry>{{"db/a", 1}, {"db/b", false}}));
  EXPECT_EQ(*vconf::List("memory/m"), (std::vector<Entry>{{"memory/m", std::string()}}));
  EXPECT_EQ(vconf::Remove("db/a").text(), "");
  EXPECT_EQ(vconf::Set("db/a", true).text(), "");  // a removed key may get another type
}

class VconfChangeTest : public VconfTest {
 protected:
  void SetUp() override { Open(); }

  std::unique_ptr<vconf::Watch> Collect(const std::string& prefix) {
    return *vconf::WatchPrefix(prefix, [this](const Change& change) { changes_.push_back(change); });
  }

  std::vector<Change> changes_;
};

TEST_F(VconfChangeTest, EachSubscriptionGetsEachChangeOnceInOrder) {
  std::vector<std::string> first;
  std::vector<std::string> second;
  EXPECT_EQ(vconf_set_int("db/a", 0), 0);
  EXPECT_GE(vconf_notify_key_changed("db/a", CollectPath, &first), 0);
  EXPECT_GE(vconf_notify_key_changed("memory/b", CollectPath, &first), 0);
  EXPECT_GE(vconf_notify_key_changed("db/a", CollectPath, &second), 0);
  EXPECT_EQ(vconf::SubscriptionCount(), 3U);
  EXPECT_EQ(vconf_set_int("db/a", 0), 0);
  EXPECT_EQ(vconf_set_int("memory/b", 1), 0);
  EXPECT_NE(vconf_set_bool("db/a", 1), 0);
  EXPECT_EQ(vconf_set_int("db/other", 1), 0);
  EXPECT_EQ(vconf::Remove("db/a").text(), "");
  vconf::Settle();
  EXPECT_EQ(first, (std::vector<std::string>{"db/a", "memory/b", "db/a"}));
  EXPECT_EQ(second, (std::vector<std::string>{"db/a", "db/a"}));

  EXPECT_GE(vconf_ignore_key_changed("db/a", CollectPath), 0);
  EXPECT_GE(vconf_ignore_key_changed("db/a", CollectPath), 0);
  EXPECT_GE(vconf_ignore_key_changed("memory/b", Count), 0);
  EXPECT_EQ(vconf::SubscriptionCount(), 1U);
  EXPECT_EQ(vconf_set_int("db/a", 1), 0);
  EXPECT_EQ(vconf_set_int("memory/b", 2), 0);
  vconf::Settle();
  EXPECT_EQ(first.size(), 4U);
  EXPECT_EQ(second.size(), 2U);
}

TEST_F(VconfChangeTest, AWatchSeesValuesRemovalsAndResets) {
  const std::string long_text(5000, 'x');
  EXPECT_EQ(vconf::Set("memory/kept", 1).text(), "");
  EXPECT_EQ(vconf::Set("db/gone", 1).text(), "");
  const auto watch = Collect("");
  ASSERT_NE(watch, nullptr);
  EXPECT_EQ(vconf::Set("set/a", std::string("short")).text(), "");
  EXPECT_EQ(vconf::Set("set/a", long_text).text(), "");
  EXPECT_EQ(vconf::Remove("set/a").text(), "");
  EXPECT_EQ(vconf::Reset({{"memory/kept", 1}, {"memory/new", 2}, {"db/new", true}}).text(), "");
  vconf::Settle();
  using Seen = std::pair<std::string, std::optional<vconf::Value>>;
  std::vector<Seen> seen;
  for (const Change& change : changes_) {
    seen.emplace_back(change.path, change.value);
    EXPECT_EQ(change.sequence, changes_.front().sequence + seen.size() - 1);
  }
  // A long text is not stored in its change: the change is delivered with the key's value at delivery, or without one.
  ASSERT_EQ(seen.size(), 6U);
  EXPECT_TRUE(!seen[1].second || seen[1].second == vconf::Value(long_text));
  seen[1].second.reset();
  EXPECT_EQ(seen, (std::vector<Seen>{{"set/a", std::string("short")},
                                     {"set/a", std::nullopt},
                                     {"set/a", std::nullopt},
                                     {"memory/new", 2},
                                     {"db/gone", std::nullopt},
                                     {"db/new", true}}));
  EXPECT_EQ(*vconf::List(""), (std::vector<Entry>{{"db/new", true}, {"memory/kept", 1}, {"memory/new", 2}}));
}

TEST_F(VconfChangeTest, ACallbackMayUseTheStoreAndEndItsSubscription) {
  struct Once {
    std::promise<int> value;
    static void Call(keynode_t* node, void* self) {
      int value = 0;
      vconf_get_int(node->keyname, &value);
      vconf_set_int("memory/copy", value);
      vconf_ignore_key_changed(node->keyname, Call);
      static_cast<Once*>(self)->value.set_value(value);  // throws if called twice
    }
  };
  for (int round = 0; round < 50; ++round) {
    Once once;
    ASSERT_GE(vconf_notify_key_changed("memory/a", Once::Call, &once), 0);
    vconf_set_int("memory/a", round);
    vconf_set_int("memory/a", round);
    EXPECT_EQ(once.value.get_future().get(), round);
    vconf::Settle();
  }
  EXPECT_EQ(vconf::SubscriptionCount(), 0U);
  std::unique_ptr<vconf::Watch> watch;
  std::promise<void> ended;
  watch = *vconf::WatchPrefix("memory/", [&](const Change&) {
    watch.reset();
    ended.set_value();
  });
  vconf_set_int("memory/a", 1);
  ended.get_future().wait();
}

/// A subscriber whose first call waits for `go_on`.
struct Slow {
  std::latch running{1};
  std::latch go_on{1};
  int finished = 0;  // not atomic: read only after a call that waits for the callback
  static void Call(keynode_t* node, void* self) {
    auto& slow = *static_cast<Slow*>(self);
    if (slow.finished == 0) {
      slow.running.count_down();
      slow.go_on.wait();
      vconf_sync_key(node->keyname);  // a callback may call the store while another thread waits for it
    }
    ++slow.finished;
  }
};

TEST_F(VconfChangeTest, IgnoreWaitsForARunningCallback) {
  Slow slow;
  ASSERT_GE(vconf_notify_key_changed("db/a", Slow::Call, &slow), 0);
  vconf_set_int("db/a", 1);
  slow.running.wait();
  std::thread releaser([&, ending = "/proc/self/task/" + std::to_string(gettid()) + "/stat"] {
    while (Contents(ending).find(") S ") == std::string::npos) std::this_thread::yield();
    slow.go_on.count_down();
  });
  EXPECT_GE(vconf_ignore_key_changed("db/a", Slow::Call), 0);
  EXPECT_EQ(slow.finished, 1);
  releaser.join();
}

TEST_F(VconfChangeTest, ASubscriberBehindTheKeptChangesGetsEachKeyOnce) {
  Slow slow;
  std::atomic<int> other{0};
  ASSERT_GE(vconf_notify_key_changed("memory/a", Slow::Call, &slow), 0);
  vconf_set_int("memory/a", 0);
  slow.running.wait();
  ASSERT_GE(vconf_notify_key_changed("memory/b", Count, &other), 0);
  const auto watch = Collect("memory/");
  std::atomic<int> late{0};
  std::vector<Entry> many(33'000);  // its keys and their removal are more than the 65,536 changes that are kept
  for (std::size_t i = 0; i < many.size(); ++i) many[i] = {"memory/many" + std::to_string(i), static_cast<int>(i)};
  ASSERT_EQ(vconf::Reset(many).text(), "");
  ASSERT_EQ(vconf::Reset({{"memory/last", 1}}).text(), "");
  ASSERT_GE(vconf_notify_key_changed("memory/a", Count, &late), 0);
  slow.go_on.count_down();
  vconf::Settle();
  EXPECT_EQ(late, 0);
  EXPECT_EQ(slow.finished, 2);
  EXPECT_EQ(other, 1);
  ASSERT_EQ(changes_.size(), 1U);
  EXPECT_EQ(changes_[0].path, "memory/last");
  vconf_set_int("memory/b", 5);
  vconf::Settle();
  EXPECT_EQ(other, 2);
  EXPECT_EQ(changes_.size(), 2U);
}

TEST_F(VconfChangeTest, ASubscriberWithinTheKeptChangesGetsEachChange) {
  // The new region continues at the next multiple of 65,536, so its ring grows before it overwrites a change.
  for (int i = 0; i < 1100; ++i) vconf_set_int("memory/a", i);
  ASSERT_TRUE(vconf::ReplaceStore(directory(), {}).ok());
  Slow slow;
  std::atomic<int> other{0};
  ASSERT_GE(vconf_notify_key_changed("memory/a", Slow::Call, &slow), 0);
  ASSERT_GE(vconf_notify_key_changed("memory/b", Count, &other), 0);
  vconf_set_int("memory/a", 0);
  slow.running.wait();
  for (int i = 0; i < 1500; ++i) vconf_set_int("memory/b", i);
  slow.go_on.count_down();
  vconf::Settle();
  EXPECT_EQ(other, 1500);
}

TEST_F(VconfChangeTest, ClosingLeavesNoDescriptor) {
  const auto files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  const auto before = files();
  std::unique_ptr<vconf::Watch> outlives;
  for (int i = 0; i < 100; ++i) {
    outlives = *vconf::WatchPrefix("db/", [](const Change&) {});
    std::thread([] { vconf_set_int("db/a", GetInt("db/a", 0) + 1); }).join();
    Reopen();
  }
  outlives.reset();
  EXPECT_EQ(files(), before);
  EXPECT_EQ(GetInt("db/a", 0), 100);
}

TEST_F(VconfChangeTest, AFaultReplacesTheResultOfACall) {
  vconf_set_int("db/a", 1);
  vconf_set_int("db/b", 2);
  EXPECT_EQ(vconf::SetFault({"vconf_get_int", "*", -3, 2}).text(), "");
  EXPECT_EQ(vconf::SetFault({"vconf_get_int", "db/a", -4, 0}).text(), "");
  EXPECT_EQ(vconf::SetFault({"vconf_set_int", "db/a", 5, 1}).text(), "");
  const std::string longest = "db/" + std::string(508, 'x');
  EXPECT_EQ(vconf::SetFault({"vconf_notify_key_changed", longest, 6, 0}).text(), "");
  EXPECT_EQ(vconf::TakeFault("vconf_notify_key_changed", longest), 6);
  EXPECT_EQ(vconf::ClearFault("vconf_notify_key_changed", longest).text(), "");
  EXPECT_EQ(vconf::ListFaults()->size(), 3U);
  EXPECT_EQ(vconf::List("")->size(), 2U);

  int value = 77;
  EXPECT_EQ(vconf_get_int("db/a", &value), -4);
  EXPECT_EQ(vconf_get_int("db/b", &value), -3);
  EXPECT_EQ(vconf_set_int("db/a", 9), 5);
  EXPECT_EQ(value, 77);
  EXPECT_EQ(vconf_set_int("db/b", 3), 0);
  EXPECT_EQ(*vconf::ListFaults(),
            (std::vector<Fault>{{"vconf_get_int", "*", -3, 1}, {"vconf_get_int", "db/a", -4, 0}}));
  EXPECT_EQ(vconf::ClearFault("vconf_get_int", "db/a").text(), "");
  EXPECT_EQ(vconf_get_int("db/a", &value), -3);
  EXPECT_EQ(GetInt("db/a", 77), 1);
  EXPECT_EQ(vconf::TakeFault("vconf_get_int", "db/a"), std::nullopt);

  // A call that fails by a fault changes no subscription.
  std::atomic<int> calls{0};
  ASSERT_EQ(vconf::SetFault({"vconf_notify_key_changed", "db/a", -1, 1}).text(), "");
  ASSERT_EQ(vconf::SetFault({"vconf_ignore_key_changed", "db/a", -2, 0}).text(), "");
  EXPECT_EQ(vconf_notify_key_changed("db/a", Count, &calls), -1);
  EXPECT_EQ(vconf::SubscriptionCount(), 0U);
  EXPECT_GE(vconf_notify_key_changed("db/a", Count, &calls), 0);
  EXPECT_EQ(vconf_ignore_key_changed("db/a", Count), -2);
  vconf_set_int("db/a", 1);
  vconf::Settle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(vconf::ClearFaults().text(), "");
  EXPECT_GE(vconf_ignore_key_changed("db/a", Count), 0);
}

}  // namespace
