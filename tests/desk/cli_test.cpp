// The command line of `mirado`, as a user runs it: exit statuses, output, escaping, scenarios, recordings. The lines
// that `mirado host` reads and writes are tested in host_test.cpp, `mirado desk` in *.test.mjs.

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>

#include "host/recording.h"
#include "host/verify.h"
#include "set/catalog.h"
#include "set/simulated_set.h"
#include "support/program.h"

namespace {

class CliTest : public ProgramTest {
 protected:
  void SetUp() override { ASSERT_EQ(Run({"reset"}).status, 0); }

  /// The exit status of a shell command, in which `mirado` uses this test's store.
  int Shell(const std::string& command) const {
    const int status = std::system(("exec 2>'" + log() + "'; export MIRADO_STORE='" + store() + "'; mirado() { '" +
                                    MIRADO_PROGRAM + "' \"$@\"; }; " + command)
                                       .c_str());
    return WEXITSTATUS(status);
  }

  static bool Holds(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

  /// U+202E, which changes the writing direction.
  static std::string RightToLeft() { return {'\xe2', '\x80', '\xae'}; }

  /// The first line of `text` with a control character (also of 0x80 to 0x9f, as a byte or in UTF-8) or with U+202E, or
  /// that begins with "b2b off", which these tests put after a newline; empty if there is none.
  static std::string LineWithUnescaped(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      unsigned char before = 0;
      for (const char letter : line) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte < 0x20 || byte == 0x7f || (byte >= 0x80 && byte < 0xa0 && (before < 0x80 || before == 0xc2)) ||
            Holds(line, RightToLeft()) || line.starts_with("b2b off")) {
          return line;
        }
        before = byte;
      }
    }
    return "";
  }
};

TEST_F(CliTest, ExitStatusDistinguishesKindsOfFailure) {
  EXPECT_EQ(Run({"get", "db/menu/caption/caption"}).status, 0);
  EXPECT_EQ(Run({"get", "db/no/such/key"}).status, 1);
  EXPECT_EQ(Run({"set", "db/menu/caption/caption", "true"}).status, 1);
  EXPECT_EQ(Run({"set-up", "latency", "getVersion", "60001"}).status, 1);
  EXPECT_EQ(Run({"set-up", "latency", "getVersoin", "5"}).status, 1);
  EXPECT_EQ(Run({"fault", "vconf_get_float", "-1"}).status, 1);
  EXPECT_EQ(Run({"fault", "--clear", "vconf_get_float"}).status, 1);
  EXPECT_EQ(Run({"fault", "--clear", ""}).status, 1) << "an empty shell variable";
  EXPECT_EQ(RunAsIs({"fault", "--store", store(), "--", "vconf_get_int", "-1"}).status, 0);
  EXPECT_EQ(Run({"fault", "--clear"}).status, 0);
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"get"},
                                             {"frobnicate"},
                                             {"set-up", "b2b", "maybe"},
                                             {"set-up", "picture-size", "x"},
                                             {"fault", "vconf_get_int", "x"},
                                             {"fault", "vconf_get_int"},
                                             {"fault", "--list", "x"},
                                             {"fault", "--clear", "a", "b", "c"},
                                             {"watch", "--count", "0"},
                                             {"watch", "--timeout", "nan"},
                                             {"host", "--log-level", "loud"},
                                             {"host", "--log-level", "9"}}) {
    EXPECT_EQ(Run(words).status, 2) << words.back();
  }
  EXPECT_EQ(RunAsIs({}).status, 2);
  EXPECT_EQ(RunAsIs({"get", "db/a", "--store", "/dev/null/store"}).status, 3);
  EXPECT_EQ(RunAsIs({"replay", "--log-level", "8", folder() / "none.jsonl"}).status, 3);
  EXPECT_EQ(Run({"host", "--log-level", "8"}).log, "");
  EXPECT_EQ(RunAsIs({"replay", folder().path()}).log, folder().path() + ": is a folder; name the recordings in it\n");
  EXPECT_EQ(Shell("unset HOME MIRADO_STORE; export XDG_STATE_HOME=relative; mirado get db/a"), 3) << "not absolute";
  EXPECT_TRUE(Holds(Contents(log()), "--store or MIRADO_STORE")) << Contents(log());
  EXPECT_TRUE(Holds(Run({"get", "db/no/such/key"}).log, "db/no/such/key"));
  EXPECT_TRUE(Holds(RunAsIs({"get", "db/a", "--store", "/dev/null/store"}).log, "/dev/null/store"));
}

