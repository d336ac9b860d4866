// The desk's code, called directly: JSON and the plug-in's variables, the description of the set, scenarios, and the
// statuses of failures.

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <limits>
#include <regex>

#include "base/exit_status.h"
#include "browser_control.h"
#include "host/protocol.h"
#include "server/answer.h"
#include "set/catalog.h"
#include "set/faults.h"
#include "set/scenario.h"
#include "set/simulated_set.h"
#include "support/program.h"

namespace desk {
namespace {

ParsedJson Parsed(const std::string& text) {
  auto parsed = ParseJson(text);
  EXPECT_TRUE(parsed.ok()) << text << ": " << parsed.status().text();
  return parsed.ok() ? *std::move(parsed) : ParsedJson();
}

TEST(JsonTest, OnlyIntegersOf32BitsBecomeInt) {
  for (const char* text : {"0", "-1", "2147483647", "-2147483648"}) {
    EXPECT_TRUE(ToVar(Parsed(text)).is_int()) << text;
  }
  for (const char* text : {"7.0", "1e3", "2147483648", "-2147483649", "18446744073709551615", "1e300"}) {
    const pp::Var var = ToVar(Parsed(text));
    EXPECT_TRUE(var.is_double()) << text;
    EXPECT_EQ(var.AsDouble(), std::stod(text)) << text;
  }
}

TEST(JsonTest, RawMembersAreThoseOfTheOutermostContainer) {
  std::string text;
  for (const auto& [name, value] : RawMembers(R"( {"a\"}" : [1,"]\\"] , "b":{"c":2}, "a":"\"," } )")) {
    text.append(name).append(" is ").append(value).append("; ");
  }
  EXPECT_EQ(text, R"(a\"} is [1,"]\\"]; b is {"c":2}; a is "\","; )");
  EXPECT_EQ(RawMembers("[ [1, 2] ,3]").size(), 2U);
  EXPECT_TRUE(RawMembers("{ }").empty() && RawMembers("7").empty());
}

TEST(JsonTest, AValueConvertedThereAndBackIsTheSame) {
  const auto nodes = pp::browser::LiveVarNodes();
  const std::string text =
      R"({"":{},"a":[null,true,false,-2147483648,0.1,-1.5e-07,1e+300,[],[[7.0]]],"b":{"c":"a\"\\\n\u0000\u007fé"}})";
  EXPECT_EQ(Parsed(ToText(ToJson(ToVar(Parsed(text))))), Parsed(text));
  EXPECT_EQ(pp::browser::LiveVarNodes(), nodes);
  EXPECT_EQ(ToText(ToJson(pp::Var(std::numeric_limits<double>::infinity()))), "null");
}

class SetTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(vconf::OpenOrCreateStore(folder_ / "store", DefaultEntries()).text(), ""); }
  void TearDown() override { vconf::CloseStore(); }

  TemporaryFolder folder_;
};

TEST_F(SetTest, AnInvalidChangeChangesNothingAndItsErrorNamesThePart) {
  const Json before = *DescribeSet();
  const std::vector<std::pair<std::string, std::string>> changes = {
      {"[]", "object"},
      {R"({"b2b":false,"color":1})", "color"},
      {R"({"b2b":1})", "b2b"},
      {R"({"privileges":{"a":1}})", "privileges/a"},
      {R"({"b2b":false,"privileges":{")" + std::string(600, 'a') + R"(":true}})", "privileges/aaa"},
      {R"({"b2b":false,"pictureSize":1.5})", "pictureSize"},
      {R"({"latency":{"getVersion":-1}})", "latency/getVersion"},
      {R"({"latency":{"getVersion":"1"}})", "latency/getVersion"},
      {R"({"latency":{"x":1}})", "\"x\" is not a command"},
      {R"({"latency":5})", "latency"},
      {R"({"embedder":{"age":1}})", "embedder/age"},
      {R"({"embedder":null})", "embedder"},
      {R"({"lists":{"x":[{"value":"1","label":"a"}]}})", "lists/x"},
      {R"({"lists":{"x":[{"value":1,"label":"a\nb"}]}})", "lists/x"},
  };
  for (const auto& [change, part] : changes) {
    const auto status = ChangeSet(Parsed(change));
    EXPECT_EQ(status.code(), vconf::Code::kBadValue) << change;
    EXPECT_NE(status.text().find(part), std::string::npos) << status.text();
    EXPECT_EQ(*DescribeSet(), before) << change;
  }
}

