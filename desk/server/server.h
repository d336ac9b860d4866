#pragma once

#include <memory>
#include <string>
#include <vector>

#include "server/page.h"

namespace desk {

struct DeskOptions {
  int port = 0;  ///< 0 takes any that is free
  HostCommand host;
  std::vector<std::string> allowed_origins;
};

/// The desk's HTTP side: the interface, `desk.js` and the desk's own page. The store must be open for its whole life.
class DeskServer {
 public:
  explicit DeskServer(DeskOptions options);
  /// Ends every request and every page's process.
  ~DeskServer();

  DeskServer(const DeskServer&) = delete;
  DeskServer& operator=(const DeskServer&) = delete;

  /// Takes the port and begins to serve, on threads of its own. Says what stands against it.
  vconf::Status Start();

  /// The port that is served, once started.
  int port() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace desk
