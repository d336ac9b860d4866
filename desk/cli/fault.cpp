#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "base/terminal.h"
#include "cli/commands.h"
#include "set/faults.h"
#include "set/simulated_set.h"

namespace desk::cli {
namespace {

struct FaultOptions {
  StoreOption store;
  bool has_call = false;  ///< otherwise all faults are listed or cleared
  std::string call;
  std::string path = kEveryPath;
  std::string answer;
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
  if (as_json) {
    PrintJson({{"faults", *faults}});
    return {};
  }
  for (const vconf::Fault& fault : *faults) {
    std::cout << ShellWord(ToArgument(fault.call)) << ' ' << ShellWord(ToArgument(fault.path)) << ' ' << fault.answer
              << (fault.times > 0 ? " --times " + std::to_string(fault.times) : "") << '\n';
  }
  return {};
}

/// The path of a fault of `call`; if it is a key's path, it may be given as the name of a setting.
vconf::Result<std::string> PathOf(const FaultCall& call, const std::string& argument) {
  const bool is_key = !call.path.empty() && call.prefix.empty() && argument != kEveryPath;
  return is_key ? PathFromArgument(argument) : TextFromArgument(argument);
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
  if (!options.has_call) {
    return options.clear ? vconf::ClearFaults() : ListFaults(options.json);
  }
  const auto call = FindFaultCall(options.call);
  const auto path = call.ok() ? PathOf(**call, options.path) : call.status();
  if (!path.ok()) {
    return path.status();
  }
  if (options.clear) {
    return vconf::ClearFault(options.call, *path);
  }
  const vconf::Fault fault{.call = options.call,
                           .path = *path,
                           .answer = std::get<int>(ValueFromArgument(options.answer)),
                           .times = options.times};
  auto status = AddFault(fault);
  if (status.ok()) {
    WarnAboutPath(**call, fault);
  }
  return status;
}

/// Checks what the parser cannot: PATH, the second of three arguments, may be left out.
void Check(FaultOptions& options) {
  if (options.clear || !options.has_call) {
    return;
  }
  if (options.answer.empty()) {
    options.answer = std::exchange(options.path, kEveryPath);
  }
  if (!std::holds_alternative<int>(ValueFromArgument(options.answer))) {
    throw CLI::ValidationError("the arguments must be CALL [PATH] ANSWER, and ANSWER an integer");
  }
}

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
  command->footer(
      "  mirado fault CALL [PATH] ANSWER [--times N]\n"
      "  mirado fault --list\n"
      "  mirado fault --clear [CALL [PATH]]\n"
      "In every process, the call returns ANSWER instead of doing its work. Without PATH the fault applies to every\n"
      "path of the call. A key's path may be given as a setting's constant or number.\n" +
      Calls());
  AddStoreOption(*command, options->store);
  auto* call = command->add_option("CALL", options->call, "The call that fails");
  command->add_option("PATH", options->path, "Fail only for this path; may be left out");
  auto* answer = command->add_option("ANSWER", options->answer, "The integer that it returns");
  command->add_option("--times", options->times, "Fail N times; 0 means until the fault is cleared")
      ->type_name("N")
      ->check(Between(0, 1'000'000'000))
      ->capture_default_str();
  auto* list = command->add_flag("--list", options->list, "Print the faults")->excludes(call);
  command
      ->add_flag("--clear", options->clear,
                 "Clear all faults; with CALL PATH, the fault for that path; with CALL alone, only the fault that was "
                 "set without PATH")
      ->excludes(list)
      ->excludes(answer);
  AddJsonOption(*command, options->json);
  command->callback([options, call, &run] {
    options->has_call = call->count() > 0;
    Check(*options);
    run = [options] { return WithStore(options->store, IfMissing::kCreate, [&] { return ChangeFaults(*options); }); };
  });
}

}  // namespace desk::cli