TEST_F(SetTest, LoadingAScenarioRestoresTheWholeSet) {
  const std::string store = folder_ / "store";
  EXPECT_TRUE(ListScenarios(store)->empty());
  ASSERT_EQ(ChangeSet(Parsed(R"({"b2b":null,"embedder":{"replies":{"a":1,"b":"t","c":true}}})")).text(), "");
  ASSERT_EQ(ChangeSet(Parsed(R"({"embedder":{"replies":{"a":"another type","b":null}}})")).text(), "");
  EXPECT_EQ(ToText((*DescribeSet())["embedder"]["replies"]), R"({"a":"another type","c":true})");
  ASSERT_EQ(vconf::Set("memory/mine", "a\nb").text(), "");
  ASSERT_EQ(AddFault({"vconf_get_int", "db/a", -3, 2}).text(), "");
  const Json saved = *DescribeState();
  ASSERT_EQ(SaveScenario(store, "no-product", *DescribeScenario()).text(), "");
  ASSERT_EQ(SaveScenario(store, "A.1", Parsed(R"({"state":{"db/menu/caption/caption":1}})")).text(), "");
  std::ofstream(store + "/scenarios/half.json~1") << "{";
  ASSERT_EQ(ResetSet().text(), "");
  ASSERT_EQ(LoadScenario(*ReadScenario(store, "no-product")).text(), "");
  EXPECT_EQ(*DescribeState(), saved);
  ASSERT_EQ(LoadScenario(*ReadScenario(store, "A.1")).text(), "");
  EXPECT_EQ(*vconf::Get("db/menu/caption/caption"), vconf::Value(1));
  EXPECT_EQ((*DescribeSet())["b2b"], true) << "a key that is not in the scenario gets its initial value";
  EXPECT_TRUE(vconf::ListFaults()->empty());

  const auto files = *ListScenarios(store);
  ASSERT_EQ(files.size(), 2U);
  EXPECT_EQ(files[0]["name"], "A.1");
  EXPECT_EQ(files[1]["name"], "no-product");
  EXPECT_LT(std::abs(files[1]["saved"].get<std::int64_t>() - std::time(nullptr) * std::int64_t{1000}), 600'000);
  EXPECT_EQ(RemoveScenario(store, "A.1").text(), "");
  EXPECT_EQ(RemoveScenario(store, "A.1").code(), vconf::Code::kMissing);
  EXPECT_EQ(ReadScenario(store, "A.1").status().code(), vconf::Code::kMissing);

  const Json before = *DescribeState();
  for (const char* bad : {"[]", R"({"state":[]})", R"({"state":{"db/a":1.5}})", R"({"faults":[{"call":"x"}]})",
                          R"({"state":{"db/mine":1},"faults":[{"call":"vconf_get_int","answer":0}]})"}) {
    EXPECT_EQ(SaveScenario(store, "bad", Parsed(bad)).code(), vconf::Code::kBadValue) << bad;
    EXPECT_EQ(LoadScenario(Parsed(bad)).code(), vconf::Code::kBadValue) << bad;
  }
  for (const char* bad : {R"({"state":{"db/mine":1,"elsewhere/a":1}})",
                          R"({"state":{"db/mine":1},"faults":[{"call":"vconf_get_int","path":"","answer":1}]})"}) {
    EXPECT_EQ(LoadScenario(Parsed(bad)).code(), vconf::Code::kBadName) << bad;
  }
  EXPECT_EQ(*DescribeState(), before);
  EXPECT_EQ(SaveScenario(store, std::string(64, 'a'), before).text(), "");
  for (const std::string& name : {std::string(), std::string("../a"), std::string("a/b"), std::string(65, 'a')}) {
    EXPECT_EQ(SaveScenario(store, name, before).code(), vconf::Code::kBadName) << name;
  }
  const auto count = [&] {
    return std::distance(std::filesystem::directory_iterator(store + "/scenarios"),
                         std::filesystem::directory_iterator());
  };
  std::filesystem::create_directory(store + "/scenarios/folder.json");
  const auto files_before = count();
  EXPECT_EQ(SaveScenario(store, "folder", before).code(), vconf::Code::kFailed);
  EXPECT_EQ(count(), files_before) << "no temporary file is left";
}

TEST(CodeTest, EachCodeHasTheHttpStatusOfTheDocument) {
  const std::string text = Contents(MIRADO_EXAMPLES "/../docs/desk-api.md");
  for (int number = 1; number <= static_cast<int>(vconf::Code::kFailed); ++number) {
    const auto code = static_cast<vconf::Code>(number);
    const auto [status, name] = HttpFailureOf(code);
    // The first number in parentheses after the name.
    std::smatch found;
    ASSERT_TRUE(std::regex_search(text, found, std::regex("`" + std::string(name) + "`[^()]*\\((\\d+)\\)"))) << name;
    EXPECT_EQ(found[1], std::to_string(status)) << name;
    const bool is_answer = status == 400 || status == 404 || status == 409;
    EXPECT_EQ(ExitStatusOf(code), is_answer ? kRefused : kCannotWork) << name;
  }
}

}  // namespace
}  // namespace desk
