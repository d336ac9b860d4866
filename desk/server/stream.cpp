#include "server/stream.h"

#include <array>
#include <deque>
#include <set>
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

class Stream;

struct OpenStreams {
  std::set<Stream*> all;
  std::function<void()> on_none;
};

OpenStreams& Open() {
  static OpenStreams open;
  return open;
}

// What both kinds of stream share: their place in the log, and their end.
class Stream : public EventLog::Reader {
 public:
  Stream(Following following, Connections::Seat seat) : following_(std::move(following)), seat_(std::move(seat)) {
    following_.log->Attach(this);
    Open().all.insert(this);
  }
  virtual ~Stream() {
    following_.log->Detach(this);
    following_.on_close();
    Open().all.erase(this);
    if (Open().all.empty() && Open().on_none) {
      std::exchange(Open().on_none, nullptr)();
    }
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  virtual void Close() = 0;

  void OnEvents() final {
    if (ready_ && !writing_) {
      Write();
    }
  }

 protected:
  /// Writes what there is, or ends the stream when no more will come.
  virtual void Write() = 0;

  std::optional<EventLog::Event> Next() { return following_.log->Next(following_.position); }

  Following following_;
  Connections::Seat seat_;
  bool ready_ = false;  // its head is written
  bool writing_ = false;
  bool over_ = false;
};

class EventStream final : public Stream, public std::enable_shared_from_this<EventStream> {
 public:
  EventStream(Socket socket, Following following, Connections::Seat seat)
      : Stream(std::move(following), std::move(seat)), socket_(std::move(socket)) {}

  void Start(std::string head) {
    text_ = std::move(head) + kRetry;
    ready_ = true;
    Write();
    Listen();
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
        Error ignored;
        socket_.shutdown(Socket::shutdown_send, ignored);
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

  // A client of a stream has nothing to say; what can be read is its end.
  void Listen() {
    static std::array<char, 1024> ignored;
    socket_.async_read_some(boost::asio::buffer(ignored), [self = shared_from_this()](Error error, std::size_t) {
      error ? self->Close() : self->Listen();
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
  EventSocket(Socket socket, Following following, Connections::Seat seat)
      : Stream(std::move(following), std::move(seat)), socket_(std::move(socket)) {
    socket_.read_message_max(Connection::kMaxBody);
    socket_.write_buffer_bytes(kWriteBuffer);
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

 private:
  static constexpr std::size_t kWriteBuffer = 1024;
  static constexpr std::size_t kMaxAnswers = 64;  // that wait to be written

  void Write() override {
    if (over_) {
      return;
    }
    if (!answers_.empty()) {
      text_ = std::move(answers_.front());
      answers_.pop_front();
      if (std::exchange(holds_back_, false)) {
        Read();
      }
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
      const std::string text = boost::beast::buffers_to_string(self->buffer_.data());
      self->buffer_ = {};
      if (!self->following_.on_text) {
        return self->Read();
      }
      self->following_.on_text(text, [self](std::string answer) {
        if (!answer.empty()) {
          self->answers_.push_back(std::move(answer));
          self->OnEvents();
        }
        // A client that takes no answers is asked nothing more.
        self->holds_back_ = self->answers_.size() >= kMaxAnswers;
        if (!self->holds_back_) {
          self->Read();
        }
      });
    });
  }

  void Close() override {
    over_ = true;
    Error ignored;
    socket_.next_layer().close(ignored);
  }

  websocket::stream<Socket, false> socket_;  // without compression
  boost::beast::flat_buffer buffer_;
  std::deque<std::string> answers_;
  bool holds_back_ = false;  // reads on when it has written one
  std::string text_;         // is being written
};

}  // namespace

void StartStream(const std::shared_ptr<Connection>& connection, Following following) {
  auto [socket, seat] = connection->Take();
  if (boost::beast::websocket::is_upgrade(connection->message())) {
    std::make_shared<EventSocket>(std::move(socket), std::move(following), std::move(seat))
        ->Start(connection->message(), connection->fields());
    return;
  }
  std::string head = "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n";
  head += "Cache-Control: no-cache\r\nX-Content-Type-Options: nosniff\r\n";
  for (const auto& [name, value] : connection->fields()) {
    head.append(name).append(": ").append(value).append("\r\n");
  }
  std::make_shared<EventStream>(std::move(socket), std::move(following), std::move(seat))->Start(head + "\r\n");
}

void AwaitNoStreams(std::function<void()> on_none) {
  if (Open().all.empty()) {
    on_none();
  } else {
    Open().on_none = std::move(on_none);
  }
}

void CloseStreams() {
  for (Stream* const stream : Open().all) {
    stream->Close();
  }
}

}  // namespace desk
