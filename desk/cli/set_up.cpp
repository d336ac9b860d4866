#include <charconv>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/terminal.h"
#include "cli/commands.h"
#include "set/catalog.h"
#include "set/scenario.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct SetUpOptions {
  StoreChoice store;
  bool json = false;
  std::string word;
  std::string name;
  std::string value;
  std::string privilege{Privilege()};
  std::vector<std::string> items;
  bool remove = false;
};

using Options = std::shared_ptr<SetUpOptions>;

std::string OnOff(const Json& json) { return json.is_null() ? "unknown" : json == true ? "on" : "off"; }

std::string Typed(const std::string& text) { return ShellWord(TextToArgument(text)); }

std::string Items(const Json& items) {
  std::string words;
  for (const Json& item : items) {
    words += " " + item["value"].dump() + "=" + Typed(item["label"].get<std::string>());
  }
  return words;
}

/// The set in the words that change it, one line each.
std::vector<std::string> Lines(const Json& set) {
  std::vector<std::string> lines = {"b2b " + OnOff(set["b2b"])};
  for (const auto& [uri, held] : set["privileges"].items()) {
    lines.push_back("privilege " + OnOff(held) + " " + Typed(uri));
  }
  lines.push_back("picture-size " + (set["pictureSize"].is_null() ? "none" : set["pictureSize"].dump()));
  for (const auto& [name, items] : set["lists"].items()) {
    lines.push_back("items " + Typed(name) + Items(items));
  }
  const Json& embedder = set["embedder"];
  lines.push_back("embedder offered " + OnOff(embedder["offered"]));
  lines.push_back("embedder name " + Typed(embedder["name"].get<std::string>()));
  for (const auto& [operation, reply] : embedder["replies"].items()) {
    const auto value = ToValue(ParsedJson(reply));
    lines.push_back("embedder reply " + Typed(operation) + " " + ShellWord(value ? ToArgument(*value) : "none"));
  }
  for (const auto& [command, milliseconds] : set["latency"].items()) {
    lines.push_back("latency " + Typed(command) + " " + milliseconds.dump());
  }
  return lines;
}

/// Prints what the set has for `words`, or all of it when they are empty. In JSON that is `member` of the set.
vconf::Status Show(const SetUpOptions& options, const std::string& words, const std::string& member) {
  const auto set = DescribeSet();
  if (!set.ok()) {
    return set.status();
  }
  if (options.json) {
    PrintJson(member.empty() ? *set : Json{{member, (*set)[member]}});
    return {};
  }
  for (const std::string& line : Lines(*set)) {
    if (words.empty() || line.starts_with(words + " ")) {
      std::cout << line << '\n';
    }
  }
  return {};
}

ParsedJson FromOnOff(const std::string& word) { return word == "unknown" ? ParsedJson() : ParsedJson(word == "on"); }

/// An integer, or null for "none".
ParsedJson FromNumber(const std::string& word) {
  if (word == "none") {
    return nullptr;
  }
  int number = 0;
  const auto parsed = std::from_chars(word.data(), word.data() + word.size(), number);
  if (parsed.ec != std::errc() || parsed.ptr != word.data() + word.size()) {
    throw CLI::ValidationError(word + " is neither an integer of 32 bits nor none");
  }
  return number;
}

ParsedJson FromItems(const SetUpOptions& options) {
  if (options.remove) {
    return nullptr;
  }
  ParsedJson items = ParsedJson::array();
  for (const std::string& item : options.items) {
    const auto sign = item.find('=');
    if (sign == std::string::npos) {
      throw CLI::ValidationError(item + " is no item: an item is VALUE=LABEL, such as 1=English");
    }
    items.push_back({{"value", FromNumber(item.substr(0, sign))}, {"label", TextFromArgument(item.substr(sign + 1))}});
  }
  return items;
}

ParsedJson FromReply(const std::string& word) {
  return word == "none" ? ParsedJson() : ParsedJson(ToJson(ValueFromArgument(word)));
}

