#pragma once

// Connections: reading requests, writing answers, and the limits on their number and time.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
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
#include <boost/intrusive/list.hpp>

#include "server/answer.h"
#include "server/event_log.h"
#include "server/origin.h"

namespace desk {

namespace http = boost::beast::http;

/// With a concrete executor, which saves virtual calls.
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

class Clients;
class Connection;

/// A request that was read completely.
struct HttpRequest {
  http::verb method = http::verb::get;
  std::string path;                // as received, without the query
  std::vector<std::string> parts;  // the parts that match the stars of the route, decoded
  std::map<std::string, std::string, std::less<>> query;
  std::string content_type;
  std::string last_event_id;
  std::string body;
  ParsedJson json;              // the parsed body, for routes that take JSON
  bool from_desk_page = false;  ///< sent by the desk's own page

  /// The value of `name` in the query; empty if missing.
  std::string_view Query(std::string_view name) const {
    const auto found = query.find(name);
    return found == query.end() ? std::string_view() : found->second;
  }
};

/// A connection, or a stream that has taken over the socket of one.
class Client : public boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
 public:
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Closes the socket and removes this from `Clients`.
  virtual void Close() = 0;

 protected:
  using Clock = std::chrono::steady_clock;

  explicit Client(Clients& all);
  virtual ~Client() = default;

  Clients& all_;
  Clock::time_point deadline_ = Clock::time_point::max();  ///< when it is closed at the latest
  /// Since when it has waited for a request, its rest, or the client's closing; may be closed then if there are too
  /// many.
  Clock::time_point idle_since_ = Clock::time_point::max();
  /// The socket while nothing is read from it, otherwise -1. It is checked each second for whether the client has
  /// disconnected.
  int polled_fd_ = -1;

 private:
  friend Clients;
};

/// All connections and streams: their number, and once a second which of them to close. To be used on the loop's thread
/// only.
class Clients {
 public:
  explicit Clients(boost::asio::io_context& loop) : clock_(loop) {}

  /// Whether one more connection may be opened. If `limit` are open, the one that has waited longest for its client is
  /// closed; false if none waits.
  bool MakeRoom(std::size_t limit);

  /// Closes the connections that wait for their clients, and each other one after its answer; stops the timer.
  void CloseIdle();
  /// Closes all connections and streams.
  void CloseAll();

 private:
  friend Client;
  friend Connection;

  void CheckAll();

  std::size_t unsent_ = 0;  // bytes of long answers being written
  boost::intrusive::list<Client, boost::intrusive::constant_time_size<false>> open_;
  boost::asio::steady_timer clock_;
  bool ticking_ = false;
  bool closing_ = false;  // no connection waits for another request
};

class Connection final : public Client, public std::enable_shared_from_this<Connection> {
 public:
  /// Handles a request: with one call of `Reply`, now or later, or by taking the socket.
  using Handler = std::function<void(HttpRequest&, const std::shared_ptr<Connection>&)>;

  static constexpr std::size_t kMaxBody = 64UL * 1024;
  static constexpr std::chrono::seconds kRequestTime{10};  ///< from the first to the last byte of a request
  static constexpr std::chrono::seconds kIdleTime{60};     ///< between requests
  static constexpr std::chrono::seconds kAnswerTime{10};   ///< for the client to read an answer

  /// `check` and `handler` must outlive the connection.
  Connection(Socket socket, Clients& all, const OriginCheck& check, const Handler& handler);

  void Start() { AwaitRequest(); }

  /// Answers the request. Does nothing if the client has disconnected.
  void Reply(Answer answer);

  /// Whether the client waits for the answer. False once it has disconnected, which is noticed within two seconds.
  bool is_waiting() const { return !answered_; }

  /// The request as parsed by Beast, for the answer to an upgrade.
  const http::request<http::string_body>& message() const { return parser_->get(); }

  /// The header fields that every answer to this request has.
  const std::vector<HeaderField>& fields() const { return fields_; }

  /// Whether the request is a HEAD.
  bool head() const { return head_; }

  /// Transfers the socket to a stream. Afterwards the connection may only be destroyed.
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
  boost::beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::optional<http::response<http::string_body>> response_;
  std::vector<HeaderField> fields_;
  bool keep_alive_ = false;
  bool answered_ = true;
  bool head_ = false;
};

/// Decodes %41 to A; empty if a % is not followed by two hexadecimal digits.
std::optional<std::string> Decode(std::string_view text);

}  // namespace desk
