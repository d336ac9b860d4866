#include "server/desk.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <exception>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>

#include "base/exit_status.h"
#include "base/http_status.h"
#include "server/stream.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

using boost::asio::ip::tcp;
using Error = boost::system::error_code;

// What everybody may see who looks at all.
constexpr EventLog::Limits kEverything{.events = 20'000, .bytes = 16UL * 1024 * 1024};

// How long streams may take to hear that the desk has ended.
constexpr std::chrono::seconds kFarewell(1);

// How many descriptors this process may have beyond those that it has.
std::size_t FreeDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  getrlimit(RLIMIT_NOFILE, &limit);
  const auto used = static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator()));
  return limit.rlim_cur > used ? limit.rlim_cur - used : 0;
}

std::string InBrackets(const boost::asio::ip::address& address) {
  return address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
}

}  // namespace

Limits Limits::For(std::size_t free) {
  const std::size_t connections = std::clamp<std::size_t>(free / 2, 8, 1024);
  const std::size_t left = free > connections ? free - connections : 0;
  return {.connections = connections,
          .pages = std::clamp<std::size_t>(left / HostProcess::kDescriptors, 1, PageBook::kMaxPages),
          .events = std::min<std::size_t>(connections / 8, 32),
          .deliveries = connections / 4,
          .sends = connections / 2};
}

Desk::Desk(DeskOptions given)
    : options(std::move(given)),
      everything(kEverything),
      pages(loop, options.host, everything, [this] { TellDesk(); }),
      check_("", false),
      handler_([this](HttpRequest& request, const ConnectionPtr& connection) { Handle(request, connection); }),
      connections_(loop),
      farewell_(loop),
      signals_(loop, SIGINT, SIGTERM, SIGHUP),
      input_(loop) {
  AddSetRoutes(router_, *this);
  AddStoreRoutes(router_, *this);
  AddPageRoutes(router_, *this);
  AddFiles(router_);
}

Desk::~Desk() { watch_.reset(); }

void Desk::Handle(HttpRequest& request, const ConnectionPtr& connection) {
  try {
    router_.Route(request, connection);
  } catch (const std::exception& error) {
    connection->Reply(Fail(500, error.what(), "failed"));
  }
}

vconf::Status Desk::OpenStore() {
  watch_.reset();
  vconf::CloseStore();
  store = OpenSet(options.host.store);
  if (store.ok()) {
    auto watch = vconf::WatchPrefix("", [this](const vconf::Change& change) { OnChange(change); });
    store = watch.status();
    watch_ = watch.ok() ? *std::move(watch) : nullptr;
  }
  return store;
}

// On the store's notification thread.
void Desk::OnChange(const vconf::Change& change) {
  const bool shared = change.path.starts_with("db/") || change.path.starts_with("memory/");
  const Text text =
      shared ? MakeText(ToText({{"path", change.path}, {"value", change.value ? ToJson(*change.value) : Json()}}))
             : MakeText("{}");
  boost::asio::post(loop, [this, shared, text] { everything.Add(shared ? "setting" : "set", text); });
}

std::string Desk::Listen(const boost::asio::ip::address& address, unsigned short port) {
  Error error;
  auto acceptor = std::make_unique<Acceptor>(loop);
  acceptor->open(address.is_v6() ? tcp::v6() : tcp::v4(), error);
  if (!error && address.is_v6()) {
    acceptor->set_option(boost::asio::ip::v6_only(true), error);
  }
  if (!error) {
    // Without it a port stays taken for a minute after the desk has ended.
    acceptor->set_option(Acceptor::reuse_address(true), error);
  }
  if (!error) {
    acceptor->bind({address, port}, error);
  }
  if (!error) {
    acceptor->listen(Acceptor::max_listen_connections, error);
  }
  if (!error) {
    acceptor->non_blocking(true, error);
  }
  if (error) {
    return InBrackets(address) + ":" + std::to_string(port) + ": " + error.message();
  }
  port_ = acceptor->local_endpoint().port();
  acceptors_.push_back(std::move(acceptor));
  return "";
}

// Both families, or another program could answer for this one under the name `localhost`.
std::string Desk::ListenOnLoopback() {
  const auto v4 = boost::asio::ip::address_v4::loopback();
  const auto v6 = boost::asio::ip::address_v6::loopback();
  std::string error = Listen(v4, static_cast<unsigned short>(options.port));
  if (!error.empty()) {
    return error;
  }
  Error none;
  boost::asio::basic_stream_socket<tcp, boost::asio::io_context::executor_type> probe(loop);
  probe.open(tcp::v6(), none);
  if (!none) {
    probe.bind({v6, 0}, none);
  }
  return none ? "" : Listen(v6, port_);  // a machine without IPv6 has one family
}

