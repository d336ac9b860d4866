#pragma once

// A connection of the desk: reads one request after the other, each with its time, and writes the answers.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include "server/answer.h"
#include "server/event_log.h"
#include "server/origin.h"

namespace desk {

namespace http = boost::beast::http;

/// One kind of executor alone, which saves a virtual call for each step.
using Socket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

/// Reads from `stream` and drops what it reads; calls `on_end` at its end or after an error. `on_end` keeps the owner
/// of `stream` alive.
template <typename Stream, typename OnEnd>
void DiscardInput(Stream& stream, OnEnd on_end) {
  static std::array<char, 4096> ignored;
  stream.async_read_some(boost::asio::buffer(ignored),
                         [&stream, on_end = std::move(on_end)](boost::system::error_code error, std::size_t) mutable {
                           error ? on_end() : DiscardInput(stream, std::move(on_end));
                         });
}

class Connection;

/// One request, read to its end.
struct HttpRequest {
  http::verb method = http::verb::get;
  std::string path;                // as it came, without the query
  std::vector<std::string> parts;  // what the stars of the route stand for, decoded
  std::map<std::string, std::string, std::less<>> query;
  std::string content_type;
  std::string last_event_id;
  std::string body;
  ParsedJson json;       // the parsed body, for routes that take JSON
  bool own = false;      ///< a page of the desk itself asks
  bool upgrade = false;  ///< it asks for a WebSocket

  /// What the query says of `name`; empty when nothing.
  std::string_view Query(std::string_view name) const {
    const auto found = query.find(name);
    return found == query.end() ? std::string_view() : found->second;
  }
};

class Client;

/// Counts what is open towards clients, and closes what takes too long. The loop's thread alone.
class Clients {
 public:
  explicit Clients(boost::asio::io_context& loop) : clock_(loop) {}

  /// Whether one more may be open. When there are as many as may be, the connection that has waited longest for its
  /// request gives way.
  bool MakeRoom();
  void set_limit(std::size_t limit) { limit_ = limit; }

  /// Closes the connections that wait for a request, and looks after nobody any more.
  void CloseIdle();
  /// Closes all, in the middle of whatever they do.
  void CloseAll();

 private:
  friend Client;
  friend Connection;

  void Tick();

  std::size_t limit_ = 1;
  std::size_t unsent_ = 0;            // bytes of long answers
  std::list<Client*> open_;           // connections and streams
  std::list<Connection*> expecting_;  // a request, or its rest, or the end; the oldest first
  boost::asio::steady_timer clock_;
  bool ticking_ = false;
};

/// A connection, or the stream that came of one.
class Client {
 public:
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  virtual void Close() = 0;

 protected:
  using Clock = std::chrono::steady_clock;

  explicit Client(Clients& all);
  virtual ~Client();

  Clients& all_;
  Clock::time_point deadline_ = Clock::time_point::max();  ///< when it is closed
  /// The descriptor while nothing is read from it: whether the client has left is then looked at each second. -1 for
  /// none.
  int unread_ = -1;

 private:
  friend Clients;

  std::list<Client*>::iterator place_;
};

class Connection final : public Client, public std::enable_shared_from_this<Connection> {
 public:
  /// Whom a request is handed to. It is answered with one call of `Reply`, at once or later, or by taking the socket.
  using Handler = std::function<void(HttpRequest&, const std::shared_ptr<Connection>&)>;

  static constexpr std::size_t kMaxBody = 64UL * 1024;
  static constexpr std::chrono::seconds kRequestTime{3};  ///< from a request's first byte to its last
  static constexpr std::chrono::seconds kIdleTime{60};    ///< between two requests
  static constexpr std::chrono::seconds kAnswerTime{10};  ///< to take an answer

  /// `check` and `handler` outlive it.
  Connection(Socket socket, Clients& all, const OriginCheck& check, const Handler& handler);
  ~Connection() override;

  void Start() { AwaitRequest(); }

  /// Answers the request; nothing happens when the client has gone.
  void Reply(Answer answer);

  /// Calls `on_gone` when the client leaves before it is answered, and then only; within a second or two.
  void OnGone(std::function<void()> on_gone);

  /// The request as the library has it, for the answer to an upgrade.
  const http::request<http::string_body>& message() const { return parser_->get(); }

  /// The header lines that every answer to this request carries.
  const std::vector<std::pair<std::string_view, std::string>>& fields() const { return fields_; }

  /// Whether the head of the answer alone is wanted.
  bool head() const { return head_; }

  /// The socket belongs to a stream from now on; only the destructor may follow.
  Socket Take();
  Clients& all() { return all_; }

  void Close() override;

 private:
  void AwaitRequest();
  void Read();
  void OnRead(boost::beast::error_code error);
  void Handle();
  bool ReadTarget(HttpRequest& request, Claim& claim);
  void OnWritten(boost::beast::error_code error, std::size_t size);

  Socket socket_;
  const OriginCheck& check_;
  const Handler& handler_;
  std::list<Connection*>::iterator expecting_;
  boost::beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::optional<http::response<http::string_body>> response_;
  std::vector<std::pair<std::string_view, std::string>> fields_;
  std::function<void()> on_gone_;
  bool keep_alive_ = false;
  bool answered_ = true;
  bool head_ = false;
};

/// "%41" becomes "A"; nothing where an escape is none.
std::optional<std::string> Decode(std::string_view text);

}  // namespace desk
