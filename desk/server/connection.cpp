#include "server/connection.h"

#include <poll.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

namespace desk {
namespace {

using Error = boost::beast::error_code;

constexpr std::size_t kMaxHead = 16UL * 1024;
constexpr std::size_t kUsualRequest = 4UL * 1024;
constexpr std::size_t kLongAnswer = 256UL * 1024;
constexpr std::size_t kMaxUnsent = 64UL * 1024 * 1024;  // of long answers to all clients

std::string_view View(boost::beast::string_view text) { return {text.data(), text.size()}; }

}  // namespace

std::optional<std::string> Decode(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  while (!text.empty()) {
    if (text.front() != '%') {
      decoded += text.front();
      text.remove_prefix(1);
      continue;
    }
    unsigned value = 0;
    constexpr int kHex = 16;
    if (text.size() < 3 || std::from_chars(text.data() + 1, text.data() + 3, value, kHex).ptr != text.data() + 3) {
      return std::nullopt;
    }
    decoded += static_cast<char>(value);
    text.remove_prefix(3);
  }
  return decoded;
}

bool Clients::MakeRoom(std::size_t limit) {
  if (open_.size() < limit) {
    return true;
  }
  const auto idlest = std::ranges::min_element(open_, {}, &Client::idle_since_);
  if (idlest->idle_since_ == Client::Clock::time_point::max()) {
    return false;
  }
  idlest->Close();
  return true;
}

void Clients::CheckAll() {
  clock_.expires_after(std::chrono::seconds(1));
  clock_.async_wait([this](Error error) {
    if (error || open_.empty()) {
      ticking_ = false;
      return;
    }
    const auto now = Client::Clock::now();
    for (auto place = open_.begin(); place != open_.end();) {
      Client& client = *place++;  // `Close` removes it
      pollfd look{client.polled_fd_, POLLRDHUP, 0};
      if (now > client.deadline_ || (client.polled_fd_ >= 0 && poll(&look, 1, 0) > 0)) {
        client.Close();
      }
    }
    CheckAll();
  });
}

void Clients::CloseIdle() {
  closing_ = true;
  for (auto place = open_.begin(); place != open_.end();) {
    Client& client = *place++;  // `Close` removes it
    if (client.idle_since_ < Client::Clock::time_point::max()) {
      client.Close();
    }
  }
  clock_.cancel();
}

void Clients::CloseAll() {
  while (!open_.empty()) {
    open_.front().Close();
  }
}

Client::Client(Clients& all) : all_(all) {
  all.open_.push_back(*this);
  if (!std::exchange(all.ticking_, true)) {
    all.CheckAll();
  }
}

Connection::Connection(Socket socket, Clients& all, const OriginCheck& check, const Handler& handler)
    : Client(all), socket_(std::move(socket)), check_(check), handler_(handler) {}

// Without a buffer or a parser, so that an idle connection needs little memory.
void Connection::AwaitRequest() {
  idle_since_ = Clock::now();
  deadline_ = idle_since_ + kIdleTime;
  if (buffer_.size() > 0) {
    return Read();
  }
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](Error error) {
    if (!error && self->socket_.is_open()) {
      self->Read();
    }
  });
}

void Connection::Read() {
  deadline_ = Clock::now() + kRequestTime;
  parser_.emplace();
  parser_->header_limit(kMaxHead);
  parser_->body_limit(kMaxBody);
  buffer_.reserve(kUsualRequest);  // otherwise Beast reads only 512 bytes at first
  http::async_read(socket_, buffer_, *parser_,
                   [self = shared_from_this()](Error error, std::size_t) { self->OnRead(error); });
}

void Connection::OnRead(Error error) {
  if (!socket_.is_open() || error == http::error::end_of_stream || error == boost::asio::error::connection_reset) {
    return Close();
  }
  idle_since_ = deadline_ = Clock::time_point::max();
  keep_alive_ = !error && parser_->get().keep_alive();
  answered_ = false;
  head_ = false;
  fields_ = {{"X-Content-Type-Options", "nosniff"}, {"Cache-Control", "no-cache"}};
  if (error == http::error::body_limit) {
    return Reply(Fail(413, "a body may have " + std::to_string(kMaxBody) + " bytes at most"));
  }
  if (error == http::error::header_limit || error == http::error::buffer_overflow) {
    return Reply(Fail(431, "the head of a request may have " + std::to_string(kMaxHead) + " bytes at most"));
  }
  if (error) {
    return Reply(Fail(400, "the request is not valid HTTP: " + error.message()));
  }
  Handle();
}

