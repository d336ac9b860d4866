#pragma once

// Maps requests to handlers by method and path.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "server/connection.h"

namespace desk {

using ConnectionPtr = std::shared_ptr<Connection>;

/// What a handler needs of the request's body.
enum class Body {
  kNone,  ///< the body is ignored
  kJson,  ///< it must be JSON and is parsed into `HttpRequest::json`
};

/// The table of routes. A pattern is a path in which `*` stands for one segment and `**`, at the end, for all remaining
/// ones. The text that they match is decoded and passed to the handler in `HttpRequest::parts`.
class Router {
 public:
  /// Answers with one call of `Connection::Reply`, now or later, or takes the connection's socket.
  using Handler = std::function<void(HttpRequest&, const ConnectionPtr&)>;

  void Add(http::verb method, std::string pattern, Body body, Handler handler);

  /// A GET that is answered at once.
  void Get(std::string pattern, std::function<Answer(const HttpRequest&)> answer);

  /// Calls the handler of `request`. Without one it answers 404 or 405, and for an unsuitable body 400 or 415.
  void Route(HttpRequest& request, const ConnectionPtr& connection) const;

 private:
  struct Entry {
    http::verb method;
    std::string pattern;
    Body body;
    Handler handler;
  };

  std::vector<Entry> entries_;
};

}  // namespace desk
