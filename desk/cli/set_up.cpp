#include <algorithm>
#include <charconv>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/json.h"
#include "cli/commands.h"
#include "set/catalog.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct SetUpOptions {
  std::string store;
  bool json = false;
  std::string word;
  std::string name;
  std::string value;
  std::string privilege = std::string(Privilege());
  std::vector<std::string> items;
  bool remove = false;
};

/// How the shell takes `text` as one word.
std::string Quoted(const std::string& text) {
  constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:=";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) {
    return text;
  }
  std::string quoted = "'";
  for (const char letter : text) {
    quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  }
  return quoted + "'";
}

std::string OnOff(const Json& json) { return json.is_null() ? "unknown" : json == true ? "on" : "off"; }

/// Prints the set in the words that change it.
void Print(const Json& set) {
  const auto line = [](const std::string& words) { std::cout << words << '\n'; };
  line("b2b " + OnOff(set["b2b"]));
  for (const auto& [uri, held] : set["privileges"].items()) {
    line("privilege " + OnOff(held) + " " + Quoted(uri));
  }
  line("picture-size " + (set["pictureSize"].is_null() ? "none" : set["pictureSize"].dump()));
  for (const auto& [name, items] : set["lists"].items()) {
    std::string words = "list " + Quoted(name);
    for (const Json& item : items) {
      words += " " + item["value"].dump() + "=" + Quoted(item["label"].get<std::string>());
    }
    line(words);
  }
  const Json& embedder = set["embedder"];
  line("embedder offered " + OnOff(embedder["offered"]));
  line("embedder name " + Quoted(embedder["name"].get<std::string>()));
  for (const auto& [operation, reply] : embedder["replies"].items()) {
    line("embedder reply " + Quoted(operation) + " " + Quoted(ToText(reply)));
  }
  for (const auto& [command, milliseconds] : set["latency"].items()) {
    line("latency " + Quoted(command) + " " + milliseconds.dump());
  }
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
    items.push_back({{"value", FromNumber(item.substr(0, sign))}, {"label", item.substr(sign + 1)}});
  }
  return items;
}

ParsedJson FromReply(const std::string& word) {
  return word == "none" ? ParsedJson() : ParsedJson(ToJson(ValueFromArgument(word)));
}

using MakeChange = ParsedJson (*)(const SetUpOptions&);

/// Adds a word of `set-up`; `change` makes what it changes from the options.
CLI::App* Add(CLI::App& parent, Run& run, const std::shared_ptr<SetUpOptions>& options, const char* name,
              const char* text, MakeChange change) {
  auto* command = parent.add_subcommand(name, text);
  command->callback([options, change, &run] {
    run = [options, json = change(*options)] { return WithStore(options->store, [&] { return ChangeSet(json); }); };
  });
  return command;
}

void AddOnOff(CLI::App& command, std::string& word, const std::vector<std::string>& words) {
  command.add_option("STATE", word, CLI::detail::join(words, ", "))
      ->required()
      ->check(CLI::IsMember(words))
      ->type_name("");
}

void AddEmbedder(CLI::App& set_up, Run& run, const std::shared_ptr<SetUpOptions>& options) {
  auto* embedder = set_up.add_subcommand("embedder", "The web runtime's private interface");
  embedder->require_subcommand(1);
  auto* offered = Add(*embedder, run, options, "offered", "Whether there is such an interface, from the next page on",
                      [](const SetUpOptions& given) -> ParsedJson {
                        return {{"embedder", {{"offered", FromOnOff(given.word)}}}};
                      });
  AddOnOff(*offered, options->word, {"on", "off"});
  auto* name =
      Add(*embedder, run, options, "name", "What it calls itself", [](const SetUpOptions& given) -> ParsedJson {
        return {{"embedder", {{"name", given.value}}}};
      });
  name->add_option("NAME", options->value)->required();
  auto* reply = Add(*embedder, run, options, "reply", "What it replies to an operation",
                    [](const SetUpOptions& given) -> ParsedJson {
                      return {{"embedder", {{"replies", {{given.name, FromReply(given.value)}}}}}};
                    });
  reply->add_option("OPERATION", options->name, "Such as check_ace_privilege")->required();
  reply->add_option("REPLY", options->value, "A value as `mirado set` takes it, or none for the usual one")->required();
}

}  // namespace

void AddSetUpCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<SetUpOptions>();
  auto* set_up = app.add_subcommand("set-up", "Show the simulated set, or change it");
  AddStoreOption(*set_up, options->store);
  set_up->add_flag("--json", options->json, "Print the set as JSON");
  set_up->require_subcommand(0, 1);
  set_up->fallthrough();
  set_up->callback([set_up, options, &run] {
    if (set_up->get_subcommands().empty()) {
      run = [options] {
        return WithStore(options->store, [&] {
          const auto set = DescribeSet();
          if (set.ok()) {
            options->json ? void(std::cout << ToText(*set) << '\n') : Print(*set);
          }
          return set.status();
        });
      };
    }
  });

  auto* b2b = Add(*set_up, run, options, "b2b", "Whether the set is a B2B product",
                  [](const SetUpOptions& given) -> ParsedJson {
                    return {{"b2b", FromOnOff(given.word)}};
                  });
  AddOnOff(*b2b, options->word, {"on", "off", "unknown"});

  auto* privilege =
      Add(*set_up, run, options, "privilege", "Whether a page's application holds a privilege, from the next page on",
          [](const SetUpOptions& given) -> ParsedJson {
            return {{"privileges", {{given.privilege, FromOnOff(given.word)}}}};
          });
  AddOnOff(*privilege, options->word, {"on", "off", "unknown"});
  privilege->add_option("URI", options->privilege, "The privilege")->capture_default_str();

  auto* picture = Add(*set_up, run, options, "picture-size", "The picture-size code, or that there is no picture",
                      [](const SetUpOptions& given) -> ParsedJson {
                        return {{"pictureSize", FromNumber(given.value)}};
                      });
  picture->add_option("SIZE", options->value, "An integer, or none")->required();

  auto* list = Add(*set_up, run, options, "list", "Which values a setting may take",
                   [](const SetUpOptions& given) -> ParsedJson {
                     return {{"lists", {{given.name, FromItems(given)}}}};
                   });
  list->add_option("LIST", options->name, "Such as primary-audio-language")->required();
  list->add_option("ITEM", options->items, "VALUE=LABEL, such as 1=English; none of them is a list without items");
  list->add_flag("--remove", options->remove, "There is no such list");

  auto* latency = Add(*set_up, run, options, "latency", "How long a command is held back",
                      [](const SetUpOptions& given) -> ParsedJson {
                        return {{"latency", {{given.name, FromNumber(given.value)}}}};
                      });
  latency->add_option("COMMAND", options->name, "Such as getMenuValue")->required();
  latency->add_option("MILLISECONDS", options->value, "0 to 60000, or none")->required();

  AddEmbedder(*set_up, run, options);

  // Now that the words are there, which would take it over as theirs.
  set_up->footer(
      "Alone it prints the set in the words that change it, or with --json. What the set does not have, such as a "
      "list\n"
      "that was removed, has no line.");
}

}  // namespace desk::cli
