#include "server/desk.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <future>
#include <iostream>
#include <system_error>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>

#include "base/exit_status.h"
#include "base/paths.h"
#include "base/standard_streams.h"
#include "base/terminal.h"
#include "server/stream.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

using boost::asio::ip::tcp;
using Error = boost::system::error_code;

// Of the log behind `/api/events`. Older events are dropped.
constexpr EventLog::Limits kEventLimits{.events = 20'000, .bytes = 16UL * 1024 * 1024};

// How long clients may take to read the last events, and the store to finish a change.
constexpr std::chrono::seconds kShutdownTime(2);

// Raises the limit of open descriptors as far as this process may, and returns how many more it may open.
std::size_t RaiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  getrlimit(RLIMIT_NOFILE, &limit);
  const auto used = static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator()));
  return limit.rlim_cur > used ? limit.rlim_cur - used : 0;
}

}  // namespace

// Half of the descriptors are for connections, the others for the pipes of pages. Of the connections at most an eighth
// are streams of events, a quarter deliveries, and half waiting sends, so that an eighth is left for short requests.
Limits Limits::For(std::size_t free) {
  const std::size_t connections = std::clamp<std::size_t>(free / 2, 8, 1024);
  const std::size_t left = free > connections ? free - connections : 0;
  return {.connections = connections,
          .pages = std::clamp<std::size_t>(left / HostProcess::kDescriptors, 1, Pages::kMaxPages),
          .events = std::min<std::size_t>(connections / 8, 32),
          .deliveries = connections / 4,
          .sends = static_cast<std::ptrdiff_t>(connections / 2)};
}

bool IsKeyOfPrograms(std::string_view path) { return path.starts_with("db/") || path.starts_with("memory/"); }

Desk::Desk(DeskOptions given)
    : options_(std::move(given)),
      events_(kEventLimits),
      pages_(loop_, HostCommand(options_, options_.store), events_, [this] { SendDeskEvent(); }),
      check_("", false),
      handler_([this](HttpRequest& request, const ConnectionPtr& connection) { Handle(request, connection); }),
      clients_(loop_),
      listener_(loop_),
      signals_(loop_, SIGINT, SIGTERM),
      input_(loop_) {
  struct sigaction hangup = {};
  if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) {  // as under nohup
    signals_.add(SIGHUP);
  }
  AddSetRoutes(router_, *this);
  AddStoreRoutes(router_, *this);
  AddPageRoutes(router_, *this);
  AddFiles(router_);
}

// Closing the connections makes their handlers ready to run. They refer to this desk, so they run before it is
// destroyed.
Desk::~Desk() {
  watch_.reset();
  clients_.CloseAll();
  loop_.restart();
  loop_.poll();
}

void Desk::Handle(HttpRequest& request, const ConnectionPtr& connection) {
  try {
    router_.Route(request, connection);
  } catch (const std::exception& error) {
    connection->Reply(Fail({vconf::Code::kFailed, error.what()}));
  }
}

vconf::Status Desk::OpenStore() {
  watch_.reset();
  vconf::CloseStore();
  store_ = OpenSet(options_.store);
  if (store_.ok()) {
    auto watch = vconf::WatchPrefix("", [this](const vconf::Change& change) { OnChange(change); });
    store_ = watch.status();
    watch_ = watch.ok() ? *std::move(watch) : nullptr;
  }
  return store_;
}

// On the store's notification thread.
void Desk::OnChange(const vconf::Change& change) {
  if (!IsKeyOfPrograms(change.path)) {
    return SendSetEvent();
  }
  const Json event = {{"path", change.path}, {"value", change.value ? ToJson(*change.value) : Json()}};
  boost::asio::post(loop_, [this, text = MakeText(ToText(event))] { events_.Add("setting", text); });
}

vconf::Status Desk::Start() {
  if (options_.token || !options_.listen.empty()) {
    auto token = KeptToken(options_.store);
    if (!token.ok()) {
      return token.status();
    }
    check_ = OriginCheck(*std::move(token), !options_.listen.empty());
  }
  if (vconf::Status status = listener_.Listen(options_.port, options_.listen); !status.ok()) {
    return status;
  }
  constexpr std::size_t kOwn = 12;     // for the store's files, a served file, and the pipes while a page starts
  constexpr std::size_t kFewest = 24;  // for connections and pages: 12 connections and 3 pages
  const std::size_t free = RaiseDescriptorLimit();
  if (free < kOwn + kFewest) {
    return {vconf::Code::kFull, "this process may open only " + std::to_string(free) +
                                    " more files, but the desk needs " + std::to_string(kOwn + kFewest) +
                                    "; raise the hard limit of open files (ulimit -Hn)"};
  }
  limits_ = Limits::For(free - kOwn);
  // Created before the listener, the signals and the input are started: those may call `End`, which uses it. It has no
  // store, so the set's faults and latencies do not affect it.
  plugin_check_ = std::make_unique<PluginCheck>(loop_, HostCommand(options_, "/dev/null"), [this] { OnPluginCheck(); });
  listener_.Start([this](Socket& socket) {
    if (!clients_.MakeRoom(limits_.connections)) {
      return false;
    }
    std::make_shared<Connection>(std::move(socket), clients_, check_, handler_)->Start();
    return true;
  });
  signals_.async_wait([this](Error failed, int signal) {
    if (!failed) {
      PrintError(std::string("mirado desk: ended by SIG") + sigabbrev_np(signal));
      End();
    }
  });
  if (options_.until_closed) {
    input_.assign(dup(STDIN_FILENO));
    DiscardInput(input_, [this] { End(); });
  }
  return {};
}

