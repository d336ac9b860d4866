#pragma once

#include <sys/socket.h>

#include <map>
#include <optional>

#include "base/json.h"
#include "harness.h"

namespace stress {

/// What came back for a request.
struct Answer {
  int status = 0;                              ///< 0: the connection was closed without one
  std::map<std::string, std::string> headers;  ///< names in lower case
  std::string body;

  bool is_json() const;
  /// The object that the body holds; an empty one when it holds none.
  desk::Json json() const;
};

/// A connection for one request, made byte by byte.
class Connection {
 public:
  explicit Connection(int port);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { close(socket_); }

  void Send(std::string_view bytes) const;
  /// Whether something comes back in this time.
  bool Hears(std::chrono::milliseconds time) const;
  /// Says that no more will be sent.
  void Finish() const { shutdown(socket_, SHUT_WR); }

  /// The answer, up to its end; of one that streams the head. Nothing when it does not come for a long time.
  std::optional<Answer> Receive();

  /// What streams on; empty at its end.
  std::string ReadOn();

 private:
  bool ReadMore(int timeout);

  int socket_;
  std::string received_;
};

/// `mirado desk` on a store of its own and on a free port.
class Desk {
 public:
  Desk();

  int port() const { return port_; }

  /// One request of which nothing is wrong.
  Answer Ask(const std::string& method, const std::string& path, const desk::Json& body = nullptr) const {
    return Ask(port_, method, path, body);
  }
  static Answer Ask(int port, const std::string& method, const std::string& path, const desk::Json& body = nullptr);

  /// Ends it as Ctrl-C does; it must leave no process behind.
  void End();

 private:
  TemporaryFolder folder_;
  Program program_;
  int port_ = 0;
};

}  // namespace stress
