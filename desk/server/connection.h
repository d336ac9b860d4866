#pragma once

// A connection of the desk: reads one request after the other, each with its time, and writes the answers.

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
  bool own = false;      ///< a page of the desk itself asks
  bool upgrade = false;  ///< it asks for a WebSocket

  /// What the query says of `name`; empty when nothing.
  std::string_view Query(std::string_view name) const {
    const auto found = query.find(name);
    return found == query.end() ? std::string_view() : found->second;
  }
};

/// Counts the connections and chooses which must go. The loop's thread alone.
class Connections {
 public:
  /// What one connection, or the stream that came of it, holds as long as it is open.
  class Seat {
   public:
    explicit Seat(Connections& all) : all_(&all) { ++all.open_; }
    Seat(Seat&& other) noexcept : all_(std::exchange(other.all_, nullptr)) {}
    Seat& operator=(Seat&&) = delete;
    Seat(const Seat&) = delete;
    ~Seat() {
      if (all_ != nullptr) {
        --all_->open_;
      }
    }

   private:
    Connections* all_;
  };

  explicit Connections(boost::asio::io_context& loop) : clock_(loop) {}

  /// Whether there is a seat; a connection that still waits for its request gives up its own, the oldest first.
  bool MakeRoom();
  /// Closes the oldest connection that still waits for its request.
  void GiveUpOne();

  void set_limit(std::size_t limit) { limit_ = limit; }

  /// Closes all, in the middle of whatever they do.
  void Close();

 private:
  friend Connection;

  void Watch(Connection* connection);
  void Tick();

  std::size_t limit_ = 1;
  std::size_t open_ = 0;
  std::size_t unsent_ = 0;            // bytes of long answers
  std::list<Connection*> expecting_;  // a request, or its rest, or the end; the oldest first
  std::list<Connection*> watched_;    // all that are no streams
  boost::asio::steady_timer clock_;
  bool ticking_ = false;
};

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  /// Whom a request is handed to. It is answered with one call of `Reply`, at once or later, or by taking the socket.
  using Handler = std::function<void(HttpRequest&, const std::shared_ptr<Connection>&)>;

  static constexpr std::size_t kMaxBody = 64UL * 1024;
  static constexpr std::chrono::seconds kRequestTime{3};  ///< from a request's first byte to its last
  static constexpr std::chrono::seconds kIdleTime{60};    ///< between two requests
  static constexpr std::chrono::seconds kAnswerTime{10};  ///< to take an answer

  /// `check` and `handler` outlive it.
  Connection(Socket socket, Connections& all, const OriginCheck& check, const Handler& handler);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Start() { AwaitRequest(); }

  /// Answers the request; nothing happens when the client has gone.
  void Reply(Answer answer);

  /// Calls `on_gone` when the client leaves before it is answered, and then only.
  void OnGone(std::function<void()> on_gone);

  /// The request as the library has it, for the answer to an upgrade.
  const http::request<http::string_body>& message() const { return parser_->get(); }

  /// The header lines that every answer to this request carries.
  const std::vector<std::pair<std::string_view, std::string>>& fields() const { return fields_; }

  /// The connection is a stream from now on; only the destructor may follow.
  std::pair<Socket, Connections::Seat> Take();

  void Close();

 private:
  friend Connections;
  using Clock = std::chrono::steady_clock;

  void AwaitRequest();
  void Read();
  void OnRead(boost::beast::error_code error);
  void Handle();
  void Refuse(unsigned status, const std::string& text);
  bool ReadTarget(HttpRequest& request, Claim& claim);
  void OnWritten(boost::beast::error_code error, std::size_t size);
  void Linger();

  Socket socket_;
  Connections& all_;
  Connections::Seat seat_;
  const OriginCheck& check_;
  const Handler& handler_;
  std::list<Connection*>::iterator expecting_;
  std::list<Connection*>::iterator watched_;
  Clock::time_point deadline_;
  boost::beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::optional<http::response<http::string_body>> response_;
  std::vector<std::pair<std::string_view, std::string>> fields_;
  std::function<void()> on_gone_;
  std::uint64_t requests_ = 0;
  bool keep_alive_ = false;
  bool answered_ = true;
  bool head_ = false;
};

/// "%41" becomes "A"; nothing where an escape is none.
std::optional<std::string> Decode(std::string_view text);

}  // namespace desk
