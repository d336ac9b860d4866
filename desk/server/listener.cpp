#include "server/listener.h"

#include <netinet/tcp.h>

#include <chrono>
#include <string_view>
#include <utility>

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/steady_timer.hpp>

namespace desk {
namespace {

using boost::asio::ip::tcp;
using Address = boost::asio::ip::address;
using Error = boost::system::error_code;

template <int kName>
using TcpOption = boost::asio::detail::socket_option::integer<IPPROTO_TCP, kName>;

// An idle connection to a client whose machine no longer responds ends after a minute.
constexpr int kProbeAfter = 30;     // seconds without data
constexpr int kProbeInterval = 10;  // seconds
constexpr int kProbes = 3;

vconf::Status CannotListen(const Address& address, int port, const Error& error) {
  const char* const advice =
      error == boost::asio::error::address_in_use ? "; is another desk running? use --port to choose another port"
      : error == boost::system::errc::address_not_available ? "; --listen needs an address of this machine"
                                                            : "";
  return {vconf::Code::kFailed, InBrackets(address) + ":" + std::to_string(port) + ": " + error.message() + advice};
}

}  // namespace

std::string InBrackets(const Address& address) {
  return address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
}

Error Listener::ListenOn(const Address& address, int port) {
  auto acceptor = std::make_unique<Acceptor>(loop_);
  const tcp::endpoint endpoint(address, static_cast<unsigned short>(port));
  try {
    acceptor->open(endpoint.protocol());
    if (address.is_v6()) {
      acceptor->set_option(boost::asio::ip::v6_only(true));
    }
    // Without it a port stays taken for a minute after the desk has ended.
    acceptor->set_option(Acceptor::reuse_address(true));
    // Accepted connections inherit these five options.
    acceptor->set_option(tcp::no_delay(true));
    acceptor->set_option(boost::asio::socket_base::keep_alive(true));
    acceptor->set_option(TcpOption<TCP_KEEPIDLE>(kProbeAfter));
    acceptor->set_option(TcpOption<TCP_KEEPINTVL>(kProbeInterval));
    acceptor->set_option(TcpOption<TCP_KEEPCNT>(kProbes));
    acceptor->bind(endpoint);
    acceptor->listen();
    acceptor->non_blocking(true);
  } catch (const boost::system::system_error& error) {
    return error.code();
  }
  port_ = acceptor->local_endpoint().port();
  acceptors_.push_back(std::move(acceptor));
  return {};
}

// Always on loopback of IPv4 and IPv6: if one were left free, another program could listen there on the same port and
// receive requests for http://localhost.
vconf::Status Listener::Listen(int port, const std::string& address) {
  const Address loopback6 = boost::asio::ip::address_v6::loopback();
  std::vector<Address> addresses = {boost::asio::ip::address_v4::loopback(), loopback6};
  Address other;
  if (!address.empty()) {
    Error error;
    other = boost::asio::ip::make_address(address, error);
    if (error) {
      return {vconf::Code::kBadValue,
              address + " is not an address; --listen needs an IP address of this machine, such as 192.168.1.20"};
    }
    std::erase_if(addresses, [&](const Address& loopback) {  // 0.0.0.0 and :: include it
      return loopback == other || (other.is_unspecified() && loopback.is_v6() == other.is_v6());
    });
    addresses.push_back(other);
  }
  const auto listen_on_all = [&]() -> vconf::Status {
    acceptors_.clear();
    for (const Address& each : addresses) {
      const int wanted = acceptors_.empty() ? port : port_;
      const Error error = ListenOn(each, wanted);
      const bool has_no_ipv6 = error == boost::asio::error::address_family_not_supported ||
                               error == boost::system::errc::address_not_available;
      if (error && !(has_no_ipv6 && each == loopback6 && each != other)) {
        return CannotListen(each, wanted, error);
      }
    }
    return {};
  };
  vconf::Status status = listen_on_all();
  // A port that is free on one address may be in use on another.
  for (int tries = 1; port == 0 && !status.ok() && tries < 20; ++tries) {
    status = listen_on_all();
  }
  return status;
}

void Listener::Start(OnSocket on_socket) {
  on_socket_ = std::move(on_socket);
  for (const auto& acceptor : acceptors_) {
    Accept(*acceptor);
  }
}

void Listener::Accept(Acceptor& acceptor) {
  acceptor.async_accept([this, &acceptor](Error error, Socket socket) {
    if (acceptors_.empty()) {
      return;
    }
    if (error) {
      // Most likely no descriptor or memory is left. Accepting would fail again at once, so this waits.
      const auto retry = std::make_shared<boost::asio::steady_timer>(loop_, std::chrono::milliseconds(20));
      return retry->async_wait([this, retry, &acceptor](Error) {
        if (!acceptors_.empty()) {
          Accept(acceptor);
        }
      });
    }
    if (!on_socket_(socket)) {
      static constexpr std::string_view kBusy =
          "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n"
          "{\"error\":\"too many connections are open already\",\"code\":\"busy\"}";
      socket.non_blocking(true, error);
      socket.write_some(boost::asio::buffer(kBusy), error);
    }
    Accept(acceptor);
  });
}

}  // namespace desk
