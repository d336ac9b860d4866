#pragma once

#include <string>
#include <vector>

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
  int port = 8480;            ///< 0 chooses a free one
  std::string listen;         ///< an address of this machine in addition to loopback; empty for none
  bool token = false;         ///< every client needs the token; implied by `listen`
  bool until_closed = false;  ///< the desk also exits when its standard input is closed
  bool temporary = false;     ///< use a new store, removed when the desk exits, instead of `host.store`
  HostCommand host;
};

}  // namespace desk