TEST_F(CliTest, HelpManualAndCompletionHaveEveryCommand) {
  std::string page = RunAsIs({"manual"}).out;
  std::erase(page, '\\');
  std::istringstream commands(RunAsIs({"complete", ""}).out);
  int count = 0;
  for (std::string command; std::getline(commands, command); ++count) {
    EXPECT_TRUE(Holds(RunAsIs({"--help"}).out, "\n  " + command + " ")) << command;
    EXPECT_TRUE(Holds(page, "\n.SS mirado " + command)) << command;
    const Outcome help = RunAsIs({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_TRUE(Holds(help.out, "Usage: mirado " + command)) << help.out;
  }
  EXPECT_GE(count, 12);
  EXPECT_EQ(RunAsIs({"complete", "set-up", "--json", "b2b", "o"}).out, "on\noff\n");
  EXPECT_TRUE(RunAsIs({"complete", "fault", "vconf_get_int", "CAPTION_"}).out.starts_with("CAPTION_MODE\n"));
  EXPECT_EQ(RunAsIs({"complete", "get", "--store", ""}).out, "");
  EXPECT_EQ(RunAsIs({"complete", "get", "CAPTION", ""}).out, "") << "it has one argument";
  EXPECT_EQ(RunAsIs({"complete", "watch", "--e"}).out, "--exact\n");
  EXPECT_EQ(RunAsIs({"complete", "desk", "--p"}).out, "--plugin\n--port\n");
  const std::string script = folder() / "complete.sh";
  std::ofstream(script) << R"bash(mirado() { ")bash" MIRADO_PROGRAM R"bash(" "$@"; }
eval "$(mirado completion bash)"
COMP_WORDS=(mirado get HIGH) COMP_CWORD=2
_mirado
[ "${COMPREPLY[0]}" = HIGH_CONTRAST ]
)bash";
  EXPECT_EQ(Shell("bash " + script), 0);
}

TEST_F(CliTest, SettingThePrintedTextRestoresTheValue) {
  struct Case {
    std::string typed, printed;
  };
  const std::vector<Case> cases = {
      {"-7", "-7"},
      {"true", "true"},
      {"2147483648", "2147483648"},
      {"\"42\"", "\"42\""},
      {"\"true\"", "\"true\""},
      {"", "\"\""},
      {"two words", "two words"},
      {"[1,2]", "[1,2]"},
      {"\"-1x\"", "\"-1x\""},
      {"\"--now\"", "\"--now\""},
      {"(missing)", "\"(missing)\""},
      {"end\n\n", R"("end\n\n")"},
      {R"(C:\x)", R"(C:\x)"},
      {R"("open)", R"("\"open")"},
      {"C:\\x\t\xd8\x9c\xe2\x81\xa6\xe2\x81\xa9", R"("C:\\x\t\u061c\u2066\u2069")"},
      {"\x1b]0;title\a\x7f", R"("\u001b]0;title\u0007\u007f")"},
      {"F\xc3\xbcnf \xc2\x9fJ " + RightToLeft(), R"("Fünf \u009fJ \u202e")"},
      {"\xff \xc3 \xed\xa0\x80 \xf0\x9f\x98\x80", R"("\xff \xc3 \xed\xa0\x80 😀")"},
  };
  for (const Case& each : cases) {
    const std::string path = "db/test/" + std::to_string(&each - cases.data());
    ASSERT_EQ(RunAsIs({"set", "--store", store(), path, "--", each.typed}).status, 0) << each.typed;
    EXPECT_EQ(Run({"get", path}).out, each.printed + "\n");
    EXPECT_TRUE(Holds(Run({"list", path}).out, " " + each.printed + "\n"));
    const std::string json = Run({"get", path, "--json"}).out;
    EXPECT_EQ(Shell("K=" + path + R"sh(; V="$(mirado get $K)"; mirado set $K "$V")sh"), 0) << each.typed;
    EXPECT_EQ(Run({"get", path, "--json"}).out, json);
  }
}

TEST_F(CliTest, ControlCharactersFromTheStoreAreEscaped) {
  const std::string nasty = "\x1b[2J\nb2b off\r\x9b\x7f\xc2\x9bm " + RightToLeft();
  ASSERT_EQ(desk::OpenSet(store()).text(), "");
  ASSERT_EQ(vconf::Set("db/" + nasty, nasty).text(), "");
  ASSERT_EQ(vconf::Set("set/embedder/reply/" + nasty, nasty).text(), "");
  ASSERT_EQ(vconf::Set("set/embedder/privilege/" + nasty, true).text(), "");
  ASSERT_EQ(vconf::Set("set/embedder/name", nasty).text(), "");
  ASSERT_EQ(vconf::Set("set/prefdeck/" + nasty, "1 " + nasty).text(), "");
  ASSERT_EQ(vconf::SetFault({"vconf_get_int", nasty, -1, 0}).text(), "");
  vconf::CloseStore();
  const std::string path = R"("db/\u001b[2J\nb2b off\u000d\x9b\u007f\u009bm \u202e")";
  EXPECT_TRUE(Holds(Run({"list", path}).out, path));
  const std::string recording = folder() / "nasty\x1b.jsonl";
  std::ofstream(recording) << "{\"recording\":1,\"state\":{},\"faults\":[]}\n"
                           << "{\"in\":{\"send\":{\"command\":\"\\u009b\\u007f\"}}}\n";
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"list"},
                                             {"list", "--json"},
                                             {"get", path},
                                             {"get", path + "x"},
                                             {"get", path, "--json"},
                                             {"set", path, "1"},
                                             {"set", path + "x", nasty},
                                             {"watch", "--now", "--timeout", "0"},
                                             {"fault", "--list"},
                                             {"fault", "--list", "--json"},
                                             {"fault", nasty, "-1"},
                                             {"set-up"},
                                             {"set-up", "--json"},
                                             {"set-up", "load", nasty},
                                             {"set-up", "b2b", nasty},
                                             {nasty}}) {
    const Outcome outcome = Run(words);
    EXPECT_FALSE(outcome.out.empty() && outcome.log.empty()) << words[0];
    EXPECT_EQ(LineWithUnescaped(outcome.out + outcome.log), "") << words[0] << " " << words.back();
  }
  for (const char* command : {"replay", "verify"}) {
    const Outcome outcome = RunAsIs({command, recording});
    EXPECT_EQ(LineWithUnescaped(outcome.out + outcome.log), "") << command;
  }
}

