#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/line_writer.h"
#include "base/shutdown_signal.h"
#include "base/terminal.h"
#include "cli/commands.h"
#include "set/catalog.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct StoreOptions {
  StoreOption store;
  std::string path;
  std::string value;
  bool json = false;
  bool now = false;
  bool exact = false;
  unsigned count = 0;
  std::optional<double> timeout;
  bool force = false;
};

/// The keys that a command with a prefix applies to.
struct Selection {
  std::string prefix;
  bool exact;

  bool Holds(std::string_view path) const { return exact ? path == prefix : path.starts_with(prefix); }
};

/// The name of a setting selects its key; any other text selects the keys that begin with it. If there are none, the
/// text is taken for a misspelt name of a setting.
vconf::Result<Selection> Select(const StoreOptions& options) {
  const auto path = PathFromArgument(options.path);
  const std::string typed = TextFromArgument(options.path);
  if (const auto known = KnownPaths(typed); !path.ok() && known.ok() && known->empty()) {
    return path.status();
  }
  return Selection{path.ok() ? *path : typed, options.exact || (path.ok() && *path != typed)};
}

Json KeyJson(const std::string& path, const std::optional<vconf::Value>& value) {
  return {{"path", path}, {"value", value ? ToJson(*value) : Json()}};
}

/// A path as one word of a line.
std::string Word(const std::string& path) {
  return path.find(' ') == std::string::npos ? ToArgument(path) : Quoted(path);
}

vconf::Status Get(const StoreOptions& options) {
  const auto path = PathFromArgument(options.path);
  if (!path.ok()) {
    return path.status();
  }
  const auto value = vconf::Get(*path);
  if (value.ok()) {
    options.json ? PrintJson(KeyJson(*path, *value)) : void(std::cout << ToArgument(*value) << '\n');
  }
  return value.status();
}

/// Says which type of value the key with the value `held` accepts, and how to write `typed` as one.
std::string OtherType(const vconf::Value& held, const std::string& typed) {
  if (std::holds_alternative<int>(held)) {
    return "the value must be a 32-bit integer, such as " + ToArgument(held);
  }
  if (std::holds_alternative<bool>(held)) {
    return "the value must be true or false";
  }
  return "the value must be a text; write it as " + ShellWord(ToArgument(vconf::Value(typed)));
}

vconf::Status Set(const StoreOptions& options) {
  const auto path = PathFromArgument(options.path);
  if (!path.ok()) {
    return path.status();
  }
  const auto value = ValueFromArgument(options.value);
  const auto held = vconf::Get(*path);
  if (held.ok() && held->index() != value.index()) {
    return {vconf::Code::kWrongType, *path + ": " + OtherType(*held, options.value)};
  }
  const auto known = KnownPaths();
  auto status = vconf::Set(*path, value);
  if (status.ok() && known.ok() && !IsFreelyNamed(*path)) {
    WarnIfUnknown(*path, "the key is set, but no setting has this path", *known);
  }
  return status;
}

struct Row {
  const Setting* setting;  ///< null for a key that is not a setting
  std::string path;
  std::optional<vconf::Value> value;  ///< empty for a setting without a key
};

void PrintRow(const Row& row) {
  constexpr int kNameWidth = 44;
  constexpr int kPathWidth = 66;
  std::cout << std::left;
  if (row.setting != nullptr) {
    std::cout << std::setw(7) << row.setting->table->name << std::right << std::setw(2) << row.setting->key << "  "
              << std::left << std::setw(kNameWidth) << row.setting->enumerator;
  } else {
    std::cout << std::setw(11 + kNameWidth) << "";
  }
  std::cout << std::setw(kPathWidth) << Word(row.path) << ' ' << (row.value ? ToArgument(*row.value) : "(missing)")
            << '\n';
}

Json RowJson(const Row& row) {
  Json json = KeyJson(row.path, row.value);
  if (row.setting != nullptr) {
    json.update({{"table", row.setting->table->name}, {"key", row.setting->key}, {"name", row.setting->enumerator}});
  }
  return json;
}

vconf::Status List(const StoreOptions& options) {
  const auto selection = Select(options);
  const auto entries = selection.ok() ? vconf::List(selection->prefix) : selection.status();
  if (!entries.ok()) {
    return entries.status();
  }
  std::vector<Row> rows;
  for (const Setting& setting : Settings()) {
    if (selection->Holds(setting.path)) {
      const auto entry = std::ranges::find(*entries, setting.path, &vconf::Entry::path);
      rows.push_back(
          {&setting, std::string(setting.path), entry == entries->end() ? std::nullopt : std::optional(entry->value)});
    }
  }
  for (const vconf::Entry& entry : *entries) {
    if (selection->Holds(entry.path) && FindSetting(entry.path) == nullptr) {
      rows.push_back({nullptr, entry.path, entry.value});
    }
  }
  if (options.json) {
    Json keys = Json::array();
    std::ranges::transform(rows, std::back_inserter(keys), RowJson);
    PrintJson({{"keys", std::move(keys)}});
  } else {
    std::ranges::for_each(rows, PrintRow);
  }
  return {};
}

