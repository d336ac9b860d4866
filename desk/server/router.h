#pragma once

// Which handler answers which request.

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "server/connection.h"

namespace desk {

using ConnectionPtr = std::shared_ptr<Connection>;

/// Routes by method and path. A pattern is a path in which `*` stands for one part and `**`, at the end, for all that
/// follows. What they stand for is decoded and given to the handler as `HttpRequest::parts`.
class Router {
 public:
  using Handler = std::function<void(HttpRequest&, const ConnectionPtr&)>;
  using Plain = std::function<Answer(const HttpRequest&)>;
  using WithJson = std::function<Answer(const HttpRequest&, const ParsedJson&)>;

  /// Takes a request whatever body it has.
  void Add(http::verb method, std::string pattern, Handler handler);
  /// The same for a handler that answers at once.
  void Get(std::string pattern, Plain handler);
  /// For a request whose body must be JSON; it is parsed for those who want that.
  void AddWithBody(http::verb method, std::string pattern, Handler handler);

  /// Answers also what no handler is for.
  void Route(HttpRequest& request, const ConnectionPtr& connection) const;

 private:
  struct Entry {
    http::verb method;
    std::string pattern;
    bool with_body;
    Handler handler;
  };

  std::vector<Entry> entries_;
};

/// The body as JSON; nothing when it is none, which is then answered.
std::optional<ParsedJson> ReadBody(const HttpRequest& request, const ConnectionPtr& connection);

}  // namespace desk
