#include "cli/commands.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "base/suggestion.h"
#include "base/terminal.h"
#include "dlog_control.h"
#include "set/catalog.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

/// "CAPTION" for "MENU_KEY_CAPTION".
std::string_view ShortName(const Setting& setting) {
  constexpr std::string_view kKey = "_KEY_";
  return setting.enumerator.substr(setting.enumerator.find(kKey) + kKey.size());
}

/// What the user can do: empty unless the store is damaged. `where` is the `--store` option to repeat.
std::string RepairAdvice(const vconf::Status& status, const std::string& where) {
  return status.code() != vconf::Code::kDamaged
             ? ""
             : "; `mirado reset --force" + where + "` moves the damaged files away and creates a new store";
}

}  // namespace

bool StoreOption::IsNamed() const {
  const char* const variable = std::getenv("MIRADO_STORE");
  return option->count() > 0 || (variable != nullptr && *variable != '\0');
}

void AddStoreOption(CLI::App& command, StoreOption& store) { store.option = AddStoreOption(command, store.folder); }

void AddJsonOption(CLI::App& command, bool& json) { command.add_flag("--json", json, "Print JSON"); }

int WithStore(const StoreOption& store, IfMissing if_missing, const std::function<vconf::Status()>& work) {
  constexpr int kNothing = 8;
  dlog::SetThreshold(kNothing);  // the store would also log the text of the status
  // The command in the advice must apply to the same store.
  const std::string where = store.option->count() > 0 ? " --store " + ShellWord(store.folder) : "";
  auto opened =
      if_missing == IfMissing::kFail && store.IsNamed() ? vconf::OpenStore(store.folder) : OpenSet(store.folder);
  if (!opened.ok()) {
    std::error_code failed;
    const bool can_create = opened.code() == vconf::Code::kMissing && !store.folder.empty() &&
                            (!std::filesystem::exists(store.folder, failed) ||
                             (std::filesystem::is_empty(store.folder, failed) && !failed));
    PrintError(opened.text() +
               (can_create ? "; `mirado reset" + where + "` creates one" : RepairAdvice(opened, where)));
    return kCannotWork;  // always 3: status 1 would mean that the key is missing
  }
  const auto status = work();
  if (!status.ok()) {
    PrintError(status.text() + RepairAdvice(status, where));
  }
  vconf::CloseStore();
  return ExitStatusOf(status.code());
}

void PrintJson(const Json& json) { std::cout << Printable(ToText(json)) << '\n'; }

vconf::Result<std::string> PathFromArgument(const std::string& argument) {
  const std::string text = TextFromArgument(argument);
  if (text.find('/') != std::string::npos) {
    return text;
  }
  std::vector<std::string> known;
  for (const Setting& setting : Settings()) {
    const std::string_view name = ShortName(setting);
    const bool menu = setting.enumerator.starts_with("MENU_");
    if (text == setting.enumerator || text == name || (menu && text == std::to_string(setting.key))) {
      return std::string(setting.path);
    }
    known.emplace_back(text.find("_KEY_") == std::string::npos ? name : setting.enumerator);
  }
  return vconf::Status(vconf::Code::kBadName,
                       Quoted(text) +
                           " is neither a path (such as db/menu/caption/caption) nor a setting's constant or number" +
                           Suggestion(text, known));
}

void WarnIfUnknown(const std::string& path, const std::string& what, const std::vector<std::string>& known) {
  if (std::ranges::find(known, path) == known.end()) {
    PrintError(path + ": " + what + Suggestion(path, known));
  }
}

}  // namespace desk::cli
