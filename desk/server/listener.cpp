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

// The connection to a client whose machine no longer responds ends after a minute.
constexpr int kProbeAfter = 30;  // seconds without data
constexpr int kProbeEach = 10;
constexpr int kProbes = 3;

bool HasIpv6(boost::asio::io_context& loop) {
  Error error;
  tcp::socket probe(loop);
  probe.open(tcp::v6(), error);
  if (!error) {
    probe.bind({boost::asio::ip::address_v6::loopback(), 0}, error);
  }
  return !error;
}

}  // namespace

std::string InBrackets(const Address& address) {
  return address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
}

vconf::Status Listener::ListenOn(const Address& address, int port) {
  auto acceptor = std::make_unique<Acceptor>(loop_);
  const tcp::endpoint endpoint(address, static_cast<unsigned short>(port));
  try {
    acceptor->open(endpoint.protocol());
    if (address.is_v6()) {
      acceptor->set_option(boost::asio::ip::v6_only(true));
    }
    // Without it a port stays taken for a minute after the desk has ended.
    acceptor->set_option(Acceptor::reuse_address(true));
    // Connections inherit these.
    acceptor->set_option(tcp::no_delay(true));
    acceptor->set_option(boost::asio::socket_base::keep_alive(true));
    acceptor->set_option(TcpOption<TCP_KEEPIDLE>(kProbeAfter));
    acceptor->set_option(TcpOption<TCP_KEEPINTVL>(kProbeEach));
    acceptor->set_option(TcpOption<TCP_KEEPCNT>(kProbes));
    acceptor->bind(endpoint);
    acceptor->listen();
    acceptor->non_blocking(true);
  } catch (const boost::system::system_error& error) {
    const char* const advice = error.code() == boost::asio::error::address_in_use
                                   ? "; is another desk running? use --port to choose another port"
                               : error.code() == boost::system::errc::address_not_available
                                   ? "; --listen needs an address of this machine"
                                   : "";
    return {vconf::Code::kFailed,
            InBrackets(address) + ":" + std::to_string(port) + ": " + error.code().message() + advice};
  }
  port_ = acceptor->local_endpoint().port();
  acceptors_.push_back(std::move(acceptor));
  return {};
}

// On loopback of both families, or another program could serve `http://localhost` in the other one.
vconf::Status Listener::Listen(int port, const std::string& address) {
  std::vector<Address> addresses = {boost::asio::ip::address_v4::loopback()};
  if (HasIpv6(loop_)) {
    addresses.emplace_back(boost::asio::ip::address_v6::loopback());
  }
  if (!address.empty()) {
    Error error;
    const Address other = boost::asio::ip::make_address(address, error);
    if (error) {
      return {vconf::Code::kBadValue,
              address + " is not an address; --listen needs an IP address of this machine, such as 192.168.1.20"};
    }
    std::erase_if(addresses, [&](const Address& loopback) {
      return loopback == other || (other.is_unspecified() && loopback.is_v6() == other.is_v6());  // which includes it
    });
    addresses.push_back(other);
  }
  vconf::Status status;
  // A port that is free on one address may be in use on another.
  for (int tries = port == 0 ? 20 : 1; tries > 0; --tries) {
    acceptors_.clear();
    status = {};
    for (const Address& each : addresses) {
      status = status.ok() ? ListenOn(each, acceptors_.empty() ? port : port_) : status;
    }
    if (status.ok()) {
      break;
    }
  }
  return status;
}

void Listener::Start(Clients& clients, std::function<void(Socket)> on_socket) {
  clients_ = &clients;
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
      // No more descriptors or memory. Until there are, the socket stays readable, so this waits.
      const auto retry = std::make_shared<boost::asio::steady_timer>(loop_, std::chrono::milliseconds(20));
      return retry->async_wait([this, retry, &acceptor](Error) {
        if (!acceptors_.empty()) {
          Accept(acceptor);
        }
      });
    }
    if (clients_->MakeRoom()) {
      on_socket_(std::move(socket));
    } else {
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