std::string Desk::Start() {
  if (options.token || !options.listen.empty()) {
    check_ = OriginCheck(KeptToken(options.host.store), !options.listen.empty());
  }
  std::string error = ListenOnLoopback();
  // A port that is free in one family may be taken in the other.
  for (int tries = 0; !error.empty() && options.port == 0 && tries < 20; ++tries) {
    acceptors_.clear();
    error = ListenOnLoopback();
  }
  if (error.empty() && !options.listen.empty()) {
    Error wrong;
    const auto address = boost::asio::ip::make_address(options.listen, wrong);
    if (wrong) {
      return options.listen + " is no address; --listen takes one of this machine's, such as 192.168.1.20";
    }
    if (address.is_unspecified()) {
      acceptors_.clear();  // it covers loopback of its family, which would be in its way
      const auto other = address.is_v6() ? boost::asio::ip::address(boost::asio::ip::address_v4::loopback())
                                         : boost::asio::ip::address(boost::asio::ip::address_v6::loopback());
      error = Listen(address, port_);
      error = error.empty() ? Listen(other, port_) : error;
    } else if (address.to_string() != "127.0.0.1" && address.to_string() != "::1") {
      error = Listen(address, port_);
    }
  }
  if (!error.empty()) {
    return error + "; is another desk running? --port takes another port";
  }
  // For the store's own files as it grows, a file that is served, and the pipes of a page that is being started.
  constexpr std::size_t kOwn = 12;
  constexpr std::size_t kFewest = 24;
  const std::size_t free = FreeDescriptors();
  if (free < kOwn + kFewest) {
    return "this process may open " + std::to_string(free) + " more files and the desk needs " +
           std::to_string(kOwn + kFewest) + "; raise the limit (ulimit -n)";
  }
  limits = Limits::For(free - kOwn);
  pages.set_limit(limits.pages);
  connections_.set_limit(limits.connections);
  for (const auto& acceptor : acceptors_) {
    Accept(*acceptor);
  }
  signals_.async_wait([this](Error failed, int) {
    if (!failed) {
      End();
    }
  });
  if (options.until_closed) {
    input_.assign(dup(STDIN_FILENO));
    AwaitClosedInput();
  }
  plugin_ = std::make_unique<PluginCheck>(loop, options.host, [this] { OnPlugin(); });
  return "";
}

void Desk::AwaitClosedInput() {
  static std::array<char, 64> ignored;
  input_.async_read_some(boost::asio::buffer(ignored), [this](Error error, std::size_t) {
    if (!error) {
      AwaitClosedInput();
    } else if (error != boost::asio::error::operation_aborted) {
      End();
    }
  });
}

void Desk::Accept(Acceptor& acceptor) {
  acceptor.async_wait(Acceptor::wait_read, [this, &acceptor](Error error) {
    if (error || ending_) {
      return;
    }
    // Several, so that a crowd of connections that say nothing is through soon; not all, so that others have their
    // turn.
    for (int left = 64; left > 0; --left) {
      Socket socket(loop);
      acceptor.accept(socket, error);
      if (error == boost::asio::error::would_block || error == boost::asio::error::try_again) {
        break;
      }
      if (error) {
        connections_.GiveUpOne();  // or others end; then there is room
        // Each family has a timer of its own: one that both set would forget the first.
        const auto retry = std::make_shared<boost::asio::steady_timer>(loop, std::chrono::milliseconds(20));
        return retry->async_wait([this, retry, &acceptor](Error) {
          if (!ending_) {
            Accept(acceptor);
          }
        });
      }
      if (!connections_.MakeRoom()) {
        static constexpr std::string_view kBusy =
            "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n"
            "{\"error\":\"too many connections are open already\",\"code\":\"busy\"}";
        socket.non_blocking(true, error);
        socket.write_some(boost::asio::buffer(kBusy), error);
        continue;
      }
      socket.set_option(tcp::no_delay(true), error);
      socket.set_option(boost::asio::socket_base::keep_alive(true), error);
      std::make_shared<Connection>(std::move(socket), connections_, check_, handler_)->Start();
    }
    Accept(acceptor);
  });
}

