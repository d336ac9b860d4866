#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/terminal.h"
#include "cli/commands.h"
#include "set/catalog.h"
#include "set/scenario.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct SetUpOptions {
  StoreOption store;
  bool json = false;
  std::string name;  ///< of a list, a command, a privilege …; empty for all of them
  std::optional<std::string> value;
  std::vector<std::string> items;
  bool empty = false;
  bool remove = false;

  /// Whether to change the set instead of showing it.
  bool Changes() const { return value || !items.empty() || empty || remove; }
};

using Options = std::shared_ptr<SetUpOptions>;

std::string OnOff(const Json& json) { return json.is_null() ? "unknown" : json == true ? "on" : "off"; }

std::string AsArgument(const std::string& text) { return ShellWord(ToArgument(text)); }

std::string Items(const Json& items) {
  std::string words;
  for (const Json& item : items) {
    words += " " + item["value"].dump() + "=" + AsArgument(item["label"].get<std::string>());
  }
  return words.empty() ? " --empty" : words;
}

/// The set as arguments of `mirado set-up` that restore it, one part in each line.
std::vector<std::string> Lines(const Json& set) {
  std::vector<std::string> lines = {"b2b " + OnOff(set["b2b"])};
  for (const auto& [uri, held] : set["privileges"].items()) {
    lines.push_back("privilege " + OnOff(held) + " " + AsArgument(uri));
  }
  lines.push_back("picture-size " + (set["pictureSize"].is_null() ? "none" : set["pictureSize"].dump()));
  for (const auto& [name, items] : set["lists"].items()) {
    lines.push_back("items " + AsArgument(name) + Items(items));
  }
  const Json& embedder = set["embedder"];
  lines.push_back("embedder offered " + OnOff(embedder["offered"]));
  lines.push_back("embedder name " + AsArgument(embedder["name"].get<std::string>()));
  for (const auto& [operation, reply] : embedder["replies"].items()) {
    const auto value = ToValue(ParsedJson(reply));
    lines.push_back("embedder reply " + AsArgument(operation) + " " + ShellWord(value ? ToArgument(*value) : "none"));
  }
  for (const auto& [command, milliseconds] : set["latency"].items()) {
    lines.push_back("latency " + AsArgument(command) + " " + milliseconds.dump());
  }
  return lines;
}

/// `json` wrapped in objects such that it is at `place`.
Json Nested(Json::json_pointer place, Json json) {
  for (; !place.empty(); place.pop_back()) {
    json = Json{{place.back(), std::move(json)}};
  }
  return json;
}

/// Prints the set's value at `place`, as the lines that begin with `words` or as JSON.
vconf::Status Show(const SetUpOptions& options, const std::string& words, const Json::json_pointer& place) {
  const auto set = DescribeSet();
  if (!set.ok()) {
    return set.status();
  }
  if (!set->contains(place)) {
    return {vconf::Code::kMissing, "the simulated set has no " + words + "; `mirado set-up` prints what it has"};
  }
  if (options.json) {
    PrintJson(Nested(place, set->at(place)));
    return {};
  }
  for (const std::string& line : Lines(*set)) {
    if (words.empty() || line.starts_with(words + " ")) {
      std::cout << line << '\n';
    }
  }
  return {};
}

// Each of the Read functions below converts the arguments to the new value; null removes the value.

Json ReadOnOff(const SetUpOptions& given) { return given.value == "unknown" ? Json() : Json(given.value == "on"); }

/// An integer, or null for "none".
Json FromNumber(const std::string& word) {
  if (word == "none") {
    return nullptr;
  }
  const auto value = ValueFromArgument(word);
  if (!std::holds_alternative<int>(value)) {
    throw CLI::ValidationError(Quoted(word) + " is neither a 32-bit integer nor `none`");
  }
  return std::get<int>(value);
}

Json ReadNumber(const SetUpOptions& given) { return FromNumber(*given.value); }

Json ReadText(const SetUpOptions& given) { return TextFromArgument(*given.value); }

Json ReadReply(const SetUpOptions& given) {
  return given.value == "none" ? Json() : ToJson(ValueFromArgument(*given.value));
}

Json ReadItems(const SetUpOptions& given) {
  if (given.remove) {
    return nullptr;
  }
  Json items = Json::array();
  for (const std::string& item : given.items) {
    const auto sign = item.find('=');
    if (sign == std::string::npos) {
      throw CLI::ValidationError(Quoted(item) + " is not an item; write VALUE=LABEL, such as 1=English");
    }
    items.push_back({{"value", FromNumber(item.substr(0, sign))}, {"label", TextFromArgument(item.substr(sign + 1))}});
  }
  return items;
}

/// Makes `command` show the set's value at `place`, or change it to the result of `read`. If the user gives a name, it
/// applies to the member of that name; a change without a name applies to the member `default_name`.
void ShowOrChange(CLI::App& command, Run& run, const Options& options, const char* place,
                  Json (*read)(const SetUpOptions&), std::string_view default_name = "") {
  command.callback([=, &command, &run] {
    if (!command.get_subcommands().empty()) {
      return;
    }
    std::string words = FullName(command).substr(std::string_view("mirado set-up").size());
    words.erase(0, 1);
    Json::json_pointer at(place);
    if (!options->name.empty() || (options->Changes() && !default_name.empty())) {
      at /= options->name.empty() ? std::string(default_name) : TextFromArgument(options->name);
      words += " " + AsArgument(at.back());
    }
    const Json change = options->Changes() ? Nested(at, read(*options)) : Json();
    run = [=] {
      return WithStore(options->store, IfMissing::kCreate,
                       [&] { return options->Changes() ? ChangeSet(change) : Show(*options, words, at); });
    };
  });
}

