// Runs the steps of the files in transcripts/ and compares every call of the platform that the plug-in makes, in order,
// and every message to the page.
//
// A line without indentation is a step. The indented lines below it are the calls and messages that it causes,
// separated by " | " or a new line. Several messages with the same reply are separated by " ; ".
//
//   let NAME TEXT            replaces $NAME by TEXT in the following lines
//   open, page               embeds the plug-in in a page, for the later steps; "page" does not compare the calls
//   close                    destroys that page's instance; later steps use the page before it
//   ask COMMAND NAME=VALUE   the page sends a message and waits; COMMAND may be replaced by any JSON
//   post COMMAND NAME=VALUE  the page sends a message and does not wait
//   end                      the browser ends the handler's registration
//   store PATH VALUE         another program writes a key; without VALUE it removes the key
//   fault CALL ANSWER TIMES  the next TIMES calls of the platform return ANSWER
//   embedder STATUS VALUE    the result and reply of the embedder from now on
//   refuse NUMBER            the result of a registration from now on

#include <map>
#include <sstream>

#include "pepper/platform_calls.h"
#include "pepper/plugin_fixture.h"

namespace {

std::string Word(std::istringstream& words) {
  std::string word;
  words >> word >> std::ws;
  return word;
}
std::string Rest(std::istringstream& words) {
  std::string rest;
  std::getline(words, rest);
  return rest;
}

Lines Split(const std::string& text, const std::string& separator) {
  const auto end = text.find(separator);
  if (end == text.npos) return {text};
  Lines parts = Split(text.substr(end + separator.size()), separator);
  parts.insert(parts.begin(), text.substr(0, end));
  return parts;
}

std::string Request(std::istringstream& words) {
  if (std::isalpha(words.peek()) == 0) return Rest(words);
  const std::string command = Word(words);
  std::string entries;
  for (std::string part = Word(words); !part.empty(); part = Word(words)) {
    const auto equals = part.find('=');
    entries += (entries.empty() ? "\"" : ",\"") + part.substr(0, equals) + "\":" + part.substr(equals + 1);
  }
  return Ask(command, entries);
}

class TranscriptTest : public PluginTest, public ::testing::WithParamInterface<const char*> {
 protected:
  void TearDown() override {
    pages_.clear();
    pp::browser::SetRegisterMessageHandlerResult(0);
    PluginTest::TearDown();
  }

  /// Runs one step and returns the plug-in's calls and messages.
  Lines Do(const std::string& step) {
    std::istringstream words(step);
    const std::string verb = Word(words);
    if (verb == "open" || verb == "page") {
      pthread_setname_np(pthread_self(), "browser");
      pages_.push_back(std::make_unique<Page>(*plugin_));
      EXPECT_TRUE(pages_.back()->exists());
      EXPECT_EQ(TestEmbedder::last_instance, pages_.back()->instance().id());
      if (verb == "page") calls_.Take();
    } else if (verb == "close") {
      pages_.pop_back();
    } else if (verb == "ask") {
      if (pages_.back()->Send(Request(words)) == "undefined") PlatformCalls::Add("no reply");
    } else if (verb == "post") {
      pages_.back()->Post(Request(words));
    } else if (verb == "end") {
      pages_.back()->EndRegistration();
    } else if (verb == "store") {
      const std::string path = Word(words);
      words.eof() ? Remove(path) : Put(path, *desk::ToValue(desk::ParsedJson::parse(Rest(words))));
    } else if (verb == "fault") {
      const std::string call = Word(words);
      const int answer = std::stoi(Word(words));
      Fault(call, "*", answer, static_cast<unsigned>(std::stoi(Word(words))));
    } else if (verb == "embedder") {
      TestEmbedder::status = std::stoi(Word(words));
      TestEmbedder::reply = Message(Rest(words));
    } else if (verb == "refuse") {
      pp::browser::SetRegisterMessageHandlerResult(std::stoi(Word(words)));
    } else {
      ADD_FAILURE() << "there is no step " << verb;
    }
    for (const auto& page : pages_) {
      for (const std::string& received : page->Received()) {
        if (received.front() == '"' || page != pages_.back()) PlatformCalls::Add("the page receives " + received);
      }
    }
    return calls_.Take();
  }

 private:
  PlatformCalls calls_;
  std::vector<std::unique_ptr<Page>> pages_;
};

TEST_P(TranscriptTest, MatchesTheRecordedCalls) {
  std::ifstream file(std::string(MIRADO_TRANSCRIPTS "/") + GetParam() + ".txt");
  std::map<std::string, std::string> names;
  std::string step;
  Lines expected;
  const auto play = [&] {
    const std::string verb = step.substr(0, step.find(' '));
    for (std::string part : Split(step.substr(verb.size()), " ; ")) {
      part.insert(0, verb + " ");
      EXPECT_EQ(Do(part), expected) << part;
    }
    expected.clear();
  };
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line.front() == '#') continue;
    for (const auto& [name, text] : names) {
      for (auto at = line.find(name); at != line.npos; at = line.find(name)) line.replace(at, name.size(), text);
    }
    if (line.starts_with("let ")) {
      std::istringstream words(line.substr(4));
      const std::string name = Word(words);
      names["$" + name] = Rest(words);
    } else if (line.front() == ' ') {
      const Lines calls = Split(line.substr(line.find_first_not_of(' ')), " | ");
      expected.insert(expected.end(), calls.begin(), calls.end());
    } else {
      if (!step.empty()) play();
      step = line;
    }
  }
  ASSERT_FALSE(step.empty()) << "there is no such transcript";
  play();
}

INSTANTIATE_TEST_SUITE_P(Plugin, TranscriptTest, ::testing::Values("life", "reading", "writing", "watching"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