std::vector<std::string> Desk::Links() const {
  std::vector<std::string> links;
  const std::string query = check_.token().empty() ? "" : "?token=" + check_.token();
  links.push_back("http://localhost:" + std::to_string(port_) + "/" + query);
  if (!options.listen.empty()) {
    Error ignored;
    links.push_back("http://" + InBrackets(boost::asio::ip::make_address(options.listen, ignored)) + ":" +
                    std::to_string(port_) + "/" + query);
  }
  return links;
}

std::string Desk::Script() const {
  return "http://localhost:" + std::to_string(port_) + "/desk.js" +
         (check_.token().empty() ? "" : "?token=" + check_.token());
}

Json Desk::Describe() const {
  Json addresses = Json::array();
  for (const std::string& link : Links()) {
    addresses.push_back(link.substr(0, link.rfind('/')));
  }
  const auto or_null = [](std::string_view text) { return text.empty() ? Json() : Json(text); };
  return {{"version", MIRADO_VERSION},
          {"addresses", std::move(addresses)},
          {"script", Script()},
          {"plugin",
           {{"path", options.host.plugin},
            {"version", or_null(plugin_ ? plugin_->version() : "")},
            {"error", or_null(plugin_ ? plugin_->error() : "")}}},
          {"store",
           {{"folder", options.host.store},
            {"error", or_null(store.text())},
            {"code", store.ok() ? Json() : Json(HttpCodeOf(store.code()).name)}}},
          {"pages", {{"open", pages.all().size()}, {"limit", pages.limit()}}}};
}

void Desk::TellDesk() {
  std::string now = ToText(Describe());
  if (now != told_) {
    everything.Add("desk", MakeText(now));
    told_ = std::move(now);
  }
}

void Desk::OnStore(const ConnectionPtr& connection, bool tells, std::function<Answer()> work) {
  ++store_work_;
  boost::asio::post(store_thread_, [this, connection = connection, tells, work = std::move(work)]() mutable {
    Answer answer;
    try {
      answer = work();
    } catch (const std::exception& error) {
      answer = Fail(500, error.what(), "failed");
    }
    // Whoever has the answer and then opens a stream must not take these changes for something new.
    if (tells) {
      vconf::Settle();
    }
    // The connection belongs to the loop's thread, so it is handed back and not kept here.
    boost::asio::post(loop, [this, connection = std::move(connection), answer = std::move(answer)] {
      connection->Reply(answer);
      --store_work_;
      RunReplacements();
    });
  });
}

void Desk::ReplaceStore(const ConnectionPtr& connection) {
  replacements_.push_back(connection);
  RunReplacements();
}

// While nobody else uses the store, which is closed and opened anew.
void Desk::RunReplacements() {
  while (store_work_ == 0 && !replacements_.empty()) {
    const ConnectionPtr connection = std::move(replacements_.back());
    replacements_.pop_back();
    watch_.reset();
    vconf::CloseStore();
    const auto moved = vconf::ReplaceStore(options.host.store, DefaultEntries());
    const vconf::Status opened = OpenStore();
    TellDesk();
    TellSet();
    if (!moved.ok() || !opened.ok()) {
      connection->Reply(Fail(moved.ok() ? opened : moved.status()));
    } else {
      connection->Reply(Say({{"moved", *moved}}));
    }
  }
}

void Desk::OnPlugin() {
  if (ending_ || std::exchange(told_plugin_, true)) {
    return Finish();
  }
  if (!plugin_->version().empty()) {
    std::cout << "The plug-in answers: version " << plugin_->version() << ", " << options.host.plugin << std::endl;
  } else {
    std::cerr << "mirado desk: the plug-in " << options.host.plugin << " does not answer\n  " << plugin_->error()
              << std::endl;
  }
  TellDesk();
  if (plugin_->gone()) {
    status_ = kCannotWork;
    End();
  }
}

void Desk::End() {
  if (std::exchange(ending_, true)) {
    return;
  }
  acceptors_.clear();
  input_.close();
  plugin_->End();
  pages.Close([this] {
    pages_closed_ = true;
    Finish();
  });
}

// When all processes are gone, the readers of the streams hear of the end, if they still listen.
void Desk::Finish() {
  if (pages_closed_ && plugin_->ended() && !everything.closed()) {
    everything.Close();
    farewell_.expires_after(kFarewell);
    farewell_.async_wait([this](Error) { loop.stop(); });
    AwaitNoStreams([this] { loop.stop(); });
  }
}

int Desk::Run() {
  loop.run();
  store_thread_.join();
  // What still has a handler in the loop refers to this desk, so it goes first.
  connections_.Close();
  CloseStreams();
  loop.restart();
  loop.poll();
  return status_;
}

}  // namespace desk