vconf::Status ListSaved(const SetUpOptions& options) {
  const auto scenarios = ListScenarios(options.store.folder);
  if (!scenarios.ok()) {
    return scenarios.status();
  }
  if (options.json) {
    PrintJson({{"scenarios", *scenarios}});
    return {};
  }
  for (const Json& scenario : *scenarios) {
    std::cout << scenario["name"].get<std::string>() << '\n';
  }
  return {};
}

void AddScenarios(CLI::App& set_up, Run& run, const Options& options) {
  const auto add = [&](const char* name, const char* text, vconf::Status (*work)(const SetUpOptions&)) {
    auto* command = set_up.add_subcommand(name, text);
    command->callback([=, &run] {
      run = [=] { return WithStore(options->store, IfMissing::kCreate, [&] { return work(*options); }); };
    });
    return command;
  };
  const auto add_with_name = [&](const char* name, const char* text, vconf::Status (*work)(const SetUpOptions&)) {
    add(name, text, work)->add_option("NAME", options->name, "1 to 64 letters, digits and . _ -")->required();
  };
  add_with_name("save", "Save settings, set-up and faults under a name",
                [](const SetUpOptions& given) { return SaveScenario(given.store.folder, given.name); });
  add_with_name("load", "Restore what was saved under a name", [](const SetUpOptions& given) {
    const auto scenario = ReadScenario(given.store.folder, given.name);
    return scenario.ok() ? LoadScenario(*scenario) : scenario.status();
  });
  add("list", "Print the saved names", ListSaved);
}

}  // namespace

void AddSetUpCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<SetUpOptions>();
  auto* set_up = app.add_subcommand("set-up", "Show the simulated set, change it, or save it under a name");
  AddStoreOption(*set_up, options->store);
  AddJsonOption(*set_up, options->json);
  set_up->require_subcommand(0, 1);
  set_up->fallthrough();
  ShowOrChange(*set_up, run, options, "", nullptr);

  const auto add_state = [&](CLI::App& command, const std::vector<std::string>& states) {
    command.add_option("STATE", options->value, CLI::detail::join(states, ", "))->check(OneOf(states));
  };
  auto* b2b = set_up->add_subcommand("b2b", "Whether the set is a B2B product");
  ShowOrChange(*b2b, run, options, "/b2b", ReadOnOff);
  add_state(*b2b, {"on", "off", "unknown"});

  auto* privilege =
      set_up->add_subcommand("privilege", "Whether applications hold a privilege; applies to pages that start later");
  ShowOrChange(*privilege, run, options, "/privileges", ReadOnOff, Privilege());
  add_state(*privilege, {"on", "off", "unknown"});
  privilege->add_option("URI", options->name, "The privilege; default: " + std::string(Privilege()));

  auto* picture =
      set_up->add_subcommand("picture-size", "The picture-size code; none means that there is no video control");
  ShowOrChange(*picture, run, options, "/pictureSize", ReadNumber);
  picture->add_option("SIZE", options->value, "An integer, or none");

  auto* items = set_up->add_subcommand("items", "The items of a list: the values that a setting accepts");
  ShowOrChange(*items, run, options, "/lists", ReadItems);
  auto* list = items->add_option("LIST", options->name, "Such as primary-audio-language");
  auto* item = items->add_option("ITEM", options->items, "VALUE=LABEL, such as 1=English");
  auto* empty = items->add_flag("--empty", options->empty, "Make the list empty")->needs(list)->excludes(item);
  items->add_flag("--remove", options->remove, "Remove the list")->needs(list)->excludes(item)->excludes(empty);

  auto* latency = set_up->add_subcommand("latency", "The delay of a command");
  ShowOrChange(*latency, run, options, "/latency", ReadNumber);
  latency->add_option("COMMAND", options->name, "Such as getMenuValue");
  latency->add_option("MILLISECONDS", options->value, "0 to 60000, or none");

  auto* embedder = set_up->add_subcommand("embedder", "The web runtime's private interface");
  embedder->require_subcommand(0, 1);
  embedder->fallthrough();
  ShowOrChange(*embedder, run, options, "/embedder", nullptr);
  auto* offered =
      embedder->add_subcommand("offered", "Whether the interface exists; applies to pages that start later");
  ShowOrChange(*offered, run, options, "/embedder/offered", ReadOnOff);
  add_state(*offered, {"on", "off"});
  auto* name = embedder->add_subcommand("name", "The web runtime's name");
  ShowOrChange(*name, run, options, "/embedder/name", ReadText);
  name->add_option("TEXT", options->value, "Any text");
  auto* reply = embedder->add_subcommand("reply", "The reply to an operation");
  ShowOrChange(*reply, run, options, "/embedder/replies", ReadReply);
  reply->add_option("OPERATION", options->name, "Such as check_ace_privilege");
  reply->add_option("REPLY", options->value, "A value as in `mirado set`, or none for the default reply");

  AddScenarios(*set_up, run, options);

  // Set after the subcommands are added, because they would inherit it.
  set_up->footer(
      "Without arguments, prints the set as the commands that restore it. A command without a value prints that part.\n"
      "Parts that the set does not have, such as a list that was removed, are not printed.");
}

}  // namespace desk::cli
