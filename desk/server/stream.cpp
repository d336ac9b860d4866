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

// How much is written at once to a reader that is far behind.
constexpr std::size_t kBatchBytes = 64UL * 1024;

// Makes a browser reconnect after 500 ms, within the shortest grace of a page; by default it may wait 5 s.
constexpr char kRetry[] = "retry: 500\n\n";

// How long a client may take to read the rest of a closed log, and to close its side of a WebSocket.
constexpr std::chrono::seconds kCloseTime{10};

// What both kinds of stream share: their position in the log, and the limit on their closing.
class Stream : public Client, public EventLog::Reader {
 public:
  Stream(StreamSource source, Clients& all) : Client(all), source_(std::move(source)) { source_.log->Attach(this); }
  ~Stream() override { source_.log->Detach(this); }

  void OnEvents() override {
    if (source_.log->closed()) {
      deadline_ = Clock::now() + kCloseTime;
    }
    if (!writing_) {
      Write();
    }
  }

 protected:
  /// Writes the next events, or ends the stream if the log is closed.
  virtual void Write() = 0;

  std::optional<EventLog::Event> Next() { return source_.log->Next(source_.position); }

  StreamSource source_;
  bool writing_ = true;  // also while the stream is being set up
};

class EventStream final : public Stream, public std::enable_shared_from_this<EventStream> {
 public:
  EventStream(Socket socket, StreamSource source, Clients& all)
      : Stream(std::move(source), all), socket_(std::move(socket)) {}

  void Start(std::string head) {
    text_ = std::move(head) + kRetry;
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
      text_.append("id: ").append(std::to_string(source_.position)).append("\nevent: ").append(event->name);
      text_.append("\ndata: ").append(*event->data).append("\n\n");
    }
    if (text_.empty()) {
      if (source_.log->closed()) {
        Close();  // the kernel still sends what was written
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
    unlink();
    Error ignored;
    socket_.close(ignored);
  }

  Socket socket_;
  std::string text_;  // is being written
};

class EventSocket final : public Stream, public std::enable_shared_from_this<EventSocket> {
 public:
  EventSocket(Socket socket, StreamSource source, Clients& all)
      : Stream(std::move(source), all), socket_(std::move(socket)) {
    socket_.read_message_max(Connection::kMaxBody);
    socket_.auto_fragment(false);
    socket_.text(true);
  }

  void Start(const http::request<http::string_body>& request, const std::vector<HeaderField>& fields) {
    socket_.set_option(websocket::stream_base::decorator([fields](websocket::response_type& response) {
      for (const auto& [name, value] : fields) {
        response.set(boost::beast::string_view(name.data(), name.size()), value);
      }
    }));
    socket_.async_accept(request, [self = shared_from_this()](Error error) {
      if (!error) {
        self->writing_ = false;
        self->Write();
        self->Read();
      }
    });
  }

  void OnEvents() override {
    if (self_while_waiting_) {
      HandleReceived();
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
      text_.append(R"({"id":)").append(std::to_string(source_.position)).append(R"(,"event":")").append(event->name);
      text_.append(R"(","data":)").append(*event->data).append("}");
    } else {
      if (source_.log->closed()) {
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
      self->received_ = boost::beast::buffers_to_string(self->buffer_.data());
      self->buffer_ = {};
      self->source_.on_text ? self->HandleReceived() : self->Read();
    });
  }

  // Nothing more is read until the received text was handled.
  void HandleReceived() {
    const auto self = shared_from_this();
    auto answer = source_.on_text(received_);
    if (!answer) {
      self_while_waiting_ = self;
      polled_fd_ = socket_.next_layer().native_handle();
      return;
    }
    self_while_waiting_ = nullptr;
    polled_fd_ = -1;
    if (answer->empty()) {
      return Read();
    }
    // Read after it was written: a client that does not read its answers is not read from either.
    answer_ = *std::move(answer);
    Stream::OnEvents();
  }

  void Close() override {
    unlink();
    over_ = true;
    Error ignored;
    socket_.next_layer().close(ignored);
    const auto last = std::exchange(self_while_waiting_, nullptr);
  }

  websocket::stream<Socket, false> socket_;  // false: no compression
  boost::beast::flat_buffer buffer_;
  std::string received_;                             // by the client, not taken yet
  std::shared_ptr<EventSocket> self_while_waiting_;  // this one, while what was said waits: no operation holds it then
  std::string answer_;                               // to what was said, written next
  std::string text_;                                 // is being written
  bool over_ = false;
};

}  // namespace

void StartStream(const std::shared_ptr<Connection>& connection, StreamSource source) {
  constexpr std::string_view kType = "text/event-stream";
  if (connection->head()) {
    return connection->Reply({.body = {}, .type = kType});
  }
  if (boost::beast::websocket::is_upgrade(connection->message())) {
    std::make_shared<EventSocket>(connection->Take(), std::move(source), connection->all())
        ->Start(connection->message(), connection->fields());
    return;
  }
  std::string head = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: ";
  head.append(kType).append("\r\n");
  for (const auto& [name, value] : connection->fields()) {
    head.append(name).append(": ").append(value).append("\r\n");
  }
  std::make_shared<EventStream>(connection->Take(), std::move(source), connection->all())->Start(head + "\r\n");
}

}  // namespace desk