using MakeChange = ParsedJson (*)(const SetUpOptions&);
using ShowState = std::function<vconf::Status(const SetUpOptions&)>;

/// What a word prints without arguments: its lines, or `member` of the set in JSON.
ShowState Shows(const std::string& words, const std::string& member) {
  return [=](const SetUpOptions& given) { return Show(given, words, member); };
}

/// Adds a word of `set-up`. `change` makes what it changes from its arguments; without any it runs `show`.
CLI::App* Add(CLI::App& parent, Run& run, const Options& options, const char* name, const char* text,
              const ShowState& show, MakeChange change) {
  auto* command = parent.add_subcommand(name, text);
  command->callback([=, &run] {
    const auto given = command->get_options([](const CLI::Option* option) { return option->count() > 0; });
    if (given.empty()) {
      run = [=] { return WithStore(options->store, Absent::kMake, [&] { return show(*options); }); };
      return;
    }
    run = [options, json = change(*options)] {
      return WithStore(options->store, Absent::kMake, [&] { return ChangeSet(json); });
    };
  });
  return command;
}

CLI::Option* AddOnOff(CLI::App& command, std::string& word, const std::vector<std::string>& words) {
  return command.add_option("STATE", word, CLI::detail::join(words, ", "))->check(CLI::IsMember(words))->type_name("");
}

void AddEmbedder(CLI::App& set_up, Run& run, const Options& options) {
  auto* embedder = set_up.add_subcommand("embedder", "The web runtime's private interface");
  embedder->require_subcommand(1);
  embedder->fallthrough();
  auto* offered = Add(*embedder, run, options, "offered", "Whether there is such an interface, from the next page on",
                      Shows("embedder offered", "embedder"), [](const SetUpOptions& given) -> ParsedJson {
                        return {{"embedder", {{"offered", FromOnOff(given.word)}}}};
                      });
  AddOnOff(*offered, options->word, {"on", "off"});
  auto* name = Add(*embedder, run, options, "name", "What it calls itself", Shows("embedder name", "embedder"),
                   [](const SetUpOptions& given) -> ParsedJson {
                     return {{"embedder", {{"name", TextFromArgument(given.value)}}}};
                   });
  name->add_option("NAME", options->value);
  auto* reply = Add(*embedder, run, options, "reply", "What it replies to an operation",
                    Shows("embedder reply", "embedder"), [](const SetUpOptions& given) -> ParsedJson {
                      return {{"embedder", {{"replies", {{TextFromArgument(given.name), FromReply(given.value)}}}}}};
                    });
  auto* operation = reply->add_option("OPERATION", options->name, "Such as check_ace_privilege");
  operation->needs(
      reply->add_option("REPLY", options->value, "A value as `mirado set` takes it, or none for the usual one"));
}

/// Adds the word for item lists under a name.
void AddItems(CLI::App& set_up, Run& run, const Options& options, const char* name, const char* text,
              const ShowState& show) {
  auto* items = Add(set_up, run, options, name, text, show, [](const SetUpOptions& given) -> ParsedJson {
    return {{"lists", {{TextFromArgument(given.name), FromItems(given)}}}};
  });
  auto* list = items->add_option("LIST", options->name, "Such as primary-audio-language");
  items->add_option("ITEM", options->items, "VALUE=LABEL, such as 1=English; none of them is a list without items");
  items->add_flag("--remove", options->remove, "There is no such list")->needs(list);
}

vconf::Status ListSaved(const SetUpOptions& options) {
  const auto files = ListScenarios(options.store.folder);
  if (!files.ok()) {
    return files.status();
  }
  Json scenarios = Json::array();
  for (const ScenarioFile& file : *files) {
    scenarios.push_back({{"name", file.name}, {"saved", file.saved}});
    if (!options.json) {
      std::cout << file.name << '\n';
    }
  }
  if (options.json) {
    PrintJson({{"scenarios", std::move(scenarios)}});
  }
  return {};
}