TEST_F(CliTest, OutputThatCannotBeWrittenIsAFailure) {
  ASSERT_EQ(Run({"fault", "vconf_set_int", "db/a", "-1"}).status, 0);
  const std::string file = MIRADO_EXAMPLES "/recordings/refused-writes.jsonl";
  for (const std::string& command :
       std::vector<std::string>{"--help", "--version", "get CAPTION", "list", "list --json", "watch --now", "set-up",
                                "set-up b2b", "fault --list", "manual", "complete ''", "completion zsh", "get --help",
                                "replay " + file, "verify " + file, "desk --port 0 --temporary"}) {
    EXPECT_EQ(Shell("mirado " + command + " >/dev/full"), 3) << command;
    EXPECT_TRUE(Holds(Contents(log()), "the output is incomplete")) << command;
  }
  EXPECT_EQ(Shell("echo '{\"settle\":true}' | mirado host >/dev/full"), 3);
  EXPECT_EQ(Shell("mirado host </ | grep -q 'the input cannot be read: Is a directory'"), 0);
  if (std::getenv("MIRADO_EMULATED") == nullptr) {  // the emulator itself opens a file as descriptor 0
    EXPECT_EQ(Shell("mirado host <&- >/dev/null"), 1) << "no file that it opens may take descriptor 0";
  }
  const std::string pipe = "'" + folder() / "pipe" + "'";
  EXPECT_EQ(Shell("mkfifo " + pipe + "; exec 5<>" + pipe + " 4>" + pipe + " 5<&-; mirado list >&4"), 3) << "no reader";
}

TEST_F(CliTest, ReadingCreatesNoStoreAndOnlyResetForceReplacesOne) {
  const std::string none = folder() / "none";
  std::filesystem::create_directory(none);
  for (const char* command : {"get", "list", "watch"}) {
    const Outcome outcome = RunAsIs({command, "CAPTION", "--store", none});
    EXPECT_EQ(outcome.status, 3) << command;
    EXPECT_TRUE(Holds(outcome.log, none + ": there is no store here")) << outcome.log;
    EXPECT_EQ(Shell("MIRADO_STORE='" + none + "' mirado " + command + " CAPTION"), 3) << command;
    EXPECT_TRUE(std::filesystem::is_empty(none)) << command;
  }
  EXPECT_EQ(RunAsIs({"set", "CAPTION", "1", "--store", folder().path()}).status, 3) << "a folder with other files";
  EXPECT_EQ(RunAsIs({"set", "CAPTION", "1", "--store", none}).status, 0);
  EXPECT_EQ(RunAsIs({"get", "0", "--store", none}).out, "1\n");

  ASSERT_EQ(Run({"set", "db/mine", "1"}).status, 0);
  for (const auto& entry : std::filesystem::directory_iterator(store())) {
    std::ofstream(entry.path(), std::ios::binary) << Noise(8192, 1);
  }
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"list"}, {"get", "CAPTION"}, {"set", "CAPTION", "1"}, {"set-up"}, {"fault", "--list"}, {"reset"}}) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 3) << words[0];
    EXPECT_EQ(outcome.out, "") << words[0];
    EXPECT_EQ(std::ranges::count(outcome.log, '\n'), 1) << outcome.log;
    EXPECT_TRUE(Holds(outcome.log, "`mirado reset --force --store " + store() + "`")) << outcome.log;
  }
  const Outcome replaced = Run({"reset", "--force"});
  EXPECT_EQ(replaced.status, 0) << replaced.log;
  EXPECT_EQ(Run({"get", "CAPTION"}).out, "0\n");
  const auto begin = replaced.out.find(folder().path());
  const std::string moved = replaced.out.substr(begin, replaced.out.find(';') - begin);
  EXPECT_TRUE(std::filesystem::is_directory(moved)) << replaced.out;
  EXPECT_FALSE(std::filesystem::is_empty(moved)) << "the old files are kept";
}

