// The subcommands of `mirado` beside `host`, as a shell and a script use them.

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "host/recording.h"
#include "set/catalog.h"
#include "set/simulated_set.h"
#include "support/host_program.h"

namespace {

class CliTest : public ProgramTest {
 protected:
  static bool Holds(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
};

TEST_F(CliTest, ExitStatusTellsRefusedFromMisunderstoodFromUnopened) {
  EXPECT_EQ(Run({"get", "db/menu/caption/caption"}).status, 0);
  EXPECT_EQ(Run({"get", "db/no/such/key"}).status, 1);
  EXPECT_EQ(Run({"set", "db/menu/caption/caption", "true"}).status, 1);
  EXPECT_EQ(Run({"set-up", "latency", "getVersion", "60001"}).status, 1);
  EXPECT_EQ(Run({"set-up", "latency", "getVersoin", "5"}).status, 1);
  EXPECT_EQ(Run({"fault", "vconf_get_float", "-1"}).status, 1);
  EXPECT_EQ(Run({"fault", "--clear", "vconf_get_float"}).status, 1);
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"get"},
                                             {"frobnicate"},
                                             {"set-up", "b2b", "maybe"},
                                             {"set-up", "picture-size", "x"},
                                             {"fault", "vconf_get_int", "x"},
                                             {"fault", "vconf_get_int"},
                                             {"fault", "--list", "x"},
                                             {"fault", "--clear", "a", "b", "c"},
                                             {"host", "--log-level", "loud"}}) {
    EXPECT_EQ(Run(words).status, 2) << words.back();
  }
  EXPECT_EQ(RunAsIs({}).status, 2);
  EXPECT_EQ(RunAsIs({"get", "db/a", "--store", "/dev/null/store"}).status, 3);
  EXPECT_EQ(RunAsIs({"replay", folder() / "none.jsonl"}).status, 3);
  const std::string home = std::getenv("HOME") == nullptr ? "" : std::getenv("HOME");
  for (const char* name : {"HOME", "XDG_STATE_HOME", "MIRADO_STORE"}) {
    unsetenv(name);
  }
  const Outcome homeless = RunAsIs({"get", "db/a"});
  setenv("HOME", home.c_str(), 1);
  EXPECT_EQ(homeless.status, 3);
  EXPECT_TRUE(Holds(homeless.log, "--store or MIRADO_STORE")) << homeless.log;
  EXPECT_TRUE(Holds(Run({"get", "db/no/such/key"}).log, "db/no/such/key"));
  EXPECT_TRUE(Holds(RunAsIs({"get", "db/a", "--store", "/dev/null/store"}).log, "/dev/null/store"));
  for (const char* command : {"host", "get", "set", "list", "watch", "reset", "set-up", "fault", "replay"}) {
    const Outcome help = RunAsIs({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_TRUE(Holds(help.out, "Usage: mirado " + std::string(command))) << help.out;
  }
}

TEST_F(CliTest, ValuesKeepTheTypeTheyAreTypedWith) {
  struct Case {
    std::string typed, got, listed;
  };
  const std::vector<Case> cases = {
      {"-7", "-7", "-7"},
      {"true", "true", "true"},
      {"2147483648", "2147483648", "\"2147483648\""},
      {"\"42\"", "42", "\"42\""},
      {"two words", "two words", "\"two words\""},
      {"1.5", "1.5", "\"1.5\""},
      {R"("open)", R"("open)", R"("\"open")"},
  };
  for (const Case& each : cases) {
    const std::string path = "db/test/" + std::to_string(&each - cases.data());
    ASSERT_EQ(Run({"set", path, each.typed}).status, 0) << each.typed;
    EXPECT_EQ(Run({"get", path}).out, each.got + "\n");
    EXPECT_TRUE(Holds(Run({"list", path}).out, " " + each.listed + "\n"));
  }
}

TEST_F(CliTest, AnswersASlipWithWhatMayBeMeant) {
  const std::string caption = "db/menu/caption/caption";
  ASSERT_EQ(Run({"set", "db/test/text", "words"}).status, 0);
  struct Case {
    std::vector<std::string> words;
    int status;
    std::string said;  // empty for nothing
  };
  const std::vector<Case> cases = {
      {{"set", caption, "1"}, 0, ""},
      {{"set", "db/test/text", "other words"}, 0, ""},
      {{"set", "set/latency/getVersion", "0"}, 0, ""},
      {{"set", "db/menu/caption/captoin", "1"},
       0,
       "captoin: no setting has this path, but the key is set; did you mean " + caption + "?\n"},
      {{"set", "memory/mine", "1"}, 0, "memory/mine: no setting has this path, but the key is set\n"},
      {{"set", caption, "one"}, 1, "integer"},
      {{"set", "db/setting/accessibility/tts", "1"}, 1, "write true or false"},
      {{"set", "db/test/text", "42"}, 1, R"('"42"')"},
      {{"fault", "vconf_get_int", caption, "-1"}, 0, ""},
      {{"fault", "vconf_get_int", "db/menu/captions/caption", "-1"}, 0, "did you mean " + caption + "?\n"},
      {{"fault", "GetItemDataList", "primary-audio-language", "-1"}, 0, ""},
      {{"fault", "GetItemDataList", "primary_audio_language", "-1"}, 0, "did you mean primary-audio-language?\n"},
      {{"fault", "GenericSyncCall", "get_window_id", "-1"}, 0, ""},
      {{"fault", "GetPictureSize", caption, "-1"}, 0, "GetPictureSize has no path"},
      {{"fault", "vconf_get_int", "0"}, 1, "0 is no failure of vconf_get_int: any but 0 is one"},
      {{"fault", "vconf_set_bool", "1"}, 0, ""},
      {{"fault", "vconf_notify_key_changed", "1"}, 1, "any below 0"},
      {{"fault", "system_info_get_custom_bool", "0"}, 1, "any below 0"},
      {{"fault", "GetItemDataList", "0"}, 0, ""},
      {{"set-up", "latency", "getVersoin", "5"}, 1, " getVersion "},
      {{"set-up", "latency", "getVersoin", "none"}, 0, ""},
  };
  for (const Case& each : cases) {
    const Outcome outcome = Run(each.words);
    EXPECT_EQ(outcome.status, each.status) << each.words[1];
    EXPECT_TRUE(each.said.empty() ? outcome.log.empty() : Holds(outcome.log, each.said)) << outcome.log;
  }
  EXPECT_EQ(Run({"get", "db/menu/caption/captoin"}).out, "1\n");
}

TEST_F(CliTest, ListNamesEverySettingAndKeepsItsLinesInColumns) {
  const std::string out = Run({"list"}).out;
  for (const desk::Setting& setting : desk::Settings()) {
    EXPECT_TRUE(Holds(out, std::string(setting.enumerator) + " ")) << setting.enumerator;
    EXPECT_TRUE(Holds(out, " " + std::string(setting.path) + " ")) << setting.path;
  }
  EXPECT_TRUE(Holds(out, "product.b2b_option_support"));
  const std::string some = Run({"list", "memory/"}).out;
  EXPECT_EQ(std::count(some.begin(), some.end(), '\n'), 1) << some;
}

TEST_F(CliTest, WatchPrintsEveryChangeUntilItIsStopped) {
  Program watch({"watch", "memory/", "--now", "--store", store()}, log());
  EXPECT_EQ(watch.Hear(), "memory/tv-viewer/bg_executable 1");
  Run({"set", "db/menu/caption/caption", "1"});
  Run({"set", "memory/tv-viewer/bg_executable", "0"});
  Run({"set", "memory/note", "two\nlines"});
  EXPECT_EQ(watch.Hear(), "memory/tv-viewer/bg_executable 0");
  EXPECT_EQ(watch.Hear(), R"(memory/note "two\nlines")");
  Run({"reset"});
  std::vector<std::string> heard = {watch.Hear(), watch.Hear()};
  std::sort(heard.begin(), heard.end());
  EXPECT_EQ(heard, (std::vector<std::string>{"memory/note (removed)", "memory/tv-viewer/bg_executable 1"}));
  watch.Signal(SIGINT);
  EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CliTest, SetUpPrintsTheWordsThatBringItBack) {
  const std::string fresh = Run({"set-up"}).out;
  const std::vector<std::vector<std::string>> changes = {
      {"b2b", "off"},
      {"privilege", "off"},
      {"privilege", "on", "http://example.org/other"},
      {"picture-size", "none"},
      {"list", "primary-audio-language", "1=It's English", "-2="},
      {"list", "secondary-audio-language", "--remove"},
      {"embedder", "offered", "off"},
      {"embedder", "name", "Another one"},
      {"embedder", "reply", "get_window_id", "\"7\""},
      {"latency", "getVersion", "250"},
  };
  for (std::vector<std::string> words : changes) {
    words.insert(words.begin(), "set-up");
    EXPECT_EQ(Run(words).status, 0) << words[1];
  }
  const std::string changed = Run({"set-up"}).out;
  const std::string json = Run({"set-up", "--json"}).out;
  ASSERT_EQ(Run({"reset"}).status, 0);
  EXPECT_EQ(Run({"set-up"}).out, fresh);
  Run({"set-up", "list", "secondary-audio-language", "--remove"});

  std::istringstream lines(changed);
  for (std::string line; std::getline(lines, line);) {
    const std::string command = std::string("'" MIRADO_PROGRAM "' set-up --store '") + store() + "' " + line;
    EXPECT_EQ(std::system(command.c_str()), 0) << line;
  }
  EXPECT_EQ(Run({"set-up"}).out, changed);
  EXPECT_EQ(Run({"set-up", "--json"}).out, json);
}

TEST_F(CliTest, FaultsAreListedAsTheyAreTypedAndCanBeCleared) {
  EXPECT_EQ(Run({"fault", "vconf_get_int", "db/menu/caption/caption", "-5", "--times", "2"}).status, 0);
  EXPECT_EQ(Run({"fault", "GetPictureSize", "-1"}).status, 0);
  EXPECT_TRUE(Holds(Run({"fault", "--list"}).out, "vconf_get_int db/menu/caption/caption -5 --times 2\n"));
  const std::string ask = R"({"send":{"command":"getMenuValue","propertyKey":0}})";
  EXPECT_TRUE(Holds(Run({"host"}, ask + "\n").out, R"("code":9999)"));
  EXPECT_TRUE(Holds(Run({"fault"}).out, "vconf_get_int db/menu/caption/caption -5 --times 1\n"));
  EXPECT_EQ(Run({"fault", "--clear", "vconf_get_int", "db/menu/caption/caption"}).status, 0);
  EXPECT_EQ(Run({"fault"}).out, "GetPictureSize * -1\n");
  EXPECT_EQ(Run({"fault", "--clear"}).status, 0);
  EXPECT_EQ(Run({"fault"}).out, "");
}

class ReplayTest : public CliTest {
 protected:
  static void Settle(Program& host) {
    host.Say(R"({"settle":true})");
    std::string line = host.Hear();
    while (!line.empty() && line != R"({"settled":true})") {
      line = host.Hear();
    }
    ASSERT_EQ(line, R"({"settled":true})");
  }

  /// A session that reads, watches, writes and fails, with a change by somebody else in between.
  void Record() const {
    Run({"set", "db/menu/caption/captionmode", "300"});
    Run({"fault", "vconf_set_int", "db/menu/subtitle/subtitle", "-1"});
    Program host({"host", "--record", file(), "--store", store()}, log());
    host.Say(R"({"send":{"command":"registerVconfKeysForCaption","propertyKey":1}})");
    host.Say(R"({"post":{"command":"setMenuValue","propertyKey":1,"value":5}})");
    host.Say(R"({"post":{"command":"setMenuValue","propertyKey":16,"value":5}})");
    host.Say("no request at all");
    Settle(host);
    Run({"set", "db/menu/caption/captionmode", "7"});
    EXPECT_TRUE(Holds(host.Hear(), "MIRADO_EVENT_CAPTION_CHANGED"));
    host.Say(R"({"send":{"command":"getMenuValue","propertyKey":1}})");
    EXPECT_TRUE(Holds(host.Hear(), R"("value":7)"));
    // While the set holds a message back, others may change what it asks for.
    // Somebody who need not be started first, so that the change comes in time.
    Program other({"host", "--store", store()}, folder() / "other-log");
    Settle(other);
    Run({"set-up", "latency", "getMenuValue", "1000"});
    host.Say(R"({"send":{"command":"getMenuValue","propertyKey":1}})");
    other.Say(R"({"set":{"db/menu/caption/captionmode":9}})");
    EXPECT_TRUE(Holds(host.Hear() + host.Hear(), "MIRADO_EVENT_CAPTION_CHANGED"));
    host.CloseInput();
    EXPECT_EQ(host.Wait(), 1);
  }

  std::string file() const { return folder() / "session.jsonl"; }
};

TEST_F(ReplayTest, TheSameComesOutOfTheRecordedState) {
  Record();
  EXPECT_TRUE(Holds(Contents(file()), R"({"in": {"set":{"db/menu/caption/captionmode":7}}})")) << Contents(file());
  EXPECT_TRUE(Holds(Contents(file()), R"("value":261)")) << Contents(file());
  Run({"reset"});
  const Outcome again = Run({"host", "--record", file()});
  EXPECT_EQ(again.status, 3);
  EXPECT_TRUE(Holds(again.log, file())) << again.log;
  const Outcome replay = RunAsIs({"replay", file(), file()});
  EXPECT_EQ(replay.status, 0) << replay.out << replay.log;
  EXPECT_TRUE(Holds(Run({"host", "--record", "/dev/stdout"}).out, R"("recording")"));
}

TEST_F(ReplayTest, AChangeUponAnAnswerIsNoneOfTheRequest) {
  ASSERT_EQ(desk::OpenSet(store()).text(), "");
  int value = 0;
  {
    desk::Recorder recorder(
        file(), [&](const std::string&) { static_cast<void>(vconf::Set("db/menu/caption/captionmode", ++value)); });
    ASSERT_FALSE(recorder.Failed());
    const auto session = desk::Session::Start(MIRADO_PLUGIN_PATH, [&](const desk::Json& line) { recorder.Out(line); });
    ASSERT_TRUE(session.ok()) << session.status().text();
    const std::string ask = R"({"send":{"command":"getMenuValue","propertyKey":1}})";
    const std::string write = R"({"post":{"command":"setMenuValue","propertyKey":16,"value":5}})";
    for (const std::string& line : {ask, ask, write, ask, std::string(R"({"settle":true})"), ask}) {
      ASSERT_EQ(recorder.Handle(**session, line, *desk::ParseRequest(line)).text(), "");
    }
  }
  vconf::CloseStore();
  EXPECT_EQ(value, 7) << "six answers and the last word";
  const Outcome replay = RunAsIs({"replay", file()});
  EXPECT_EQ(replay.status, 0) << replay.out << Contents(file());
}

TEST_F(ReplayTest, TheRecordedExamplesComeOutTheSame) {
  std::vector<std::string> words = {"replay"};
  for (const auto& entry : std::filesystem::directory_iterator(MIRADO_EXAMPLES "/recordings")) {
    words.push_back(entry.path());
  }
  ASSERT_GT(words.size(), 1U);
  const Outcome replay = RunAsIs(words);
  EXPECT_EQ(replay.status, 0) << replay.out << replay.log;
}

TEST_F(ReplayTest, ADifferenceIsShownAndADamagedRecordingIsNamed) {
  Record();
  std::string text = Contents(file());
  const std::string recorded = R"("value":261)";
  ASSERT_TRUE(Holds(text, recorded)) << text;
  text.replace(text.find(recorded), recorded.size(), R"("value":262)");
  std::ofstream(file()) << text;
  const Outcome different = RunAsIs({"replay", file()});
  EXPECT_EQ(different.status, 1);
  EXPECT_TRUE(Holds(different.out, "recorded") && Holds(different.out, "262") && Holds(different.out, "261"))
      << different.out;
  std::ofstream(file()) << text << "{\"in\":{\"sent\":1}}\n";
  const Outcome damaged = RunAsIs({"replay", file()});
  EXPECT_EQ(damaged.status, 3);
  EXPECT_TRUE(Holds(damaged.log, file() + ": line ")) << damaged.log;
}

}  // namespace
