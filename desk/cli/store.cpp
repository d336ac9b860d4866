#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include "base/lines.h"
#include "cli/commands.h"
#include "set/catalog.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct StoreOptions {
  std::string store;
  std::string path;
  std::string value;
  bool now = false;
};

vconf::Status Get(const StoreOptions& options) {
  const auto value = vconf::Get(options.path);
  if (!value.ok()) {
    return value.status();
  }
  const auto* text = std::get_if<std::string>(&*value);
  std::cout << (text == nullptr ? ToArgument(*value) : *text) << '\n';
  return {};
}

/// Why a key that holds `held` does not take what was typed, and what to type.
std::string OtherType(const vconf::Value& held, const std::string& typed) {
  if (std::holds_alternative<int>(held)) {
    return "holds an integer of 32 bits and takes no other type: write it in digits, such as " + ToArgument(held);
  }
  if (std::holds_alternative<bool>(held)) {
    return "holds a boolean and takes no other type: write true or false";
  }
  return "holds a text and takes no other type: write it as '" + ToArgument(vconf::Value(typed)) + "'";
}

vconf::Status Set(const StoreOptions& options) {
  const auto value = ValueFromArgument(options.value);
  const auto held = vconf::Get(options.path);
  if (held.ok() && held->index() != value.index()) {
    return {vconf::Code::kWrongType, options.path + ": " + OtherType(*held, options.value)};
  }
  const auto known = KnownPaths();
  auto status = vconf::Set(options.path, value);
  if (status.ok() && known.ok() && !IsOpenPath(options.path)) {
    NoteUnknown(options.path, "no setting has this path, but the key is set", *known);
  }
  return status;
}

vconf::Status List(const StoreOptions& options) {
  const auto entries = vconf::List(options.path);
  if (!entries.ok()) {
    return entries.status();
  }
  std::map<std::string, vconf::Value> others;
  for (const vconf::Entry& entry : *entries) {
    others.emplace(entry.path, entry.value);
  }
  constexpr int kPathWidth = 66;
  constexpr int kNameWidth = 44;
  std::cout << std::left;
  for (const Setting& setting : Settings()) {
    if (setting.path.starts_with(options.path)) {
      const auto found = others.find(std::string(setting.path));
      std::cout << std::setw(7) << setting.table->name << std::right << std::setw(2) << setting.key << "  " << std::left
                << std::setw(kNameWidth) << setting.enumerator << std::setw(kPathWidth) << setting.path << ' '
                << (found == others.end() ? "(missing)" : ToArgument(found->second)) << '\n';
      others.erase(std::string(setting.path));
    }
  }
  for (const auto& [path, value] : others) {
    std::cout << std::setw(11 + kNameWidth) << "" << std::setw(kPathWidth) << path << ' ' << ToArgument(value) << '\n';
  }
  return {};
}

vconf::Status Watch(const StoreOptions& options) {
  ShutdownSignal end;
  LineWriter writer(STDOUT_FILENO, [&end] { end.Raise(); });
  const auto watch = vconf::WatchPrefix(options.path, [&writer](const vconf::Change& change) {
    writer.Write(change.path + " " + (change.value ? ToArgument(*change.value) : "(removed)"));
  });
  if (!watch.ok()) {
    return watch.status();
  }
  if (options.now) {
    const auto entries = vconf::List(options.path);
    if (!entries.ok()) {
      return entries.status();
    }
    for (const vconf::Entry& entry : *entries) {
      writer.Write(entry.path + " " + ToArgument(entry.value));
    }
  }
  end.WaitFor(-1);
  return {};
}

using Work = vconf::Status (*)(const StoreOptions&);

CLI::App* Add(CLI::App& app, Run& run, const std::shared_ptr<StoreOptions>& options, const char* name, const char* text,
              Work work) {
  auto* command = app.add_subcommand(name, text);
  AddStoreOption(*command, options->store);
  command->callback([options, work, &run] {
    run = [options, work] { return WithStore(options->store, [&] { return work(*options); }); };
  });
  return command;
}

}  // namespace

void AddStoreCommands(CLI::App& app, Run& run) {
  auto options = std::make_shared<StoreOptions>();
  auto* get = Add(app, run, options, "get", "Print the value of a key", Get);
  get->add_option("PATH", options->path, "The key, such as db/menu/caption/caption")->required();

  auto* set = Add(app, run, options, "set", "Give a key a value", Set);
  set->footer(
      "A value is an integer of 32 bits, true, false or else a text. A text that looks like one of the others\n"
      "goes in double quotes of its own: mirado set PATH '\"42\"'. A key keeps the type that it has.\n"
      "A key that is not there yet is made; a note on stderr tells when nothing on the set is known to have it.");
  set->add_option("PATH", options->path, "The key")->required();
  set->add_option("VALUE", options->value, "The value")->required();

  auto* list = Add(app, run, options, "list", "Print the settings with their key numbers, and all other keys", List);
  list->add_option("PREFIX", options->path, "Only keys that begin with this");

  auto* watch = Add(app, run, options, "watch", "Print each change as it happens, until SIGINT or SIGTERM", Watch);
  watch->add_option("PREFIX", options->path, "Only keys that begin with this");
  watch->add_flag("--now", options->now, "Print what the keys hold first");

  Add(app, run, options, "reset", "Put the whole set back to what a new one holds; faults go too",
      [](const StoreOptions&) { return ResetSet(); });
}

}  // namespace desk::cli
