#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/terminal.h"
#include "cli/commands.h"
#include "host/recording.h"
#include "host/verify.h"

namespace desk::cli {
namespace {

struct VerifyOptions {
  std::string file;
  std::vector<std::string> messages;
  std::optional<int> times;
  Expectation expected;
  bool json = false;
};

/// A message as JSON, or the name of a command.
ParsedJson FromMessage(const std::string& argument) {
  if (!argument.starts_with('{')) {
    return argument;
  }
  auto json = ParseJson(argument);
  if (!json.ok()) {
    throw CLI::ValidationError(argument + ": " + json.status().text());
  }
  return *std::move(json);
}

int Verify(const VerifyOptions& options) {
  const auto recording = ReadRecording(options.file);
  if (!recording.ok()) {
    PrintError(recording.status().text());
    return kCannotWork;
  }
  const std::vector<ParsedJson> sent = MessagesIn(*recording);
  const bool show = options.expected.messages.empty() && !options.expected.exact;
  const std::string difference = show ? "" : SentDifference(sent, options.expected);
  if (options.json) {
    PrintJson({{"ok", difference.empty()}, {"difference", difference}, {"sent", sent}});
  } else if (show) {
    std::cout << SentList(sent);
  } else {
    std::cout << Printable(options.file)
              << (difference.empty() ? ": the page sent what is expected\n"
                                     : ": the page did not send what is expected\n" + difference);
  }
  return difference.empty() ? kDone : kRefused;
}

}  // namespace

void AddVerifyCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<VerifyOptions>();
  auto* command =
      app.add_subcommand("verify", "Check which messages a recorded page sent, how often and in which order");
  command->footer(
      "MESSAGE is the name of a command, or a JSON object whose members the page's message must have:\n"
      "  mirado verify session.jsonl '{\"command\":\"setMenuValue\",\"propertyKey\":0}' getVersion --order\n"
      "  mirado verify session.jsonl showCaption --times 0\n"
      "Without MESSAGE and --exact, prints all messages. Exit status: 0 as expected, 1 not as expected, 2 wrong "
      "command\n"
      "line, 3 FILE cannot be read.");
  command
      ->add_option("FILE", options->file, "A recording, written by `mirado host --record` or saved on the desk's page")
      ->required();
  command->add_option("MESSAGE", options->messages,
                      "A message that the page must have sent; name it twice if it must be sent twice. At most 100");
  auto* order = command->add_flag("--order", options->expected.order, "The messages were sent in this order");
  auto* exact = command->add_flag("--exact", options->expected.exact, "No other messages were sent");
  command->add_option("--times", options->times, "Each MESSAGE was sent exactly N times; other messages are ignored")
      ->type_name("N")
      ->check(Between(0, 1'000'000'000))
      ->excludes(order)
      ->excludes(exact);
  AddJsonOption(*command, options->json);
  command->callback([options, &run] {
    for (const std::string& message : options->messages) {
      options->expected.messages.push_back(FromMessage(message));
    }
    options->expected.times = options->times;
    const bool show = options->messages.empty() && !options->expected.exact && !options->times;
    if (const auto status = CheckExpectation(options->expected); !show && !status.ok()) {
      throw CLI::ValidationError(status.text());
    }
    run = [options] { return Verify(*options); };
  });
}

}  // namespace desk::cli