bool Connection::ReadTarget(HttpRequest& request, Claim& claim) {
  std::string_view target = View(message().target());
  const std::size_t question = std::min(target.find('?'), target.size());
  request.path = target.substr(0, question);
  target.remove_prefix(std::min(question + 1, target.size()));
  while (!target.empty()) {
    const std::string_view part = target.substr(0, target.find('&'));
    target.remove_prefix(std::min(part.size() + 1, target.size()));
    const std::size_t equals = std::min(part.find('='), part.size());
    auto name = Decode(part.substr(0, equals));
    auto value = Decode(part.substr(std::min(equals + 1, part.size())));
    if (!name || !value) {
      return false;
    }
    request.query.insert_or_assign(std::move(*name), std::move(*value));
  }
  claim.token = request.Query("token");
  claim.is_api = request.path.starts_with("/api/");
  return request.path.starts_with('/');
}

void Connection::Handle() {
  const auto& read = message();
  HttpRequest request;
  Claim claim;
  if (!ReadTarget(request, claim)) {
    return Reply(Fail(400, "the request's path or query is not valid"));
  }
  constexpr std::string_view kBearer = "Bearer ";
  claim.host = View(read[http::field::host]);
  claim.origin = View(read[http::field::origin]);
  claim.site = View(read["Sec-Fetch-Site"]);
  if (const std::string_view authorization = View(read[http::field::authorization]);
      authorization.starts_with(kBearer)) {
    claim.token = authorization.substr(kBearer.size());
  }
  if (read.count(http::field::host) != 1 || read.count(http::field::origin) > 1) {
    return Reply(Fail(400, "a request must have one Host and at most one Origin"));
  }
  if (const auto refusal = check_.Refuse(claim)) {
    return Reply(Fail({vconf::Code::kNotPermitted, *refusal}));
  }
  fields_.emplace_back("Vary", "Origin");
  if (!claim.origin.empty()) {
    fields_.emplace_back("Access-Control-Allow-Origin", claim.origin);
  }
  if (read.method() == http::verb::options) {
    fields_.insert(fields_.end(), {{"Access-Control-Allow-Methods", "GET, POST, PUT, PATCH, DELETE"},
                                   {"Access-Control-Allow-Headers", "Authorization, Content-Type, Last-Event-ID"},
                                   {"Access-Control-Max-Age", "600"}});
    if (read.count("Access-Control-Request-Private-Network") > 0) {
      fields_.emplace_back("Access-Control-Allow-Private-Network", "true");
    }
    return Reply({.status = 204, .body = {}});
  }
  if (read.count(http::field::content_encoding) > 0) {
    return Reply(Fail(415, "the body must not be encoded"));
  }
  head_ = read.method() == http::verb::head;
  request.method = head_ ? http::verb::get : read.method();
  request.from_desk_page = OriginCheck::IsDeskPage(claim);
  request.content_type = View(read[http::field::content_type]);
  request.last_event_id = View(read["Last-Event-ID"]);
  request.body = std::move(parser_->get().body());
  polled_fd_ = socket_.native_handle();  // until it is answered; the next request may already be there
  handler_(request, shared_from_this());
}

void Connection::Reply(Answer answer) {
  if (answered_ || !socket_.is_open()) {
    return;
  }
  answered_ = true;
  polled_fd_ = -1;
  if (answer.body.size() > kLongAnswer && all_.unsent_ + answer.body.size() > kMaxUnsent) {
    answer = Busy("too many long answers are still being read by other clients; try again");
  }
  const std::size_t size = answer.body.size();
  if (size > kLongAnswer) {
    all_.unsent_ += size;
  }
  constexpr unsigned kHttp11 = 11;
  response_.emplace(static_cast<http::status>(answer.status), kHttp11);
  std::ranges::move(answer.fields, std::back_inserter(fields_));
  for (const auto& [name, value] : fields_) {
    response_->set(boost::beast::string_view(name.data(), name.size()), value);
  }
  if (answer.status != 204) {
    response_->set(http::field::content_type, boost::beast::string_view(answer.type.data(), answer.type.size()));
    response_->content_length(size);
  }
  if (!head_) {
    response_->body() = std::move(answer.body);
  }
  response_->keep_alive(keep_alive_ && !all_.closing_);
  parser_.reset();
  buffer_.shrink_to_fit();
  deadline_ = Clock::now() + kAnswerTime;
  http::async_write(socket_, *response_,
                    [self = shared_from_this(), size](Error error, std::size_t) { self->OnWritten(error, size); });
}

void Connection::OnWritten(Error error, std::size_t size) {
  if (size > kLongAnswer) {
    all_.unsent_ -= size;
  }
  response_.reset();
  if (error || !socket_.is_open() || all_.closing_) {
    Close();
  } else if (keep_alive_) {
    AwaitRequest();
  } else {
    socket_.shutdown(Socket::shutdown_send, error);
    idle_since_ = Clock::now();
    deadline_ = idle_since_ + kRequestTime;
    // The rest of the request is read, too: a client that is still sending would lose the answer.
    DiscardInput(socket_, [self = shared_from_this()] { self->Close(); });
  }
}

Socket Connection::Take() {
  answered_ = true;
  unlink();  // the stream takes its place
  return std::move(socket_);
}

void Connection::Close() {
  unlink();
  answered_ = true;
  Error ignored;
  socket_.close(ignored);
}

}  // namespace desk