std::string Desk::Link(const std::string& host, std::string_view path) const {
  return "http://" + host + ":" + std::to_string(listener_.port()) + std::string(path) +
         (check_.token().empty() ? "" : "?token=" + check_.token());
}

std::vector<std::string> Desk::Links() const {
  std::vector<std::string> links = {Link("localhost", "/")};
  if (!options_.listen.empty()) {
    links.push_back(Link(InBrackets(boost::asio::ip::make_address(options_.listen)), "/"));
  }
  return links;
}

std::vector<std::string> Desk::Command() const {
  std::vector<std::string> words = {"mirado", "desk", "--port", std::to_string(listener_.port())};
  const auto add = [&](std::initializer_list<std::string> more) { words.insert(words.end(), more); };
  if (options_.temporary) {
    add({"--temporary"});
  } else {
    add({"--store", std::filesystem::absolute(options_.store)});
  }
  if (options_.plugin != DefaultPlugin()) {
    add({"--plugin", std::filesystem::absolute(options_.plugin)});
  }
  if (!options_.listen.empty()) {
    add({"--listen", options_.listen});
  }
  if (options_.token) {
    add({"--token"});
  }
  return words;
}

Json Desk::Describe() const {
  Json addresses = Json::array();
  for (const std::string& link : Links()) {
    addresses.push_back(link.substr(0, link.rfind('/')));
  }
  const auto or_null = [](std::string_view text) { return text.empty() ? Json() : Json(text); };
  const vconf::Status usable = store_.ok() ? vconf::CheckStore() : store_;
  return {{"version", MIRADO_VERSION},
          {"addresses", std::move(addresses)},
          {"script", Script()},
          {"command", Command()},
          {"plugin",
           {{"path", options_.plugin},
            {"version", or_null(plugin_check_ ? plugin_check_->version() : "")},
            {"error", or_null(plugin_check_ ? plugin_check_->error() : "")}}},
          {"store",
           {{"folder", options_.store},
            {"error", or_null(usable.text())},
            {"code", usable.ok() ? Json() : Json(HttpFailureOf(usable.code()).name)}}},
          {"pages", {{"open", pages_.all().size()}, {"limit", limits_.pages}}}};
}

void Desk::SendSetEvent() {
  boost::asio::post(loop_, [this] { events_.Add("set", MakeText("{}")); });
}

Router::Handler Desk::OnStore(std::function<Answer(const HttpRequest&)> work) {
  return [this, work = std::move(work)](HttpRequest& request, const ConnectionPtr& connection) {
    ++store_requests_;
    const auto until_answered = boost::asio::make_work_guard(loop_);
    auto run = [this, work, request = std::move(request), connection = connection, until_answered]() mutable {
      Answer answer;
      try {
        answer = work(request);
      } catch (const std::exception& error) {
        answer = Fail({vconf::Code::kFailed, error.what()});
      }
      // Waits until `OnChange` was called for these changes: a client that opens a stream after the answer must not
      // receive them as new events.
      vconf::Settle();
      // The connection belongs to the loop's thread, so it must not be destroyed here.
      boost::asio::post(loop_, [connection = std::move(connection), answer = std::move(answer)]() mutable {
        connection->Reply(std::move(answer));
      });
      --store_requests_;
    };
    boost::asio::post(store_thread_, std::move(run));
  };
}

// Runs on the store's thread. The loop's thread also reads the store, so it does the replacement, while this one waits.
Answer Desk::ReplaceStore() {
  std::packaged_task<Answer()> replace([this] {
    watch_.reset();
    vconf::CloseStore();
    const auto moved = vconf::ReplaceStore(options_.store, DefaultEntries());
    const vconf::Status opened = OpenStore();
    SendDeskEvent();
    if (!moved.ok() || !opened.ok()) {
      return Fail(moved.ok() ? opened : moved.status());
    }
    return JsonAnswer({{"moved", *moved}});
  });
  boost::asio::post(loop_, std::ref(replace));
  return replace.get_future().get();
}

void Desk::OnPluginCheck() {
  if (ending_ || std::exchange(plugin_reported_, true)) {
    return StopWhenAllHaveExited();
  }
  if (!plugin_check_->version().empty()) {
    std::cout << "The plug-in answers: version " << Printable(plugin_check_->version()) << ", "
              << Printable(options_.plugin) << std::endl;
  } else {
    PrintError("mirado desk: the plug-in " + options_.plugin + " cannot be used");
    PrintError("  " + plugin_check_->error());
  }
  SendDeskEvent();
  if (plugin_check_->exited()) {  // without an answer
    status_ = kCannotWork;
    End();
  }
}

void Desk::End() {
  if (std::exchange(ending_, true)) {
    return;
  }
  events_.Add("end", MakeText("{}"));
  listener_.Close();
  signals_.cancel();
  input_.close();
  plugin_check_->End();
  pages_.Close([this] {
    pages_closed_ = true;
    StopWhenAllHaveExited();
  });
}

void Desk::StopWhenAllHaveExited() {
  if (pages_closed_ && plugin_check_->exited()) {
    loop_.stop();
  }
}

int Desk::Run() {
  try {
    loop_.run();
  } catch (const std::exception& error) {
    PrintError(std::string("mirado desk: exits after an internal failure: ") + error.what());
    status_ = kCannotWork;
    End();
    loop_.run();
  }
  // All processes have ended. Streams get their last events, and the store makes the changes that it has been asked
  // for.
  events_.Close();
  clients_.CloseIdle();
  loop_.restart();
  loop_.run_for(kShutdownTime);
  if (store_requests_ > 0) {
    PrintError("mirado desk: the store has not finished a request; the disk may not be responding");
    std::_Exit(kCannotWork);
  }
  store_thread_.join();
  return status_;
}

}  // namespace desk
