#pragma once

// The addresses that the desk listens on, and accepting connections there.

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

/// To be used on the loop's thread only.
class Listener {
 public:
  explicit Listener(boost::asio::io_context& loop) : loop_(loop) {}

  /// Binds `port` (0: any free one) on 127.0.0.1, on ::1 if this machine has it, and on `address`, which is numeric or
  /// empty; an unspecified address replaces the loopback address of its family. A failure names the address.
  vconf::Status Listen(int port, const std::string& address);

  /// Takes over the socket of a new connection, or returns false if there is no room for it; its client then gets a
  /// 503.
  using OnSocket = std::function<bool(Socket&)>;

  void Start(OnSocket on_socket);

  void Close() { acceptors_.clear(); }

  unsigned short port() const { return port_; }

 private:
  using Acceptor = boost::asio::basic_socket_acceptor<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

  boost::system::error_code ListenOn(const boost::asio::ip::address& address, int port);
  void Accept(Acceptor& acceptor);

  boost::asio::io_context& loop_;
  std::vector<std::unique_ptr<Acceptor>> acceptors_;
  OnSocket on_socket_;
  unsigned short port_ = 0;
};

/// An address as in a URL: IPv6 in brackets.
std::string InBrackets(const boost::asio::ip::address& address);

}  // namespace desk
