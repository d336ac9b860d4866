#include <iostream>
#include <memory>
#include <string>

#include "base/paths.h"
#include "cli/commands.h"
#include "set/catalog.h"
#include "set/faults.h"
#include "set/scenario.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

constexpr char kBash[] = R"bash(# mirado in bash: eval "$(mirado completion bash)"
_mirado() {
  mapfile -t COMPREPLY < <(mirado complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _mirado mirado
)bash";

constexpr char kZsh[] = R"zsh(#compdef mirado
# mirado in zsh, behind compinit: eval "$(mirado completion zsh)"
_mirado() {
  local -a candidates=("${(@f)$(mirado complete "${(@)words[2,CURRENT]}" 2>/dev/null)}")
  [[ -n "$candidates" ]] && compadd -- "${candidates[@]}" || _files
}
compdef _mirado mirado
)zsh";

using Words = std::vector<std::string>;

Words PathsUnder(const std::string& prefix) {
  Words paths;
  for (const vconf::Entry& entry : DefaultEntries()) {
    if (entry.path.starts_with(prefix)) {
      paths.push_back(entry.path.substr(prefix.size()));
    }
  }
  return paths;
}

Words Keys() {
  Words keys = PathsUnder("");
  for (const Setting& setting : Settings()) {
    keys.emplace_back(setting.enumerator.substr(setting.enumerator.find("_KEY_") + 5));
  }
  return keys;
}

/// The possible values of an argument, which its name tells.
Words Values(const CLI::Option& option) {
  const std::string name = option.get_name();
  Words values;
  if (name == "PATH" || name == "PREFIX") {
    return Keys();
  }
  if (name == "STATE") {
    return CLI::detail::split(option.get_description(), ',');
  }
  if (name == "SHELL") {
    return {"bash", "zsh"};
  }
  if (name == "LIST") {
    return PathsUnder("set/prefdeck/");
  }
  if (name == "COMMAND" || name == "MESSAGE") {
    for (const Command& command : Commands()) {
      values.emplace_back(command.name);
    }
  } else if (name == "CALL") {
    for (const FaultCall& call : FaultCalls()) {
      values.emplace_back(call.name);
    }
  } else if (name == "NAME") {
    const auto scenarios = ListScenarios(DefaultStore());
    for (const Json& scenario : scenarios.ok() ? *scenarios : Json()) {
      values.push_back(scenario["name"]);
    }
  }
  return values;
}

/// The argument after the first `given` ones, or null.
const CLI::Option* NextArgument(const CLI::App& command, int given) {
  int before = 0;
  for (const CLI::Option* const option : command.get_options()) {
    if (option->get_positional()) {
      before += std::min(option->get_items_expected_max(), 100);
      if (given < before) {
        return option;
      }
    }
  }
  return nullptr;
}

}  // namespace

void PrintCompletions(const CLI::App& app, const Words& words) {
  const CLI::App* command = &app;
  const std::string last = words.empty() ? "" : words.back();
  int given = 0;
  for (std::size_t at = 0; at + 1 < words.size(); ++at) {
    const auto options = AcceptedOptions(*command);
    const auto option =
        std::ranges::find_if(options, [&](const CLI::Option* each) { return each->check_name(words[at]); });
    if (words[at].starts_with('-') && option != options.end()) {
      at += (*option)->get_items_expected_max() > 0 ? 1 : 0;
      if (at + 1 == words.size()) {
        return;  // the value of an option, which the shell completes as a file
      }
      continue;
    }
    const auto below = command->get_subcommands([&](const CLI::App* each) { return each->check_name(words[at]); });
    if (below.empty()) {
      ++given;
    } else {
      command = below.front();
    }
  }
  Words candidates;
  if (last.starts_with('-')) {
    for (const CLI::Option* const option : AcceptedOptions(*command)) {
      for (const std::string& name : option->get_lnames()) {
        candidates.push_back("--" + name);
      }
    }
  } else {
    for (const CLI::App* const below : command->get_subcommands([](const CLI::App*) { return true; })) {
      candidates.push_back(below->get_name());
    }
    if (const CLI::Option* const argument = NextArgument(*command, given)) {
      const Words values = Values(*argument);
      candidates.insert(candidates.end(), values.begin(), values.end());
    }
  }
  for (const std::string& candidate : candidates) {
    if (const std::string word = CLI::detail::trim_copy(candidate); word.starts_with(last)) {
      std::cout << word << '\n';
    }
  }
}

void AddCompletionCommand(CLI::App& app, Run& run) {
  auto shell = std::make_shared<std::string>();
  auto* command =
      app.add_subcommand("completion", "Print a script with which a shell completes this program's arguments");
  command->footer("In ~/.bashrc: eval \"$(mirado completion bash)\"");
  command->add_option("SHELL", *shell, "bash or zsh")->required()->check(OneOf({"bash", "zsh"}));
  command->callback([shell, &run] {
    run = [shell] {
      std::cout << (*shell == "bash" ? kBash : kZsh);
      return kDone;
    };
  });
}

}  // namespace desk::cli