TEST_F(CliTest, AMisspeltArgumentGetsASuggestion) {
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
      {{"set", "set/latency/getVersoin", "0"}, 0, "did you mean set/latency/getVersion?\n"},
      {{"set", "db/menu/caption/captoin", "1"},
       0,
       "captoin: the key is set, but no setting has this path; did you mean " + caption + "?\n"},
      {{"set", "memory/mine", "1"}, 0, "memory/mine: the key is set, but no setting has this path\n"},
      {{"set", caption, "one"}, 1, "integer"},
      {{"set", "db/setting/accessibility/tts", "1"}, 1, "must be true or false"},
      {{"set", "db/test/text", "42"}, 1, R"('"42"')"},
      {{"fault", "vconf_get_int", caption, "-1"}, 0, ""},
      {{"fault", "vconf_get_int", "CAPTION", "-1"}, 0, ""},
      {{"fault", "vconf_set_int", "memory/webapp/caption", "-1"}, 0, ""},
      {{"fault", "vconf_get_int", "CAPTON", "-1"}, 1, "did you mean CAPTION?"},
      {{"fault", "vconf_get_int", "db/menu/captions/caption", "-1"}, 0, "did you mean " + caption + "?\n"},
      {{"fault", "GetItemDataList", "primary-audio-language", "-1"}, 0, ""},
      {{"fault", "GetItemDataList", "primary_audio_language", "-1"}, 0, "did you mean primary-audio-language?\n"},
      {{"fault", "GenericSyncCall", "get_window_id", "-1"}, 0, ""},
      {{"fault", "GetPictureSize", caption, "-1"}, 0, "GetPictureSize has no path"},
      {{"fault", "vconf_get_int", "0"}, 1, "0 is not a failure of vconf_get_int; its failures are: any but 0"},
      {{"fault", "vconf_set_bool", "1"}, 0, ""},
      {{"fault", "vconf_notify_key_changed", "1"}, 1, "any below 0"},
      {{"fault", "system_info_get_custom_bool", "0"}, 1, "any below 0"},
      {{"fault", "GetItemDataList", "0"}, 0, ""},
      {{"set-up", "latency", "getVersoin", "5"}, 1, " getVersion "},
      {{"set-up", "latency", "getVersoin", "none"}, 0, ""},
      {{"set", "set/embedder/reply/mine", "1"}, 0, ""},
      {{"set-up", "b2b", "--jsno"}, 2, "did you mean --json?"},
      {{"get", "CAPXXXX"}, 1, "constant or number\n"},  // nothing is similar
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
  const std::string one = "0  MENU_KEY_CAPTION                            db/menu/caption/caption ";
  for (const char* name : {"CAPTION", "MENU_KEY_CAPTION", "0"}) {
    const std::string row = Run({"list", name}).out;
    EXPECT_TRUE(Holds(row, one) && std::ranges::count(row, '\n') == 1) << row;
  }
  EXPECT_EQ(Run({"get", "BG_EXECUTABLE", "--json"}).out, R"({"path":"memory/tv-viewer/bg_executable","value":1})"
                                                         "\n");
  EXPECT_EQ(Run({"set", "20", "9"}).status, 0);
  EXPECT_EQ(Run({"list", "VOICE_GUIDE_SPEED", "--json"}).out,
            R"({"keys":[{"path":"db/menu/system/accessibility/voiceguide/speed","value":9,"table":"menu","key":20,)"
            R"("name":"MENU_KEY_VOICE_GUIDE_SPEED"}]})"
            "\n");
  for (const char* command : {"get", "list", "watch"}) {
    const Outcome misspelt = Run({command, "CAPTON"});
    EXPECT_EQ(misspelt.status, 1) << command;
    EXPECT_TRUE(Holds(misspelt.log, "did you mean CAPTION?")) << command;
  }
  ASSERT_EQ(desk::OpenSet(store()).text(), "");
  ASSERT_EQ(vconf::Remove("db/menu/caption/caption").text(), "");
  vconf::CloseStore();
  EXPECT_TRUE(Run({"list", "CAPTION"}).out.ends_with(" (missing)\n"));
  EXPECT_TRUE(Holds(Run({"list", "CAPTION", "--json"}).out, R"("value":null,"table":"menu","key":0)"));
  const std::string some = Run({"list", "mem"}).out;
  EXPECT_EQ(std::count(some.begin(), some.end(), '\n'), 1) << some;
}