vconf::Status Watch(const StoreOptions& options) {
  const auto selection = Select(options);
  if (!selection.ok()) {
    return selection.status();
  }
  ShutdownSignal shutdown;
  LineWriter writer(STDOUT_FILENO, [&shutdown] { shutdown.Raise(); });
  const auto print = [&](const std::string& path, const std::optional<vconf::Value>& value) {
    writer.Write(options.json ? Printable(ToText(KeyJson(path, value)))
                              : Word(path) + " " + (value ? ToArgument(*value) : "(removed)"));
  };
  unsigned seen = 0;  // used by the notification thread until the watch is destroyed
  auto watch = vconf::WatchPrefix(selection->prefix, [&](const vconf::Change& change) {
    if (selection->Holds(change.path) && (options.count == 0 || seen < options.count)) {
      print(change.path, change.value);
      if (++seen == options.count) {
        shutdown.Raise();
      }
    }
  });
  if (!watch.ok()) {
    return watch.status();
  }
  if (options.now) {
    const auto entries = vconf::List(selection->prefix);
    if (!entries.ok()) {
      return entries.status();
    }
    for (const vconf::Entry& entry : *entries) {
      if (selection->Holds(entry.path)) {
        print(entry.path, entry.value);
      }
    }
  }
  shutdown.WaitFor(-1, options.timeout ? std::chrono::milliseconds(static_cast<std::int64_t>(*options.timeout * 1000))
                                       : std::chrono::milliseconds(-1));
  watch = std::unique_ptr<vconf::Watch>();
  if (writer.error() != 0) {
    return OutputError(writer.error());
  }
  if (seen < options.count) {
    return {vconf::Code::kMissing,
            "the watch ended after " + std::to_string(seen) + " of " + std::to_string(options.count) + " changes"};
  }
  return {};
}

/// Creates a new store in place of a damaged one, or where there is none.
int Replace(const StoreOption& store) {
  const auto moved = vconf::ReplaceStore(store.folder, DefaultEntries());
  if (!moved.ok()) {
    PrintError(moved.status().text());
    return kCannotWork;
  }
  std::cout << "Moved the old store to " << Printable(*moved) << "; " << Printable(store.folder)
            << " is a new store.\n";
  return kDone;
}

using Work = vconf::Status (*)(const StoreOptions&);

CLI::App* Add(CLI::App& app, Run& run, const std::shared_ptr<StoreOptions>& options, const char* name, const char* text,
              IfMissing if_missing, Work work) {
  auto* command = app.add_subcommand(name, text);
  // Each subcommand has an option of its own, by which it knows whether its store was named.
  auto store = std::make_shared<StoreOption>();
  AddStoreOption(*command, *store);
  command->callback([options, store, if_missing, work, &run] {
    run = [options, store, if_missing, work] {
      return options->force ? Replace(*store) : WithStore(*store, if_missing, [&] { return work(*options); });
    };
  });
  return command;
}

}  // namespace

void AddStoreCommands(CLI::App& app, Run& run) {
  constexpr char kKey[] =
      "A path such as db/menu/caption/caption, or a setting's constant or number such as CAPTION or 0";
  constexpr char kPrefix[] = "Only keys whose path begins with this text, or one setting by constant or number";
  auto options = std::make_shared<StoreOptions>();
  auto* get = Add(app, run, options, "get", "Print the value of a key", IfMissing::kFail, Get);
  get->add_option("PATH", options->path, kKey)->required();
  AddJsonOption(*get, options->json);

  auto* set = Add(app, run, options, "set", "Set the value of a key", IfMissing::kCreate, Set);
  set->footer(
      "A value is a 32-bit integer, true or false; anything else is a text. A text that looks like a number or a\n"
      "boolean needs double quotes of its own, as in JSON: mirado set PATH '\"42\"'. `mirado get` prints values in\n"
      "this form. A key that does not exist is created, with a warning if no setting has its path. The type of an\n"
      "existing key cannot be changed.");
  set->add_option("PATH", options->path, kKey)->required();
  set->add_option("VALUE", options->value, "The value")->required();

  auto* list = Add(app, run, options, "list", "Print all settings with their numbers, and all other keys",
                   IfMissing::kFail, List);
  list->add_option("PREFIX", options->path, kPrefix);
  AddJsonOption(*list, options->json);

  auto* watch =
      Add(app, run, options, "watch", "Print each change of the keys until SIGINT or SIGTERM", IfMissing::kFail, Watch);
  watch->add_option("PREFIX", options->path, kPrefix);
  watch->add_flag("--now", options->now, "Print the current values first");
  watch->add_flag("--exact", options->exact, "Only the key with exactly this path");
  watch->add_option("--count", options->count, "Exit after N changes")
      ->type_name("N")
      ->check(Between(1, 1'000'000'000));
  watch
      ->add_option("--timeout", options->timeout,
                   "Exit after this time; with --count, status 1 if there were fewer changes")
      ->type_name("SECONDS")
      ->check(Between(0, 1'000'000));
  AddJsonOption(*watch, options->json);

  auto* reset =
      Add(app, run, options, "reset", "Reset settings and set-up to the defaults of a new set, and clear all faults",
          IfMissing::kCreate, [](const StoreOptions&) { return ResetSet(); });
  reset->add_flag("--force", options->force,
                  "Replace a damaged store too: moves its files to a new folder, whose name is printed");
}

}  // namespace desk::cli
