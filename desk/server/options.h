#pragma once

#include <string>
#include <vector>

namespace desk {

/// The command line of `mirado desk`.
struct DeskOptions {
  std::string program;  ///< the path of `mirado`, which also is the host of each page
  std::string plugin;
  std::string store;
  int port = 8480;            ///< 0 chooses a free one
  std::string listen = {};    ///< an address of this machine in addition to loopback; empty for none
  bool token = false;         ///< every client needs the token; implied by `listen`
  bool until_closed = false;  ///< the desk also exits when its standard input is closed
  bool temporary = false;     ///< use a new store, removed when the desk exits, instead of `store`
};

/// The command line of a host that reports its log lines and subscriptions.
inline std::vector<std::string> HostCommand(const DeskOptions& options, const std::string& store) {
  return {options.program, "host", "--report", "--plugin", options.plugin, "--store", store};
}

}  // namespace desk
