// The variables of the plug-in interface (pp::Var): conversions, shared content, and the counting of references.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "browser_control.h"
#include "ppapi/cpp/var_array.h"
#include "ppapi/cpp/var_dictionary.h"

namespace {

class VarTest : public ::testing::Test {
 protected:
  ~VarTest() override { EXPECT_EQ(pp::browser::LiveVarNodes(), before_) << "a node was leaked, or freed twice"; }

  std::int64_t NewNodes() const { return pp::browser::LiveVarNodes() - before_; }

 private:
  const std::int64_t before_ = pp::browser::LiveVarNodes();
};

TEST_F(VarTest, ConvertsBetweenNumbersAndNothingElse) {
  constexpr auto kMin = std::numeric_limits<std::int32_t>::min();
  constexpr auto kMax = std::numeric_limits<std::int32_t>::max();
  const std::vector<std::pair<double, std::int32_t>> cut = {
      {7.9, 7}, {-7.9, -7}, {1e300, kMax}, {-1e300, kMin}, {INFINITY, kMax}, {NAN, 0}, {2147483646.5, kMax - 1}};
  for (const auto& [number, expected] : cut) EXPECT_EQ(pp::Var(number).AsInt(), expected) << number;
  EXPECT_EQ(pp::Var(-3).AsDouble(), -3.0);

  const std::vector<pp::Var> others = {{}, pp::Var::Null(), true, "12", pp::VarArray(), pp::VarDictionary()};
  for (const pp::Var& other : others) {
    EXPECT_EQ(other.AsInt(), 0) << other.type();
    EXPECT_EQ(other.AsDouble(), 0.0) << other.type();
    EXPECT_EQ(other.AsBool(), other.is_bool()) << other.type();
    EXPECT_EQ(other.AsString(), other.is_string() ? "12" : "") << other.type();
  }
}

TEST_F(VarTest, KeepsTheBytesOfATextAndNeedsNoNodeForTheEmptyOne) {
  const std::string bytes("a\0b\xc3\xa9", 5);
  EXPECT_EQ(pp::Var(bytes).AsString(), bytes);
  const pp::Var empty("");
  EXPECT_TRUE(empty.is_string());
  EXPECT_EQ(empty.AsString(), "");
  EXPECT_EQ(pp::Var(empty.pp_var()).AsString(), "");
  EXPECT_EQ(NewNodes(), 0);
}

TEST_F(VarTest, CountsReferencesForEveryKindOfCopy) {
  pp::Var text("a text");
  pp::Var copy = text;
  copy = *&copy;  // self-assignment
  pp::Var adopted(pp::PASS_REF, pp::Var(copy).Detach());
  pp::Var added(adopted.pp_var());
  text = pp::Var(1);
  copy = std::move(adopted);
  added = pp::Var();
  EXPECT_EQ(NewNodes(), 1);
  EXPECT_EQ(copy.AsString(), "a text");

  // The right side is referenced only by the old content of the left side.
  pp::Var outer = [] {
    pp::VarArray array;
    array.Set(0, pp::Var("inner"));
    return array;
  }();
  outer = pp::VarArray(outer).Get(0);
  EXPECT_EQ(outer.AsString(), "inner");
}

TEST_F(VarTest, SharesContentBetweenCopies) {
  pp::VarDictionary dictionary;
  pp::VarDictionary same{pp::Var(dictionary)};
  same.Set("key", 1);
  EXPECT_EQ(dictionary.Get("key").AsInt(), 1);
  pp::VarDictionary other{pp::Var("no dictionary")};
  other.Set("key", 2);
  EXPECT_EQ(other.Get("key").AsInt(), 2);
  EXPECT_EQ(dictionary.Get("key").AsInt(), 1);
}

TEST_F(VarTest, DictionaryAgreesWithAMap) {
  std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): the same run each time
  pp::VarDictionary dictionary;
  std::map<std::string, std::int32_t> model;
  for (std::int32_t i = 0; i < 3000; ++i) {
    // Few keys at first and many later, so that both kinds of lookup are used.
    const std::string key(std::to_string(random() % static_cast<unsigned>(4 + i / 10)));
    dictionary.Set(key, i);
    model[key] = i;
    const std::string probe(std::to_string(random() % static_cast<unsigned>(4 + i / 10)));
    ASSERT_EQ(dictionary.HasKey(probe), model.contains(probe));
    ASSERT_EQ(dictionary.Get(probe).AsInt(), model.contains(probe) ? model[probe] : 0);
  }
  std::vector<std::string> keys;
  std::transform(model.begin(), model.end(), std::back_inserter(keys), [](const auto& entry) { return entry.first; });
  EXPECT_EQ(dictionary.GetKeys(), keys);
}

TEST_F(VarTest, ArrayGrowsWithUndefinedValues) {
  pp::VarArray array;
  array.Set(2, pp::Var("third"));
  array.Set(0, 1);
  EXPECT_EQ(array.GetLength(), 3U);
  EXPECT_TRUE(array.Get(1).is_undefined());
  EXPECT_EQ(array.Get(2).AsString(), "third");
  EXPECT_TRUE(array.Get(3).is_undefined());
}

TEST_F(VarTest, FreesContentNestedTooDeepForRecursion) {
  pp::Var nested("innermost");
  for (int level = 0; level < 100'000; ++level) {
    pp::VarArray array;
    pp::VarDictionary dictionary;
    dictionary.Set("down", nested);
    array.Set(0, dictionary);
    nested = array;
  }
  EXPECT_EQ(NewNodes(), 200'001);
}

TEST_F(VarTest, ThreadsMayCopyOneVariable) {
  pp::VarDictionary shared;
  shared.Set("text", pp::Var("a text that all of them read"));
  std::vector<std::jthread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([copy = pp::Var(shared)]() mutable {
      for (int round = 0; round < 20'000; ++round) {
        const pp::Var text = pp::VarDictionary(copy).Get("text");
        ASSERT_EQ(text.AsString().size(), 28U);
      }
      copy = pp::Var();  // the last copy frees the content
    });
  }
  shared = pp::VarDictionary();
}

}  // namespace
