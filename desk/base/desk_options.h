#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace desk {

/// How the desk starts `mirado host`.
struct HostCommand {
  std::string program;
  std::string plugin;
  std::string store;

  /// The command line of a host that reports its log lines and subscriptions.
  std::vector<std::string> Arguments() const {
    return {program, "host", "--report", "--plugin", plugin, "--store", store};
  }
};

/// The command line of `mirado desk`.
struct DeskOptions {
  int port = 8480;            ///< 0 takes any that is free
  std::string listen;         ///< an address of this machine beside loopback; empty for none
  bool token = false;         ///< everybody needs the token; so with `listen`
  bool until_closed = false;  ///< the desk ends with its standard input, too
  HostCommand host;
};

/// Declares it to `command`. The desk is a program of its own; the program `mirado` knows by this what it takes.
void AddDeskOptions(CLI::App& command, DeskOptions& options);

}  // namespace desk
