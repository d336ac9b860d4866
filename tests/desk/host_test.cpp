// `mirado host`: the lines that it reads and writes, and how it ends.

#include "support/program.h"

#include <chrono>
#include <utility>

namespace {

class HostTest : public ProgramTest {
 protected:
  Program Start() const { return Program({"host", "--store", store()}, log()); }

  static std::string Ask(Program& host, const std::string& message) {
    host.WriteLine(R"({"send":)" + message + "}");
    return host.ReadLine();
  }

  static std::string Reply(int code, const std::string& value, const std::string& name, const std::string& message) {
    return R"({"reply":{"code":)" + std::to_string(code) + R"(,"value":)" + value + R"(,"errorName":")" + name +
           R"(","errorMessage":")" + message + R"("}})";
  }

  static std::string Done(const std::string& value) { return Reply(0, value, "", ""); }

  static constexpr char kEvent[] =
      R"({"message":{"code":0,"value":0,"errorName":"","errorMessage":"","event":"MIRADO_EVENT_CAPTION_CHANGED"}})";
  static constexpr char kGoodbye[] = R"({"message":"Unregister"})";
};

TEST_F(HostTest, RepliesToEachSendInOrder) {
  Program host = Start();
  EXPECT_EQ(Ask(host, R"({"command":"getVersion"})"), Done(R"("4.0")"));
  EXPECT_EQ(Ask(host, R"({"command":"getMenuValue","propertyKey":20})"), Done(R"("NORMAL")"));
  EXPECT_EQ(Ask(host, R"({"command":"getMenuValue","propertyKey":7.0})"),
            Reply(26, "null", "InvalidValuesError", "Parameter propertyKey is invalid"));
  EXPECT_EQ(Ask(host, "[1,null]"), Reply(26, "null", "InvalidValuesError", "Incoming message is not dictionary"));
  host.CloseInput();
  EXPECT_EQ(host.ReadLine(), kGoodbye);
  EXPECT_EQ(host.ReadLine(), "");
  EXPECT_EQ(host.Wait(), 0);
}

TEST_F(HostTest, SettleWaitsForMessagesAndChanges) {
  Program host = Start();
  EXPECT_EQ(Ask(host, R"({"command":"registerVconfKeysForCaption","propertyKey":0})"), Done("null"));
  host.WriteLine(R"({"set":{"db/menu/caption/caption":1}})");
  host.WriteLine(R"({"post":{"command":"setMenuValue","propertyKey":1,"value":5}})");
  host.WriteLine(R"({"settle":true})");
  std::vector<std::string> received = {host.ReadLine(), host.ReadLine()};
  std::sort(received.begin(), received.end());
  EXPECT_EQ(received[0], kEvent);
  EXPECT_EQ(received[1], R"({"message":{"code":0,"value":5,"errorName":"",)"
                         R"("errorMessage":"Mirado setMenuValue success.","command":"setMenuValue"}})");
  EXPECT_EQ(host.ReadLine(), R"({"settled":true})");
}