void AddScenarios(CLI::App& set_up, Run& run, const Options& options) {
  const auto add = [&](const char* name, const char* text, vconf::Status (*work)(const SetUpOptions&)) {
    auto* command = set_up.add_subcommand(name, text);
    command->callback(
        [=, &run] { run = [=] { return WithStore(options->store, Absent::kMake, [&] { return work(*options); }); }; });
    return command;
  };
  constexpr char kName[] = "1 to 64 letters, digits and . _ -";
  add("save", "Save the whole set under a name: settings, the set-up, faults",
      [](const SetUpOptions& given) {
        const auto scenario = DescribeScenario();
        return scenario.ok() ? SaveScenario(given.store.folder, given.name, ParsedJson(*scenario)) : scenario.status();
      })
      ->add_option("NAME", options->name, kName)
      ->required();
  add("load", "Give the set what was saved under a name",
      [](const SetUpOptions& given) {
        const auto scenario = ReadScenario(given.store.folder, given.name);
        return scenario.ok() ? LoadScenario(*scenario) : scenario.status();
      })
      ->add_option("NAME", options->name, kName)
      ->required();
  AddItems(set_up, run, options, "list",
           "Print the names under which the set was saved; with arguments the same as items", ListSaved);
}

}  // namespace

void AddSetUpCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<SetUpOptions>();
  auto* set_up = app.add_subcommand("set-up", "Show the simulated set, change it, or save it under a name");
  AddStoreOption(*set_up, options->store);
  AddJsonOption(*set_up, options->json);
  set_up->require_subcommand(0, 1);
  set_up->fallthrough();
  set_up->callback([set_up, options, &run] {
    if (set_up->get_subcommands().empty()) {
      run = [options] { return WithStore(options->store, Absent::kMake, [&] { return Show(*options, "", ""); }); };
    }
  });

  auto* b2b = Add(*set_up, run, options, "b2b", "Whether the set is a B2B product", Shows("b2b", "b2b"),
                  [](const SetUpOptions& given) -> ParsedJson {
                    return {{"b2b", FromOnOff(given.word)}};
                  });
  AddOnOff(*b2b, options->word, {"on", "off", "unknown"});

  auto* privilege =
      Add(*set_up, run, options, "privilege", "Whether a page's application holds a privilege, from the next page on",
          Shows("privilege", "privileges"), [](const SetUpOptions& given) -> ParsedJson {
            return {{"privileges", {{TextFromArgument(given.privilege), FromOnOff(given.word)}}}};
          });
  AddOnOff(*privilege, options->word, {"on", "off", "unknown"});
  privilege->add_option("URI", options->privilege, "The privilege")->capture_default_str();

  auto* picture = Add(*set_up, run, options, "picture-size", "The picture-size code, or that there is no picture",
                      Shows("picture-size", "pictureSize"), [](const SetUpOptions& given) -> ParsedJson {
                        return {{"pictureSize", FromNumber(given.value)}};
                      });
  picture->add_option("SIZE", options->value, "An integer, or none");

  AddItems(*set_up, run, options, "items", "Which values a setting may take", Shows("items", "lists"));

  auto* latency = Add(*set_up, run, options, "latency", "How long a command is held back", Shows("latency", "latency"),
                      [](const SetUpOptions& given) -> ParsedJson {
                        return {{"latency", {{TextFromArgument(given.name), FromNumber(given.value)}}}};
                      });
  auto* command = latency->add_option("COMMAND", options->name, "Such as getMenuValue");
  command->needs(latency->add_option("MILLISECONDS", options->value, "0 to 60000, or none"));

  AddEmbedder(*set_up, run, options);
  AddScenarios(*set_up, run, options);

  // Now that the words are there, which would take it over as theirs.
  set_up->footer(
      "Alone it prints the set in the words that change it, and a word without a value prints what it would change.\n"
      "What the set does not have, such as a list that was removed, has no line.");
}

}  // namespace desk::cli
