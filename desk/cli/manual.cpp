#include <iostream>
#include <sstream>
#include <string>

#include "cli/commands.h"

namespace desk::cli {
namespace {

/// `text` escaped for man(7).
std::string Roff(const std::string& text) {
  std::string out;
  for (const char letter : text) {
    const bool begins = out.empty() || out.back() == '\n';
    out += begins && (letter == '.' || letter == '\'') ? "\\&" : "";
    out += letter == '\\' ? "\\e" : letter == '-' ? "\\-" : std::string(1, letter);
  }
  return out;
}

std::string Names(const CLI::Option& option) {
  if (option.get_positional()) {
    return option.get_name();
  }
  const std::string type = option.get_items_expected_max() > 0 ? " " + option.get_type_name() : "";
  return option.get_name(false, true) + type;
}

void PrintOptions(const CLI::App& command) {
  for (const CLI::Option* const option : command.get_options()) {
    if (option->get_name() != "--help") {
      std::cout << ".TP\n\\fB" << Roff(Names(*option)) << "\\fR\n" << Roff(option->get_description()) << '\n';
    }
  }
}

/// `text` with its line breaks, which are significant in a footer.
void PrintText(const std::string& text) {
  if (!text.empty()) {
    std::cout << ".PP\n.nf\n" << Roff(text) << (text.ends_with('\n') ? "" : "\n") << ".fi\n";
  }
}

/// The usage line of `--help`, without its first word and the newline.
std::string Usage(const CLI::App& command) {
  const std::string usage = CLI::Formatter().make_usage(&command, FullName(command));
  return usage.substr(usage.find(' ') + 1, usage.size() - usage.find(' ') - 2);
}

void PrintCommand(const CLI::App& command) {
  std::cout << ".SS " << Roff(Usage(command)) << '\n' << Roff(command.get_description()) << ".\n";
  PrintOptions(command);
  PrintText(command.get_footer());
  for (const CLI::App* const below : command.get_subcommands([](const CLI::App*) { return true; })) {
    PrintCommand(*below);
  }
}

}  // namespace

void PrintManual(const CLI::App& app) {
  std::cout << ".\\\" Printed by `mirado manual`.\n.TH MIRADO 1\n.SH NAME\nmirado \\- " << Roff(app.get_description())
            << "\n.SH SYNOPSIS\n.B mirado\n.I COMMAND\n[OPTION...] [ARGUMENT...]\n.SH OPTIONS\n";
  PrintOptions(app);
  std::cout << ".SH COMMANDS\n";
  for (const CLI::App* const command : app.get_subcommands([](const CLI::App*) { return true; })) {
    PrintCommand(*command);
  }
  std::cout << ".SH NOTES\n";
  PrintText(app.get_footer());
}

}  // namespace desk::cli