TEST_F(HostTest, ReportsEachInvalidLineOnceAndContinues) {
  const std::string deep_enough = std::string(127, '[') + std::string(127, ']');
  const std::string deep = std::string(10'000, '[') + std::string(10'000, ']');
  const std::string longest = R"({"send":")" + std::string(524'288 - 11, 'x') + R"("})";
  const std::vector<std::pair<std::string, std::string>> lines = {
      {"nonsense", "not JSON: column 2"},
      {"{\"send\":\"\xff\"}", "UTF-8"},
      {R"({"send":1)", "not JSON"},
      {R"({"send":1e999})", "not JSON"},
      {"7", "an object with one of"},
      {"{}", "an object with one of"},
      {R"({"send":1,"post":1})", "an object with one of"},
      {R"({"send":1,"send":1})", "an object with one of"},
      {R"({"sent":1})", R"(unknown \"sent\")"},
      {R"({"settle":false})", "must be true"},
      {R"({"set":[]})", "paths and values"},
      {R"({"set":{"db/a/b":1.5}})", "db/a/b: the value must be"},
      {R"({"set":{"db/menu/caption/caption":"text","db/z":1}})", "db/menu/caption/caption"},
      {R"({"set":{"elsewhere/a":1}})", "elsewhere/a"},
      {R"({"send":)" + deep + "}", "deeper than 128"},
      {R"({"send":[)" + deep_enough + "]}", "deeper than 128"},
      {longest + " ", "longer than 524288 bytes"},
      {std::string(1'048'576, '{'), "longer than 524288 bytes"},
  };
  Program host = Start();
  int number = 0;
  host.WriteLine("\n \t\r");
  number += 2;
  for (const auto& [line, cause] : lines) {
    host.WriteLine(line);
    const std::string answer = host.ReadLine();
    const auto json = desk::ParseJson(answer);
    ASSERT_TRUE(json.ok()) << answer;
    EXPECT_TRUE(answer.starts_with(R"({"error":{"line":)" + std::to_string(++number) + R"(,"text":")")) << answer;
    EXPECT_NE(answer.find(cause), std::string::npos) << answer;
  }
  for (const std::string& line : {longest, R"({"send":)" + deep_enough + "}"}) {
    host.WriteLine(line);
    EXPECT_EQ(host.ReadLine(), Reply(26, "null", "InvalidValuesError", "Incoming message is not dictionary"));
  }
  host.Write(R"({"send":{"command":"getVersion"}})");  // the last line may lack its newline
  host.CloseInput();
  EXPECT_EQ(host.ReadLine(), Done(R"("4.0")"));
  EXPECT_EQ(host.ReadLine(), kGoodbye);
  EXPECT_EQ(host.Wait(), 1);
}

TEST_F(HostTest, ExitsCleanlyOnSignalClosedOutputAndEndOfInput) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Program host = Start();
    EXPECT_EQ(Ask(host, R"({"command":"getVersion"})"), Done(R"("4.0")"));
    host.Write(R"({"send":{"command":"getVer)");  // not a complete line, so it is dropped
    host.Signal(signal);
    EXPECT_EQ(host.ReadLine(), kGoodbye);
    EXPECT_EQ(host.Wait(), 0);
  }
  Program unread = Start();
  unread.CloseOutput();
  unread.WriteLine(R"({"send":{"command":"getVersion"}})");
  EXPECT_EQ(unread.Wait(), 3);
  Program blank = Start();
  blank.WriteLine("");
  blank.CloseInput();
  EXPECT_EQ(blank.Wait(), 0) << "an empty line is ignored";
  const std::string none = folder() / "none.so";
  const Outcome failed = Run({"host", "--plugin", none});
  EXPECT_EQ(failed.status, 3);
  EXPECT_TRUE(failed.log.starts_with(none + ": ")) << failed.log;
  EXPECT_EQ(failed.log.rfind(none), 0U) << failed.log;
  const Outcome printing = Run({"host", "--plugin", PRINTING_LIBRARY});
  EXPECT_EQ(printing.out, "") << "what a plug-in prints goes to stderr";
  EXPECT_NE(printing.log.find(R"({"reply":1})"), std::string::npos) << printing.log;
}

TEST_F(HostTest, TheSimulatedSetDeterminesThePrivilege) {
  const std::string request = R"({"post":{"command":"setMenuValue","propertyKey":0,"value":1}})";
  const auto code = [&] {
    const std::string out = Run({"host"}, request + "\n").out;
    return out.substr(0, out.find(','));
  };
  const auto privilege = [&] {
    const bool held = Run({"host"}).log.find("hasPrivilege : 1") != std::string::npos;
    return held ? "held" : "not held";
  };
  EXPECT_EQ(code(), R"({"message":{"code":0)");
  EXPECT_STREQ(privilege(), "held");

  const std::vector<std::vector<std::string>> takes_privilege = {
      {"set-up", "privilege", "off"},
      {"set-up", "privilege", "unknown"},
      {"set-up", "embedder", "offered", "off"},
      {"set-up", "embedder", "reply", "check_ace_privilege", "1"},
      {"fault", "GenericSyncCall", "check_ace_privilege", "-1"},
  };
  for (const auto& words : takes_privilege) {
    ASSERT_EQ(Run(words).status, 0) << words[1];
    EXPECT_STREQ(privilege(), "not held") << words[1];
    EXPECT_EQ(code(), R"({"message":{"code":18)") << words[1];
    ASSERT_EQ(Run({"reset"}).status, 0);
  }
}

TEST_F(HostTest, RepliesNullIfTheHandlerCannotBeRegistered) {
  ASSERT_EQ(Run({"fault", "RegisterMessageHandler", "-1", "--times", "1"}).status, 0);
  Program host = Start();
  EXPECT_EQ(Ask(host, R"({"command":"getVersion"})"), R"({"reply":null})");
  host.CloseInput();
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_EQ(Run({"host"}, "{\"send\":{\"command\":\"getVersion\"}}\n").out, Done(R"("4.0")") + "\n" + kGoodbye + "\n");
}

TEST_F(HostTest, LatencyDelaysOneCommandAndASignalEndsTheDelay) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kLatency(60);
  ASSERT_EQ(Run({"set-up", "latency", "getVersion", "60"}).status, 0);
  Program host = Start();
  Ask(host, R"({"command":"isTVSPicSizeResized"})");
  const auto start = Clock::now();
  EXPECT_EQ(Ask(host, R"({"command":"getVersion"})"), Done(R"("4.0")"));
  EXPECT_GE(Clock::now() - start, kLatency);
  ASSERT_EQ(Run({"set", "set/latency/getVersion", "-1"}).status, 0);
  EXPECT_EQ(Ask(host, R"({"command":"getVersion"})"), Done(R"("4.0")")) << "without a delay";
  ASSERT_EQ(Run({"set-up", "latency", "getVersion", "60000"}).status, 0);
  host.WriteLine(R"({"send":{"command":"getVersion"}})");
  host.Signal(SIGTERM);
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
}

}  // namespace
