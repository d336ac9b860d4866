#pragma once

// The addresses that the desk listens on, and the connections that come in there.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "server/connection.h"
#include "vconf_control.h"

namespace desk {

/// The loop's thread alone.
class Listener {
 public:
  explicit Listener(boost::asio::io_context& loop) : loop_(loop) {}

  /// Takes `port` (0: any that is free) on both loopback addresses and on `address`, which is in figures or empty.
  /// Fails when one of them is taken, and says which.
  vconf::Status Listen(int port, const std::string& address);

  /// Hands each connection to `on_socket`. Where there is no room for one among `clients`, it is refused.
  void Start(Clients& clients, std::function<void(Socket)> on_socket);

  void Close() { acceptors_.clear(); }

  unsigned short port() const { return port_; }

 private:
  using Acceptor = boost::asio::basic_socket_acceptor<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

  vconf::Status ListenOn(const boost::asio::ip::address& address, int port);
  vconf::Status ListenOnBoth(const boost::asio::ip::address& v4, const boost::asio::ip::address& v6, int port);
  void Accept(Acceptor& acceptor);

  boost::asio::io_context& loop_;
  std::vector<std::unique_ptr<Acceptor>> acceptors_;
  Clients* clients_ = nullptr;
  std::function<void(Socket)> on_socket_;
  unsigned short port_ = 0;
};

/// An address as it stands in a link: one of IPv6 in brackets.
std::string InBrackets(const boost::asio::ip::address& address);

}  // namespace desk