TEST_F(CliTest, WatchPrintsEveryChangeUntilItIsStopped) {
  static_cast<void>(std::signal(SIGHUP, SIG_IGN));  // as nohup does
  Program watch({"watch", "memory/", "--now", "--store", store()}, log());
  EXPECT_EQ(watch.ReadLine(), "memory/tv-viewer/bg_executable 1");
  watch.Signal(SIGHUP);
  Run({"set", "db/menu/caption/caption", "1"});
  Run({"set", "memory/tv-viewer/bg_executable", "0"});
  Run({"set", "memory/note", "two\nlines"});
  EXPECT_EQ(watch.ReadLine(), "memory/tv-viewer/bg_executable 0");
  EXPECT_EQ(watch.ReadLine(), R"(memory/note "two\nlines")");
  Run({"reset"});
  std::vector<std::string> received = {watch.ReadLine(), watch.ReadLine()};
  std::sort(received.begin(), received.end());
  EXPECT_EQ(received, (std::vector<std::string>{"memory/note (removed)", "memory/tv-viewer/bg_executable 1"}));
  watch.Signal(SIGINT);
  EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CliTest, WatchEndsAfterSomeChangesOrSomeTime) {
  Program watch({"watch", "db/a", "--now", "--exact", "--json", "--count", "2", "--store", store()}, log());
  Program prefix({"watch", "db/a", "--now", "--count", "2", "--store", store()}, folder() / "other-log");
  Run({"set", "db/a", "1"});  // before or after the watches begin
  EXPECT_EQ(watch.ReadLine(), R"({"path":"db/a","value":1})");
  EXPECT_EQ(prefix.ReadLine(), "db/a 1");
  for (const char* value : {"2", "3", "4", "5"}) {
    Run({"set", "db/ab", value});
    Run({"set", "db/a", value});
  }
  EXPECT_EQ(watch.Wait(), 0);
  EXPECT_EQ(prefix.Wait(), 0);
  const std::string all = watch.ReadAll();
  EXPECT_FALSE(Holds(all, "db/ab")) << all;
  EXPECT_LE(std::ranges::count(all, '\n'), 2);  // two changes; the current value may have been read above
  EXPECT_TRUE(Holds(prefix.ReadAll(), "db/ab "));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Run({"watch", "db/menu/caption/caption", "--now", "--exact", "--timeout", "0.3"}).out,
            "db/menu/caption/caption 0\n");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  const Outcome late = Run({"watch", "CAPTION", "--count", "1", "--timeout", "0.01"});
  EXPECT_EQ(late.status, 1);
  EXPECT_EQ(late.log, "the watch ended after 0 of 1 changes\n");
}

TEST_F(CliTest, SetUpPrintsArgumentsThatRestoreTheSet) {
  const std::string fresh = Run({"set-up"}).out;
  const std::vector<std::vector<std::string>> changes = {
      {"b2b", "unknown"},
      {"privilege", "off"},
      {"privilege", "on", "http://example.org/other"},
      {"picture-size", "none"},
      {"items", "primary-audio-language", "1=It's English", "-2=", R"(3="\u001b")"},
      {"items", "secondary-audio-language", "--remove"},
      {"items", "primary-audio", "--empty"},
      {"embedder", "offered", "off"},
      {"embedder", "name", "Another \n one"},
      {"embedder", "reply", "get_window_id", "\"7\""},
      {"latency", "getVersion", "250"},
  };
  for (std::vector<std::string> words : changes) {
    words.insert(words.begin(), "set-up");
    EXPECT_EQ(Run(words).status, 0) << words[1];
  }
  const std::string changed = Run({"set-up"}).out;
  const std::string json = Run({"set-up", "--json"}).out;
  EXPECT_EQ(Run({"set-up", "b2b"}).out, "b2b unknown\n");
  EXPECT_EQ(Run({"set-up", "--json", "latency"}).out, "{\"latency\":{\"getVersion\":250}}\n");
  EXPECT_EQ(Run({"set-up", "embedder", "reply"}).out, "embedder reply get_window_id '\"7\"'\n");
  EXPECT_EQ(Run({"set-up", "latency", "getVersion"}).out, "latency getVersion 250\n");
  EXPECT_EQ(Run({"set-up", "items", "primary-audio"}).out, "items primary-audio --empty\n");
  EXPECT_EQ(Run({"set-up", "items", "primary-audio", "--json"}).out, "{\"lists\":{\"primary-audio\":[]}}\n");
  EXPECT_EQ(Run({"set-up", "items", "secondary-audio-language"}).status, 1) << "it is shown, not created";
  EXPECT_TRUE(Holds(Run({"set-up", "embedder"}).out, "embedder offered off\nembedder name "));
  ASSERT_EQ(Run({"fault", "GetPictureSize", "-1"}).status, 0);
  ASSERT_EQ(Run({"set-up", "save", "other"}).status, 0);
  ASSERT_EQ(Run({"reset"}).status, 0);
  EXPECT_EQ(Run({"set-up"}).out, fresh);
  // A removed list is not printed, so the lines below cannot remove it.
  Run({"set-up", "items", "secondary-audio-language", "--remove"});

  std::istringstream lines(changed);
  for (std::string line; std::getline(lines, line);) {
    const std::string command = std::string("'" MIRADO_PROGRAM "' set-up --store '") + store() + "' " + line;
    EXPECT_EQ(std::system(command.c_str()), 0) << line;
  }
  EXPECT_EQ(Run({"set-up"}).out, changed);
  EXPECT_EQ(Run({"set-up", "--json"}).out, json);
  ASSERT_EQ(Run({"reset"}).status, 0);
  EXPECT_EQ(Run({"set-up", "load", "others"}).status, 1);
  ASSERT_EQ(Run({"set-up", "load", "other"}).status, 0);
  EXPECT_EQ(Run({"set-up", "--json"}).out, json);
  EXPECT_EQ(Run({"fault"}).out, "GetPictureSize * -1\n");
  EXPECT_EQ(Run({"set-up", "list"}).out, "other\n");
  EXPECT_TRUE(Holds(Run({"set-up", "list", "--json"}).out, R"({"scenarios":[{"name":"other","saved":)"));
}

