#include "desk.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>

#include <algorithm>

namespace stress {
namespace {

constexpr int kLongTime = 20'000;  // milliseconds

std::string Lower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return text;
}

/// The answer's head; nothing while it is incomplete.
std::optional<Answer> ReadHead(const std::string& received) {
  const auto end = received.find("\r\n\r\n");
  if (!received.starts_with("HTTP/1.1 ") || end == std::string::npos) return std::nullopt;
  Answer answer;
  answer.status = std::atoi(received.c_str() + 9);
  for (auto line = received.find("\r\n") + 2; line < end; line = received.find("\r\n", line) + 2) {
    const auto colon = received.find(": ", line);
    answer.headers[Lower(received.substr(line, colon - line))] =
        received.substr(colon + 2, received.find("\r\n", line) - colon - 2);
  }
  answer.body = received.substr(end + 4);
  return answer;
}

}  // namespace

bool Answer::is_json() const {
  const auto type = headers.find("content-type");
  return type != headers.end() && type->second.starts_with("application/json") && desk::Json::accept(body);
}

desk::Json Answer::json() const {
  auto parsed = desk::Json::parse(body, nullptr, false);
  return parsed.is_object() ? parsed : desk::Json::object();
}

Connection::Connection(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

void Connection::Send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t count = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return;  // refused before its end, which is the server's right
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

bool Connection::Hears(std::chrono::milliseconds time) const {
  pollfd polled{socket_, POLLIN, 0};
  return TEMP_FAILURE_RETRY(poll(&polled, 1, static_cast<int>(time.count()))) > 0;
}

bool Connection::ReadMore(int timeout) {
  pollfd polled{socket_, POLLIN, 0};
  std::array<char, 65536> chunk;
  const ssize_t count =
      TEMP_FAILURE_RETRY(poll(&polled, 1, timeout)) > 0 ? read(socket_, chunk.data(), chunk.size()) : -2;
  if (count > 0) received_.append(chunk.data(), static_cast<std::size_t>(count));
  if (count == -2) received_ = "timeout";
  return count > 0;
}

std::optional<Answer> Connection::Receive() {
  std::optional<Answer> answer;
  while (ReadMore(kLongTime)) {
    answer = ReadHead(received_);
    if (!answer) continue;
    const auto type = answer->headers.find("content-type");
    const auto length = answer->headers.find("content-length");
    if (type != answer->headers.end() && type->second.starts_with("text/event-stream")) break;
    if (length != answer->headers.end() && answer->body.size() >= std::stoul(length->second)) break;
  }
  if (received_ == "timeout") return std::nullopt;
  return answer ? answer : Answer{};
}

std::string Connection::ReadOn() {
  received_.clear();
  ReadMore(-1);
  return received_;
}

Desk::Desk() : program_({"desk", "--port", "0", "--store", folder_ / "store"}, folder_ / "log") {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // what it might leave behind becomes ours
  const std::string line = program_.Hear();
  EXPECT_NE(line.find("http://localhost:"), std::string::npos) << line << Contents(folder_ / "log");
  port_ = std::atoi(line.c_str() + line.rfind(':') + 1);
}

Answer Desk::Ask(int port, const std::string& method, const std::string& path, const desk::Json& body) {
  const std::string text = body.is_null() ? "" : body.dump();
  Connection connection(port);
  connection.Send(method + " " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" +
                  (body.is_null() ? "" : "Content-Type: application/json\r\n") +
                  "Content-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text);
  return connection.Receive().value_or(Answer{});
}

void Desk::End() {
  program_.Signal(SIGINT);
  EXPECT_EQ(program_.Wait(), 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process of the desk is left";
}

}  // namespace stress
