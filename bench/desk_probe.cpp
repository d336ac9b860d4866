// For bench/desk.mjs: a minimal server with the desk's HTTP library and a fixed answer, and a client that measures
// requests over one connection.
//
//   mirado_desk_probe serve              prints its port and serves until it is killed
//   mirado_desk_probe ask PORT PATH BODY COUNT    prints the median and the 99th percentile in microseconds
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

namespace {

namespace http = boost::beast::http;
using boost::asio::ip::tcp;

/// A connection of the minimal server: answers each request with the same reply. Its pending handlers keep it alive.
struct BareConnection : std::enable_shared_from_this<BareConnection> {
  explicit BareConnection(tcp::socket given) : socket(std::move(given)) {}

  void Read() {
    request = {};
    http::async_read(socket, buffer, request, [self = shared_from_this()](auto error, std::size_t) {
      if (!error) {
        self->Write();
      }
    });
  }

  void Write() {
    response = {http::status::ok, request.version()};
    response.set(http::field::content_type, "application/json");
    response.set(http::field::access_control_allow_origin, "*");
    response.set(http::field::access_control_allow_headers, "Content-Type");
    response.set(http::field::access_control_max_age, "600");
    response.body() = R"({"reply":{"code":0,"value":0,"errorName":"","errorMessage":""}})";
    response.keep_alive(request.keep_alive());
    response.prepare_payload();
    http::async_write(socket, response, [self = shared_from_this()](auto error, std::size_t) {
      if (!error && self->response.keep_alive()) {
        self->Read();
      }
    });
  }

  tcp::socket socket;
  boost::beast::flat_buffer buffer;
  http::request<http::string_body> request;
  http::response<http::string_body> response;
};

void Accept(tcp::acceptor& acceptor) {
  acceptor.async_accept([&acceptor](auto error, tcp::socket socket) {
    if (!error) {
      socket.set_option(tcp::no_delay(true));
      std::make_shared<BareConnection>(std::move(socket))->Read();
    }
    Accept(acceptor);
  });
}

int Serve() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  boost::asio::io_context loop(1);
  tcp::acceptor acceptor(loop, {boost::asio::ip::address_v4::loopback(), 0});
  std::printf("%d\n", acceptor.local_endpoint().port());
  std::fflush(stdout);
  Accept(acceptor);
  loop.run();
  return 0;
}

// The headers that a browser sends with a page's request.
std::string Request(int port, const char* path, std::string_view body) {
  return std::string("POST ") + path + " HTTP/1.1\r\nHost: localhost:" + std::to_string(port) +
         "\r\nConnection: keep-alive\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nsec-ch-ua: \"Chromium\";v=\"120\"\r\nContent-Type: application/json\r\nUser-Agent: Mozilla/5.0 (X11; "
         "Linux "
         "x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36\r\nAccept: */*\r\n"
         "Origin: http://localhost:3000\r\nSec-Fetch-Site: same-site\r\nSec-Fetch-Mode: cors\r\nSec-Fetch-Dest: "
         "empty\r\n"
         "Referer: http://localhost:3000/\r\nAccept-Encoding: gzip, deflate, br\r\nAccept-Language: en\r\n\r\n" +
         std::string(body);
}

/// Sends `count` requests, one after the other over one connection, and prints the times.
int Ask(int port, const char* path, const char* body, int count) {
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int on = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return 1;
  }
  const std::string request = Request(port, path, body);
  std::vector<double> times;
  std::array<char, 65536> chunk{};
  for (int asked = 0; asked < count; ++asked) {
    const auto begin = std::chrono::steady_clock::now();
    if (send(client, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
      return 1;
    }
    std::string answer;
    std::size_t wanted = std::string::npos;
    while (answer.size() < wanted) {
      const ssize_t size = read(client, chunk.data(), chunk.size());
      if (size <= 0) {
        return 1;
      }
      answer.append(chunk.data(), static_cast<std::size_t>(size));
      const std::size_t head = answer.find("\r\n\r\n");
      const std::size_t length = answer.find("Content-Length: ");
      wanted = head == std::string::npos ? wanted : head + 4 + std::strtoul(answer.c_str() + length + 16, nullptr, 10);
    }
    if (!answer.starts_with("HTTP/1.1 200") || answer.find("\"code\":0") == std::string::npos) {
      std::fprintf(stderr, "%s\n", answer.c_str());
      return 1;
    }
    times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
  }
  std::ranges::sort(times);
  std::printf("%.1f %.1f\n", times[times.size() / 2], times[times.size() * 99 / 100]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "serve") {
    return Serve();
  }
  if (mode == "ask" && argc == 6) {
    return Ask(std::atoi(argv[2]), argv[3], argv[4], std::atoi(argv[5]));
  }
  std::fputs("usage: mirado_desk_probe serve | ask PORT PATH BODY COUNT\n", stderr);
  return 2;
}