TEST_F(CliTest, FaultsAreListedAsTheyAreTypedAndCanBeCleared) {
  EXPECT_EQ(Run({"fault", "vconf_get_int", "db/menu/caption/caption", "-5", "--times", "2"}).status, 0);
  EXPECT_EQ(Run({"fault", "GetPictureSize", "-1"}).status, 0);
  EXPECT_TRUE(Holds(Run({"fault", "--list"}).out, "vconf_get_int db/menu/caption/caption -5 --times 2\n"));
  const std::string ask = R"({"send":{"command":"getMenuValue","propertyKey":0}})";
  EXPECT_TRUE(Holds(Run({"host"}, ask + "\n").out, R"("code":9999)"));
  EXPECT_TRUE(Holds(Run({"fault"}).out, "vconf_get_int db/menu/caption/caption -5 --times 1\n"));
  EXPECT_TRUE(Holds(Run({"fault", "--list", "--json"}).out,
                    R"({"call":"vconf_get_int","path":"db/menu/caption/caption","answer":-5,"times":1})"));
  EXPECT_EQ(Run({"fault", "--clear", "vconf_get_int", "CAPTION"}).status, 0);
  EXPECT_EQ(Run({"fault"}).out, "GetPictureSize * -1\n");
  EXPECT_EQ(Run({"fault", "--clear"}).status, 0);
  EXPECT_EQ(Run({"fault"}).out, "");
}

class ReplayTest : public CliTest {
 protected:
  static void Settle(Program& host) {
    host.WriteLine(R"({"settle":true})");
    std::string line = host.ReadLine();
    while (!line.empty() && line != R"({"settled":true})") line = host.ReadLine();
    ASSERT_EQ(line, R"({"settled":true})");
  }

  /// A session with reads, a subscription, writes, a failure and changes by other programs.
  void Record() const {
    Run({"set", "db/menu/caption/captionmode", "300"});
    Run({"fault", "vconf_set_int", "db/menu/subtitle/subtitle", "-1"});
    Program host({"host", "--record", file(), "--store", store()}, log());
    host.WriteLine(R"({"send":{"command":"registerVconfKeysForCaption","propertyKey":1}})");
    host.WriteLine(R"({"post":{"command":"setMenuValue","propertyKey":1,"value":5}})");
    host.WriteLine(R"({"post":{"command":"setMenuValue","propertyKey":16,"value":5}})");
    host.WriteLine("no request at all");
    Settle(host);
    Run({"set", "db/menu/caption/captionmode", "7"});
    EXPECT_TRUE(Holds(host.ReadLine(), "MIRADO_EVENT_CAPTION_CHANGED"));
    host.WriteLine(R"({"send":{"command":"getMenuValue","propertyKey":1}})");
    EXPECT_TRUE(Holds(host.ReadLine(), R"("value":7)"));
    // A second host, started first, changes the value during the latency of the request.
    Program other({"host", "--store", store()}, folder() / "other-log");
    Settle(other);
    Run({"set-up", "latency", "getMenuValue", "1000"});
    host.WriteLine(R"({"send":{"command":"getMenuValue","propertyKey":1}})");
    other.WriteLine(R"({"set":{"db/menu/caption/captionmode":9}})");
    EXPECT_TRUE(Holds(host.ReadLine() + host.ReadLine(), "MIRADO_EVENT_CAPTION_CHANGED"));
    host.CloseInput();
    EXPECT_EQ(host.Wait(), 1);
  }

  std::string file() const { return folder() / "session.jsonl"; }
};

