#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/terminal.h"
#include "cli/commands.h"
#include "set/faults.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct FaultOptions {
  StoreOption store;
  std::vector<std::string> arguments;
  unsigned times = 0;
  bool list = false;
  bool json = false;
  bool clear = false;
};

vconf::Status ListFaults(bool as_json) {
  const auto faults = vconf::ListFaults();
  if (!faults.ok()) {
    return faults.status();
  }
  Json json = Json::array();
  for (const vconf::Fault& fault : *faults) {
    json.push_back(ToJson(fault));
    if (!as_json) {
      std::cout << ShellWord(TextToArgument(fault.call)) << ' ' << ShellWord(TextToArgument(fault.path)) << ' '
                << fault.answer << (fault.times > 0 ? " --times " + std::to_string(fault.times) : "") << '\n';
    }
  }
  if (as_json) {
    PrintJson({{"faults", std::move(json)}});
  }
  return {};
}

/// The path of a fault of `call`; if it is a key's path, it may be given as the name of a setting.
vconf::Result<std::string> PathOf(const FaultCall& call, const std::string& argument) {
  const bool is_key = !call.path.empty() && call.prefix.empty() && argument != kEveryPath;
  return is_key ? PathFromArgument(argument) : TextFromArgument(argument);
}

vconf::Status Clear(const std::vector<std::string>& arguments) {
  if (arguments.empty()) {
    return vconf::ClearFaults();
  }
  const auto call = FindFaultCall(arguments[0]);
  if (!call.ok()) {
    return call.status();
  }
  const auto path = PathOf(**call, arguments.size() > 1 ? arguments[1] : kEveryPath);
  return path.ok() ? vconf::ClearFault(arguments[0], *path) : path.status();
}

/// Warns of a path that is not known: if it is misspelt, the fault never applies.
void WarnAboutPath(const FaultCall& call, const vconf::Fault& fault) {
  if (fault.path != kEveryPath && !call.path.empty()) {
    const auto known = KnownPaths(call.prefix);
    WarnIfUnknown(fault.path, "the fault is set, but the simulated set does not use this as " + std::string(call.path),
                  known.ok() ? *known : std::vector<std::string>());
  } else if (fault.path != kEveryPath && !fault.path.empty()) {
    WarnIfUnknown(fault.path, "the fault is set, but has no effect, because " + fault.call + " has no path", {});
  }
}

vconf::Status ChangeFaults(const FaultOptions& options) {
  if (options.clear) {
    return Clear(options.arguments);
  }
  if (options.arguments.empty()) {
    return ListFaults(options.json);
  }
  const auto call = FindFaultCall(options.arguments.front());
  if (!call.ok()) {
    return call.status();
  }
  const auto path = PathOf(**call, options.arguments.size() == 3 ? options.arguments[1] : kEveryPath);
  if (!path.ok()) {
    return path.status();
  }
  const vconf::Fault fault{.call = options.arguments.front(),
                           .path = *path,
                           .answer = std::get<int>(ValueFromArgument(options.arguments.back())),
                           .times = options.times};
  auto status = AddFault(fault);
  if (status.ok()) {
    WarnAboutPath(**call, fault);
  }
  return status;
}

/// Checks what the parser cannot: the second of three arguments is optional.
void Check(const FaultOptions& options) {
  if (options.clear && options.arguments.size() > 2) {
    throw CLI::ValidationError("--clear takes at most CALL and PATH");
  }
  if (options.clear || options.arguments.empty()) {
    return;
  }
  if (options.arguments.size() < 2 || !std::holds_alternative<int>(ValueFromArgument(options.arguments.back()))) {
    throw CLI::ValidationError("the arguments must be CALL [PATH] ANSWER, and ANSWER an integer");
  }
}

class FaultFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
    return "Usage: mirado fault [OPTIONS] [CALL [PATH] ANSWER]\n";
  }
};

std::string Calls() {
  std::string text = "The calls, which answers are failures of them, and what PATH is:\n";
  const auto add = [&](std::string_view column, std::size_t width) {
    text.append(column).append(width - std::min(column.size(), width), ' ');
  };
  for (const FaultCall& call : FaultCalls()) {
    text += "  ";
    add(call.name, 29);
    add(call.failures, call.path.empty() ? 0 : 13);
    text.append(call.path) += '\n';
  }
  return text;
}

}  // namespace

void AddFaultCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<FaultOptions>();
  auto* command = app.add_subcommand("fault", "Make a call of the set fail, or list or clear such faults");
  command->formatter(std::make_shared<FaultFormatter>());
  command->footer(
      "  mirado fault CALL [PATH] ANSWER [--times N]\n"
      "  mirado fault --list\n"
      "  mirado fault --clear [CALL [PATH]]\n"
      "In every process, the call returns ANSWER instead of doing its work. Without PATH the fault applies to every\n"
      "path of the call. A key's path may be given as a setting's constant or number.\n" +
      Calls());
  AddStoreOption(*command, options->store);
  auto* fault = command->add_option("FAULT", options->arguments, "CALL [PATH] ANSWER; with --clear CALL [PATH]")
                    ->expected(0, 3)
                    ->type_name("");
  command->add_option("--times", options->times, "Fail N times; 0 means until the fault is cleared")
      ->type_name("N")
      ->check(Between(0, 1'000'000'000))
      ->capture_default_str();
  auto* list = command->add_flag("--list", options->list, "Print the faults")->excludes(fault);
  command
      ->add_flag("--clear", options->clear,
                 "Clear all faults; with CALL PATH, the fault for that path; with CALL alone, only the fault that was "
                 "set without PATH")
      ->excludes(list);
  AddJsonOption(*command, options->json);
  command->callback([options, &run] {
    Check(*options);
    run = [options] { return WithStore(options->store, IfMissing::kCreate, [&] { return ChangeFaults(*options); }); };
  });
}

}  // namespace desk::cli
