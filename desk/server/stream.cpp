#include "server/stream.h"

#include <chrono>
#include <string>
#include <utility>

#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/websocket/stream.hpp>

namespace desk {
namespace {

namespace websocket = boost::beast::websocket;
using Error = boost::beast::error_code;

// One batch is written in one go; a reader that is far behind gets several.
constexpr std::size_t kBatchBytes = 64UL * 1024;

// How soon a browser that lost a stream comes back, in milliseconds: well within the shortest grace of a page. Left to
// itself it may take five seconds.
constexpr char kRetry[] = "retry: 500\n\n";

// How long a client may take to read the rest when its log is closed, and to close its side of a WebSocket.
constexpr std::chrono::seconds kCloseTime{10};

// What both kinds of stream share: their place in the log, and their end.
class Stream : public Client, public EventLog::Reader {
 public:
  Stream(Following following, Clients& all) : Client(all), following_(std::move(following)) {
    following_.log->Attach(this);
  }
  ~Stream() override { following_.log->Detach(this); }

  void OnEvents() override {
    if (following_.log->closed()) {
      deadline_ = Clock::now() + kCloseTime;
    }
    if (ready_ && !writing_) {
      Write();
    }
  }

 protected:
  /// Writes what there is, or ends the stream when no more will come.
  virtual void Write() = 0;

  std::optional<EventLog::Event> Next() { return following_.log->Next(following_.position); }

  Following following_;
  bool ready_ = false;  // its head is written
  bool writing_ = false;
};

class EventStream final : public Stream, public std::enable_shared_from_this<EventStream> {
 public:
  EventStream(Socket socket, Following following, Clients& all)
      : Stream(std::move(following), all), socket_(std::move(socket)) {}

  void Start(std::string head) {
    text_ = std::move(head) + kRetry;
    ready_ = true;
    Write();
    DiscardInput(socket_, [self = shared_from_this()] { self->Close(); });
  }

 private:
  void Write() override {
    while (text_.size() < kBatchBytes) {
      const auto event = Next();
      if (!event) {
        break;
      }
      text_.append("id: ").append(std::to_string(following_.position)).append("\nevent: ").append(event->name);
      text_.append("\ndata: ").append(*event->data).append("\n\n");
    }
    if (text_.empty()) {
      if (following_.log->closed()) {
        Close();  // the system sends what is written
      }
      return;
    }
    writing_ = true;
    boost::asio::async_write(socket_, boost::asio::buffer(text_),
                             [self = shared_from_this()](Error error, std::size_t) {
                               self->writing_ = false;
                               self->text_ = std::string();
                               error ? self->Close() : self->Write();
                             });
  }

  void Close() override {
    Error ignored;
    socket_.close(ignored);
  }

  Socket socket_;
  std::string text_;  // is being written
};

class EventSocket final : public Stream, public std::enable_shared_from_this<EventSocket> {
 public:
  EventSocket(Socket socket, Following following, Clients& all)
      : Stream(std::move(following), all), socket_(std::move(socket)) {
    socket_.read_message_max(Connection::kMaxBody);
    socket_.auto_fragment(false);
    socket_.text(true);
  }

  void Start(const http::request<http::string_body>& request,
             const std::vector<std::pair<std::string_view, std::string>>& fields) {
    socket_.set_option(websocket::stream_base::decorator([fields](websocket::response_type& response) {
      for (const auto& [name, value] : fields) {
        response.set(boost::beast::string_view(name.data(), name.size()), value);
      }
    }));
    socket_.async_accept(request, [self = shared_from_this()](Error error) {
      if (!error) {
        self->ready_ = true;
        self->Write();
        self->Read();
      }
    });
  }

  void OnEvents() override {
    if (held_) {
      Offer();
    }
    Stream::OnEvents();
  }

 private:
  void Write() override {
    if (over_) {
      return;
    }
    if (!answer_.empty()) {
      text_ = std::exchange(answer_, {});
      Read();
    } else if (const auto event = Next()) {
      text_.append(R"({"id":)").append(std::to_string(following_.position)).append(R"(,"event":")").append(event->name);
      text_.append(R"(","data":)").append(*event->data).append("}");
    } else {
      if (following_.log->closed()) {
        over_ = true;
        socket_.async_close(websocket::close_code::going_away, [self = shared_from_this()](Error) {});
      }
      return;
    }
    writing_ = true;
    socket_.async_write(boost::asio::buffer(text_), [self = shared_from_this()](Error error, std::size_t) {
      self->writing_ = false;
      self->text_ = std::string();
      if (!error) {
        self->Write();
      }
    });
  }

  void Read() {
    socket_.async_read(buffer_, [self = shared_from_this()](Error error, std::size_t) {
      if (error) {
        return self->Close();
      }
      self->said_ = boost::beast::buffers_to_string(self->buffer_.data());
      self->buffer_ = {};
      self->following_.on_text ? self->Offer() : self->Read();
    });
  }

  // Hands on what was said; nothing more is read until it was taken.
  void Offer() {
    const auto self = shared_from_this();
    auto answer = following_.on_text(said_);
    if (!answer) {
      held_ = self;
      unread_ = socket_.next_layer().native_handle();
      return;
    }
    held_ = nullptr;
    unread_ = -1;
    if (answer->empty()) {
      return Read();
    }
    // Nothing more is read until it is being written, so a client that reads no answers is not read from either.
    answer_ = *std::move(answer);
    Stream::OnEvents();
  }

  void Close() override {
    over_ = true;
    Error ignored;
    socket_.next_layer().close(ignored);
    unread_ = -1;
    const auto last = std::exchange(held_, nullptr);
  }

  websocket::stream<Socket, false> socket_;  // without compression
  boost::beast::flat_buffer buffer_;
  std::string said_;                   // by the client, not taken yet
  std::shared_ptr<EventSocket> held_;  // this one, while what was said waits: no operation holds it then
  std::string answer_;                 // to what was said, written next
  std::string text_;                   // is being written
  bool over_ = false;
};

}  // namespace

void StartStream(const std::shared_ptr<Connection>& connection, Following following) {
  constexpr std::string_view kType = "text/event-stream";
  if (connection->head()) {
    return connection->Reply({.body = {}, .type = kType});
  }
  if (boost::beast::websocket::is_upgrade(connection->message())) {
    std::make_shared<EventSocket>(connection->Take(), std::move(following), connection->all())
        ->Start(connection->message(), connection->fields());
    return;
  }
  std::string head = "HTTP/1.1 200 OK\r\nConnection: close\r\nCache-Control: no-cache\r\n";
  head.append("X-Content-Type-Options: nosniff\r\nContent-Type: ").append(kType).append("\r\n");
  for (const auto& [name, value] : connection->fields()) {
    head.append(name).append(": ").append(value).append("\r\n");
  }
  std::make_shared<EventStream>(connection->Take(), std::move(following), connection->all())->Start(head + "\r\n");
}

}  // namespace desk