TEST_F(ReplayTest, ReplayFromTheRecordedStateGivesTheSameOutput) {
  Record();
  EXPECT_TRUE(Holds(Contents(file()), R"({"in": {"set":{"db/menu/caption/captionmode":7}}})")) << Contents(file());
  EXPECT_TRUE(Holds(Contents(file()), R"("value":261)")) << Contents(file());
  Run({"reset"});
  const Outcome again = Run({"host", "--record", file()});
  EXPECT_EQ(again.status, 3);
  EXPECT_TRUE(Holds(again.log, file())) << again.log;
  const Outcome replay = RunAsIs({"replay", file(), file()});
  EXPECT_EQ(replay.status, 0) << replay.out << replay.log;
  const Outcome half = RunAsIs({"replay", "--log-level", "4", folder() / "none", file()});
  EXPECT_EQ(half.status, 3) << "the highest status counts";
  EXPECT_TRUE(Holds(half.log, "hasPrivilege : 1")) << half.log;
  // The temporary store is removed however the replay ends.
  const std::string temporary = folder() / "tmp";
  std::filesystem::create_directory(temporary);
  setenv("TMPDIR", temporary.c_str(), 1);
  EXPECT_EQ(RunAsIs({"replay", file()}).status, 0);
  EXPECT_TRUE(std::filesystem::is_empty(temporary));
  const std::string replay_limited =
      "ulimit -f 0; env --ignore-signal=CHLD " MIRADO_PROGRAM " replay '" + file() + "' none";
  EXPECT_EQ(Shell("test \"$(" + replay_limited + " 2>/dev/null | grep -c crashed)\" = 1"), 0)
      << "a child that is killed because it may write no file must not print the first result again";
  EXPECT_TRUE(std::filesystem::is_empty(temporary));
  const std::string pipe = folder() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::signal(SIGHUP, SIG_DFL);  // nohup ignores it
  for (const auto& [signal, status] : {std::pair(SIGTERM, 3), std::pair(SIGHUP, -SIGHUP)}) {
    Program interrupted({"replay", pipe}, log());
    const std::ofstream writer(pipe);  // the constructor waits until the program reads
    interrupted.Signal(signal);
    EXPECT_EQ(interrupted.Wait(), status);
    EXPECT_TRUE(std::filesystem::is_empty(temporary)) << signal;
  }
  unsetenv("TMPDIR");
  EXPECT_TRUE(Holds(Run({"host", "--record", "/dev/stdout"}).out, R"("recording")"));
  // The reader of the recording exits after the first line, so the second cannot be written.
  EXPECT_EQ(
      Shell("{ head -n 1 '" + pipe + "'; echo '{\"settle\":true}'; } | mirado host --record '" + pipe + "' >/dev/null"),
      1);
  EXPECT_TRUE(Holds(Contents(log()), pipe + ": the recording is incomplete")) << Contents(log());
}

TEST_F(ReplayTest, ARecordingBegunDuringASessionContainsTheSubscriptions) {
  const Outcome host =
      Run({"host", "--report"}, R"({"send":{"command":"registerVconfKeysForCaption","propertyKey":0}})"
                                "\n{\"record\":true}\n{\"set\":{\"db/menu/caption/caption\":1}}\n{\"record\":false}\n");
  EXPECT_LT(host.out.find(R"({"watches")"), host.out.find(R"({"reply")")) << "the reply confirms the subscription";
  const std::string begin = R"({"record": )";
  std::istringstream lines(host.out);
  std::ofstream recording(file());
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(begin)) recording << line.substr(begin.size(), line.size() - begin.size() - 1) << std::endl;
  }
  EXPECT_TRUE(Holds(Contents(file()), "MIRADO_EVENT_CAPTION_CHANGED")) << host.out;
  const Outcome replay = RunAsIs({"replay", file()});
  EXPECT_EQ(replay.status, 0) << replay.out << replay.log;
}

TEST_F(ReplayTest, AChangeAfterAnAnswerIsRecordedAfterTheRequest) {
  ASSERT_EQ(desk::OpenSet(store()).text(), "");
  int value = 0;
  {
    desk::Recorder recorder(desk::Recorder::ToFile(file()), [&](const std::string&) {
      static_cast<void>(vconf::Set("db/menu/caption/captionmode", ++value));
    });
    ASSERT_FALSE(recorder.has_failed());
    const auto session = desk::Session::Start(MIRADO_PLUGIN_PATH, [&](const desk::Json& line) { recorder.Out(line); });
    ASSERT_TRUE(session.ok()) << session.status().text();
    const std::string ask = R"({"send":{"command":"getMenuValue","propertyKey":1}})";
    const std::string write = R"({"post":{"command":"setMenuValue","propertyKey":16,"value":5}})";
    for (const std::string& line : {ask, ask, write, ask, std::string(R"({"settle":true})"), ask}) {
      ASSERT_EQ(recorder.Handle(**session, line, *desk::ParseRequest(line)).text(), "");
    }
  }
  vconf::CloseStore();
  EXPECT_EQ(value, 7) << "six answers and the plug-in's last message";
  const Outcome replay = RunAsIs({"replay", file()});
  EXPECT_EQ(replay.status, 0) << replay.out << Contents(file());
}

TEST_F(ReplayTest, TheRecordedExamplesReplayWithoutDifferences) {
  std::vector<std::string> words = {"replay"};
  for (const auto& entry : std::filesystem::directory_iterator(MIRADO_EXAMPLES "/recordings")) {
    words.push_back(entry.path());
  }
  ASSERT_GT(words.size(), 1U);
  const Outcome replay = RunAsIs(words);
  EXPECT_EQ(replay.status, 0) << replay.out << replay.log;
}

TEST_F(ReplayTest, VerifyComparesTheSentMessagesWithThoseExpected) {
  Record();
  const std::string read = R"({"command":"getMenuValue","propertyKey":1})";
  const std::string write = R"({"command":"setMenuValue","propertyKey":16})";
  struct Case {
    std::vector<std::string> words;
    int status;
    std::string said;
  };
  const std::vector<Case> cases = {
      {{}, 0, R"(  1  {"command":"registerVconfKeysForCaption","propertyKey":1})"},
      {{"setMenuValue", read, write}, 0, "what is expected\n"},
      {{read, read}, 0, "what is expected\n"},
      {{read, read, read}, 1, "  not sent: " + read},
      {{R"({"command":"setMenuValue","propertyKey":2})"},
       1,
       R"(  but sent: {"command":"setMenuValue","propertyKey":1)"},
      {{"getMenuValue", "--times", "2"}, 0, ""},
      {{"getMenuValue", "--times", "3"}, 1, "  number of times sent: 2 instead of 3: \"getMenuValue\"\n"},
      {{"getMenuValue", "--times", "1"}, 1, "  number of times sent: 2 instead of 1: \"getMenuValue\"\n"},
      {{"showCaption", "--times", "0"}, 0, ""},
      {{"setMenuValue", write, read, "--order"}, 0, ""},
      {{read, write, "--order"}, 1, "  sent, but not in this order: " + write},
      {{"setMenuValue", write, "--exact"}, 1, "  sent, but not expected: " + read},
      // A message that matches two patterns is assigned to the one that no other message matches.
      {{"setMenuValue", R"({"value":5,"propertyKey":1})", "registerVconfKeysForCaption", read, read, "--exact"}, 0, ""},
      {{"registerVconfKeysForCaption", "setMenuValue", write, read, read, "--order", "--exact"}, 0, ""},
      {{"getVersion", "--json"}, 1, R"({"ok":false,"difference":"  not sent: \"getVersion\")"},
  };
  for (const Case& each : cases) {
    std::vector<std::string> words = {"verify", file()};
    words.insert(words.end(), each.words.begin(), each.words.end());
    const Outcome outcome = RunAsIs(words);
    EXPECT_EQ(outcome.status, each.status) << outcome.out << outcome.log;
    EXPECT_TRUE(Holds(outcome.out, each.said)) << outcome.out;
  }
  EXPECT_EQ(RunAsIs({"verify", file(), "{"}).status, 2);
  EXPECT_EQ(RunAsIs({"verify", file(), "--times", "1"}).status, 2);
  EXPECT_EQ(RunAsIs({"verify", folder() / "none"}).status, 3);
  const auto ordered = desk::ExpectationFromJson(*desk::ParseJson(R"({"messages":[],"order":1})"));
  EXPECT_TRUE(ordered.status().text().starts_with("\"order\" ")) << ordered.status().text();
  const std::vector<desk::ParsedJson> hundred(100, "a");
  EXPECT_TRUE(desk::CheckExpectation({hundred, false, false, {}}).ok());
  EXPECT_TRUE(Holds(desk::SentList(hundred), "  50  \"a\"\n  and 50 more\n"));
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
  desk::Recording none;
  std::vector<desk::ParsedJson> replies(7, {{"reply", 1}});
  replies.push_back({{"message", {{"event", "e"}}}});
  const std::string all = desk::Difference(none, replies);
  EXPECT_TRUE(all.starts_with("  reply 1\n    recorded: nothing\n    replayed: 1\n  reply 2\n")) << all;
  EXPECT_TRUE(Holds(
      all, "  reply 5\n    recorded: nothing\n    replayed: 1\n  2 more differences in kind \"reply\" are not shown\n"))
      << all;
  EXPECT_TRUE(all.ends_with("  event 1\n    recorded: nothing\n    replayed: {\"event\":\"e\"}\n")) << all;
  none.out = replies;
  EXPECT_EQ(desk::Difference(none, replies), "");
  EXPECT_TRUE(Holds(desk::Difference(none, {}), "recorded: 1\n    replayed: nothing\n"));
  std::ofstream(file()) << text << "{\"in\":{\"sent\":1}}\n";
  const Outcome damaged = RunAsIs({"replay", file()});
  EXPECT_EQ(damaged.status, 3);
  EXPECT_TRUE(Holds(damaged.log, file() + ": line " + std::to_string(std::ranges::count(text, '\n') + 1) + ": "))
      << damaged.log;
}

}  // namespace
