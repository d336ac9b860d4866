#include "server/server.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <system_error>
#include <thread>
#include <utility>

#include <httplib.h>

#include "base/http_status.h"
#include "base/paths.h"
#include "server/guard.h"
#include "set/catalog.h"
#include "set/faults.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

using httplib::Request;
using httplib::Response;

constexpr std::size_t kMaxBody = 64UL * 1024;
constexpr std::size_t kMaxRequest = 2 * kMaxBody;  // with its head, whatever that says
constexpr std::chrono::seconds kMaxGrace(3600);

// A page holds a thread for its deliveries and may hold two more with a waiting send and the posts before it. What is
// left is for the desk's own page, for shells, and for clients that are slow to say what they want.
constexpr std::size_t kThreads = 4 * PageBook::kMaxPages;

// How long a client may take to say all that it wants, and to take a piece of the answer.
constexpr std::chrono::milliseconds kPatience(3000);

// Streams of everything. Each holds a thread.
constexpr int kMaxEventStreams = 32;

// How soon a stream notices that its reader is gone, and how often it writes when there is nothing to say, so that
// whatever stands between keeps it open.
constexpr std::chrono::milliseconds kStreamPatience(250);
constexpr std::chrono::seconds kHeartbeat(15);

// How soon a browser that lost a stream comes back, in milliseconds: well within the shortest grace of a page. Left to
// itself it may take five seconds.
constexpr char kStreamHead[] = "retry: 500\n\n";

// What everybody may see who looks at all.
constexpr EventLog::Limits kEverything{.events = 20'000, .bytes = 16UL * 1024 * 1024};

// Nothing but the desk's own files, and no frame around it in which a click could be led astray.
constexpr char kContentPolicy[] =
    "default-src 'self'; connect-src 'self' http://*.localhost:*; img-src 'self' data:; object-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

struct Answer {
  int status = 200;
  Json body = Json::object();
};

Answer Fail(int status, std::string text) { return {.status = status, .body = {{"error", std::move(text)}}}; }

Answer Fail(const vconf::Status& status) {
  const HttpCode code = HttpCodeOf(status.code());
  return {.status = code.status, .body = {{"error", status.text()}, {"code", code.name}}};
}

void Write(const Answer& answer, Response& response) {
  response.status = answer.status;
  response.set_content(ToText(answer.body), "application/json");
}

vconf::Status NoKey(const std::string& path) { return {vconf::Code::kMissing, "there is no key " + path}; }

bool IsShared(std::string_view path) { return path.starts_with("db/") || path.starts_with("memory/"); }

// What became of a change of the store, once its events are on their way. So whoever has the answer and then opens a
// stream does not take them for something new.
vconf::Status Told(vconf::Status status) {
  vconf::Settle();
  return status;
}

Json DescribeKey(const std::string& path, const std::optional<vconf::Value>& value) {
  return {{"path", path}, {"value", value ? ToJson(*value) : Json()}};
}

Answer AnswerWithFaults() {
  const auto set = vconf::ListFaults();
  if (!set.ok()) {
    return Fail(set.status());
  }
  Json calls = Json::array();
  for (const FaultCall& call : FaultCalls()) {
    calls.push_back({{"name", call.name}, {"failures", call.failures}, {"path", call.path}});
  }
  Json faults = Json::array();
  for (const vconf::Fault& fault : *set) {
    faults.push_back(ToJson(fault));
  }
  return {.body = {{"calls", std::move(calls)}, {"faults", std::move(faults)}}};
}

Answer AnswerWithSet() {
  vconf::Result<Json> set = DescribeSet();
  return set.ok() ? Answer{.body = *std::move(set)} : Fail(set.status());
}

// The entries of a log, which are JSON already.
std::string JoinEntries(std::string_view name, const EventLog& log) {
  std::string text = "{\"" + std::string(name) + "\":[";
  std::string_view separator;
  for (const std::string& entry : log.Kept()) {
    text.append(std::exchange(separator, ",")).append(entry);
  }
  return text + "]}";
}

// A message is {"send": M} or {"post": M}, perhaps with a number "n".
std::optional<Page::Message> ReadMessage(const ParsedJson& json) {
  if (!json.is_object() || json.contains("send") == json.contains("post") || json.size() != 1U + json.contains("n")) {
    return std::nullopt;
  }
  Page::Message message{.waits = json.contains("send"), .body = {}, .number = {}};
  message.body = json.at(message.waits ? "send" : "post");
  if (json.contains("n")) {
    if (!json["n"].is_number_integer()) {
      return std::nullopt;
    }
    message.number = json["n"].get<std::int64_t>();
  }
  return message;
}

vconf::Result<std::vector<Page::Message>> ReadMessages(const ParsedJson& body) {
  std::vector<Page::Message> messages;
  for (const ParsedJson& json : body.is_array() ? body : ParsedJson::array({body})) {
    std::optional<Page::Message> message = ReadMessage(json);
    if (!message) {
      return BadValue(R"(a message is {"post": M} or {"send": M}, and may have an integer "n")");
    }
    if (!messages.empty() && messages.back().waits) {
      return BadValue("only the last message may be a send");
    }
    messages.push_back(std::move(*message));
  }
  return messages;
}

vconf::Result<PageDescription> ReadDescription(const ParsedJson& body) {
  PageDescription description;
  if (!body.is_object()) {
    return BadValue("the body is not an object");
  }
  for (const auto& [name, value] : body.items()) {
    if (name == "title" && value.is_string()) {
      description.title = value;
    } else if (name == "url" && value.is_string()) {
      description.url = value;
    } else if (name == "grace" && value.is_number_integer() && value >= 1 && value <= kMaxGrace.count()) {
      description.grace = std::chrono::seconds(value.get<int>());
    } else {
      return BadValue("\"" + name + "\" is none of title (text), url (text) and grace (1 to 3600 seconds)");
    }
  }
  return description;
}

}  // namespace

// One request's connection. The library's own gives a client its time for each byte, and takes any number of them.
class Connection final : public httplib::Stream {
 public:
  explicit Connection(socket_t socket) : socket_(socket) {}

  // What is left of the request is taken too: a client that still writes would lose the answer.
  ~Connection() override {
    ::shutdown(socket_.get(), SHUT_WR);
    while (Receive() > 0) {
    }
  }

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool is_readable() const override {
    return !received_.empty() ||
           Wait(POLLIN, std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now()));
  }

  // Not when the client has closed it: then the end can be read.
  bool is_writable() const override {
    char next = 0;
    return Wait(POLLOUT, kPatience) &&
           (!Wait(POLLIN, std::chrono::milliseconds(0)) || recv(socket_.get(), &next, 1, MSG_PEEK) > 0);
  }

  ssize_t read(char* data, std::size_t size) override {
    if (received_.empty() && (total_ > kMaxRequest || Receive() <= 0)) {
      return -1;
    }
    const std::size_t count = received_.copy(data, size);
    received_.remove_prefix(count);
    return static_cast<ssize_t>(count);
  }

  ssize_t write(const char* data, std::size_t size) override {
    for (std::size_t done = 0; done < size;) {
      const ssize_t count =
          Wait(POLLOUT, kPatience) ? send(socket_.get(), data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT) : -1;
      if (count < 0) {
        return -1;
      }
      done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(size);
  }

  void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  socket_t socket() const override { return socket_.get(); }

 private:
  bool Wait(short events, std::chrono::milliseconds patience) const {
    pollfd polled{.fd = socket_.get(), .events = events, .revents = 0};
    return poll(&polled, 1, static_cast<int>(std::max(patience.count(), std::chrono::milliseconds::rep(0)))) > 0;
  }

  ssize_t Receive() {
    received_ = {};
    const ssize_t count = is_readable() ? recv(socket_.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT) : -1;
    if (count > 0) {
      received_ = std::string_view(buffer_.data(), static_cast<std::size_t>(count));
      total_ += received_.size();
    }
    return count;
  }

  const UniqueFd socket_;
  const std::chrono::steady_clock::time_point end_ = std::chrono::steady_clock::now() + kPatience;
  std::array<char, 4096> buffer_{};
  std::string_view received_;  // and not read yet
  std::size_t total_ = 0;
};

// The library's server, but for its connections and two settings that it offers no call for.
class LoopbackServer : public httplib::Server {
 public:
  LoopbackServer() {
    // Without this a second desk could share the port, and each would get some of the requests.
    set_socket_options([](socket_t socket) {
      const int on = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
  }

  /// The port, or -1.
  int Bind(int port) {
    constexpr char kAddress[] = "127.0.0.1";
    const int bound = port == 0 ? bind_to_any_port(kAddress) : (bind_to_port(kAddress, port) ? port : -1);
    if (bound > 0) {
      // The library lets five connections wait; all pages may come at once.
      ::listen(svr_sock_, SOMAXCONN);
    }
    return bound;
  }

 private:
  // One request for each connection. What is left unread of a refused one can then never be taken for another request,
  // and a connection that says nothing more holds no thread.
  bool process_and_close_socket(socket_t socket) override {
    Connection connection(socket);
    bool closed = false;
    return svr_sock_ != INVALID_SOCKET && process_request(connection, true, closed, [](Request& request) {
             if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding")) {
               request.set_header("Content-Length",
                                  "0");  // The library would wait for a body until the connection ends.
             }
             // Who asks for a range must be ready to get all.
             request.headers.erase("Range");
             request.ranges.clear();
           });
  }
};

class DeskServer::Impl {
 public:
  explicit Impl(DeskOptions options)
      : options_(std::move(options)), everything_(kEverything), pages_(options_.host, everything_) {}

  ~Impl() {
    everything_.Close();
    pages_.Close();
    if (thread_.joinable()) {
      server_.stop();
      thread_.join();
    }
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  vconf::Status Start() {
    auto watch = vconf::WatchPrefix("", [this](const vconf::Change& change) { OnChange(change); });
    if (!watch.ok()) {
      return watch.status();
    }
    watch_ = *std::move(watch);
    SetUp();
    port_ = server_.Bind(options_.port);
    if (port_ < 0) {
      return {vconf::Code::kFailed,
              "port " + std::to_string(options_.port) + " of 127.0.0.1 cannot be had; is another desk running?"};
    }
    thread_ = std::thread([this] {
      server_.listen_after_bind();
      served_ = true;
    });
    // The library ignores a stop that comes before its loop.
    while (!server_.is_running() && !served_) {
      std::this_thread::yield();
    }
    return served_ ? vconf::Status(vconf::Code::kFailed, "connections cannot be accepted") : vconf::Status();
  }

  int port() const { return port_; }

 private:
  using Handler = std::function<Answer(const Request&)>;
  using BodyHandler = std::function<Answer(const Request&, const ParsedJson&)>;
  using PageHandler = std::function<Answer(const Request&, Page&)>;

  void SetUp();
  void AddSettings();
  void AddSet();
  void AddPages();
  void AddStreams();
  void AddFiles();

  void Get(const std::string& pattern, Handler handler) {
    server_.Get(Known("GET", pattern), Plain(std::move(handler)));
  }
  void Post(const std::string& pattern, Handler handler) {
    server_.Post(Known("POST", pattern), Plain(std::move(handler)));
  }
  void Delete(const std::string& pattern, Handler handler) {
    server_.Delete(Known("DELETE", pattern), Plain(std::move(handler)));
  }
  void PostJson(const std::string& pattern, BodyHandler handler) {
    server_.Post(Known("POST", pattern), WithBody(std::move(handler)));
  }
  void PutJson(const std::string& pattern, BodyHandler handler) {
    server_.Put(Known("PUT", pattern), WithBody(std::move(handler)));
  }
  void PatchJson(const std::string& pattern, BodyHandler handler) {
    server_.Patch(Known("PATCH", pattern), WithBody(std::move(handler)));
  }

  const std::string& Known(const std::string& method, const std::string& pattern);
  static httplib::Server::Handler Plain(Handler handler);
  static httplib::Server::HandlerWithContentReader WithBody(BodyHandler handler);
  Handler WithPage(PageHandler handler) const;

  bool Admit(const Request& request, Response& response) const;
  void ExplainError(const Request& request, Response& response) const;
  void OnChange(const vconf::Change& change);
  Answer AnswerWithSettings() const;
  Answer Submit(Page& page, const ParsedJson& body) const;
  static void Stream(const Request& request, Response& response, const EventLog& events, std::uint64_t start,
                     std::function<void()> on_close);

  struct KnownRoute {
    std::regex pattern;
    std::string method;
  };

  const DeskOptions options_;
  EventLog everything_;
  PageBook pages_;
  std::atomic<int> event_streams_ = 0;
  std::vector<KnownRoute> routes_;
  LoopbackServer server_;
  int port_ = -1;
  std::unique_ptr<vconf::Watch> watch_;
  std::atomic<bool> served_ = false;  // the server's thread is done
  std::thread thread_;
};

// Remembers the route, so that another method on it can be told from a path that nothing answers.
const std::string& DeskServer::Impl::Known(const std::string& method, const std::string& pattern) {
  routes_.push_back({.pattern = std::regex(pattern), .method = method});
  return pattern;
}

httplib::Server::Handler DeskServer::Impl::Plain(Handler handler) {
  return
      [handler = std::move(handler)](const Request& request, Response& response) { Write(handler(request), response); };
}

httplib::Server::HandlerWithContentReader DeskServer::Impl::WithBody(BodyHandler handler) {
  return
      [handler = std::move(handler)](const Request& request, Response& response, const httplib::ContentReader& read) {
        if (!IsJsonType(request.get_header_value("Content-Type"))) {
          return Write(Fail(415, "the body must be application/json"), response);
        }
        std::string text;
        bool fits = true;
        const bool whole = read([&](const char* data, std::size_t size) {
          text.append(data, size);
          return fits = text.size() <= kMaxBody;
        });
        if (!whole) {
          response.status = fits ? response.status : 413;  // The library counts only what a header announces.
          return;
        }
        const vconf::Result<ParsedJson> body = ParseJson(text);
        Write(body.ok() ? handler(request, *body) : Fail(body.status()), response);
      };
}

DeskServer::Impl::Handler DeskServer::Impl::WithPage(PageHandler handler) const {
  return [this, handler = std::move(handler)](const Request& request) {
    const std::string id = request.matches[1];
    const std::shared_ptr<Page> page = pages_.Find(id);
    return page ? handler(request, *page) : Fail(404, "there is no page " + id);
  };
}

void DeskServer::Impl::SetUp() {
  server_.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  server_.set_payload_max_length(kMaxBody);
  server_.set_tcp_nodelay(true);
  server_.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                               {"X-Frame-Options", "DENY"},
                               {"Content-Security-Policy", kContentPolicy},
                               {"Cache-Control", "no-cache"},
                               {"Vary", "Origin"}});
  server_.set_pre_routing_handler([this](const Request& request, Response& response) {
    return Admit(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                    : httplib::Server::HandlerResponse::Handled;
  });
  server_.set_error_handler([this](const Request& request, Response& response) { ExplainError(request, response); });
  server_.set_exception_handler([](const Request&, Response& response, std::exception_ptr thrown) {
    try {
      std::rethrow_exception(std::move(thrown));
    } catch (const std::exception& error) {
      Write(Fail(500, error.what()), response);
    } catch (...) {
      Write(Fail(500, "something went wrong"), response);
    }
  });
  server_.Options(".*", [](const Request&, Response& response) {
    response.set_header("Access-Control-Allow-Methods", "GET, POST, PUT, PATCH, DELETE");
    response.set_header("Access-Control-Allow-Headers", "Content-Type, Last-Event-ID");
    response.set_header("Access-Control-Max-Age", "600");
    response.status = 204;
  });
  AddSettings();
  AddSet();
  AddPages();
  AddStreams();
  AddFiles();
}

// False when it is refused; the answer is then written.
bool DeskServer::Impl::Admit(const Request& request, Response& response) const {
  if (request.get_header_value_count("Host") != 1 || !IsLoopbackHost(request.get_header_value("Host"))) {
    Write(Fail(403, "the desk answers to loopback names only"), response);
    return false;
  }
  if (request.has_header("Origin")) {
    const std::string origin = request.get_header_value("Origin");
    if (!IsAllowedOrigin(origin, options_.allowed_origins)) {
      Write(Fail(403, "the origin " + origin + " is not allowed; start the desk with --allow-origin to let it in"),
            response);
      return false;
    }
    response.set_header("Access-Control-Allow-Origin", origin);
  } else if (request.path.starts_with("/api/") && request.get_header_value("Sec-Fetch-Site") == "cross-site") {
    // An image or a script of a foreign page does not say whose it is.
    Write(Fail(403, "another site's page must name its origin"), response);
    return false;
  }
  if (request.has_header("Content-Encoding")) {
    Write(Fail(415, "the body must not be encoded"), response);
    return false;
  }
  return true;
}

// Gives a text to what the library refuses on its own account.
void DeskServer::Impl::ExplainError(const Request& request, Response& response) const {
  if (!response.body.empty()) {
    return;
  }
  std::string allowed;
  if (response.status == 404) {
    for (const KnownRoute& route : routes_) {
      if (std::regex_match(request.path, route.pattern)) {
        allowed += (allowed.empty() ? "" : ", ") + route.method;
      }
    }
  }
  if (!allowed.empty()) {
    response.set_header("Allow", allowed);
    return Write(Fail(405, request.path + " takes " + allowed), response);
  }
  switch (response.status) {
    case 404:
      return Write(Fail(404, "there is nothing at " + request.path), response);
    case 413:
      return Write(Fail(413, "a body may have " + std::to_string(kMaxBody) + " bytes at most"), response);
    default:
      return Write(Fail(response.status, "the request was not understood"), response);
  }
}

void DeskServer::Impl::OnChange(const vconf::Change& change) {
  if (IsShared(change.path)) {
    everything_.Add("setting", ToText(DescribeKey(change.path, change.value)));
  } else {
    everything_.Add("set", "{}");
  }
}

Answer DeskServer::Impl::AnswerWithSettings() const {
  const std::vector<std::shared_ptr<Page>> pages = pages_.All();
  Json settings = Json::array();
  for (const Setting& setting : Settings()) {
    const std::string path(setting.path);
    const vconf::Result<vconf::Value> value = vconf::Get(path);
    if (!value.ok() && value.status().code() != vconf::Code::kMissing) {
      return Fail(value.status());
    }
    Json watchers = Json::array();
    for (const auto& page : pages) {
      if (page->Watches(setting.path)) {
        watchers.push_back(page->number());
      }
    }
    settings.push_back({{"table", setting.table->name},
                        {"key", setting.key},
                        {"name", setting.enumerator},
                        {"path", setting.path},
                        {"type", std::holds_alternative<bool>(setting.initial) ? "bool" : "int"},
                        {"value", value.ok() ? ToJson(*value) : Json()},
                        {"initial", ToJson(setting.initial)},
                        {"group", setting.group},
                        {"label", setting.label},
                        {"command", setting.table->read},
                        {"values", *setting.values},
                        {"watchers", std::move(watchers)}});
  }
  return {.body = {{"settings", std::move(settings)}}};
}

void DeskServer::Impl::AddSettings() {
  Get("/api/catalog", [](const Request&) { return Answer{.body = Json::parse(CatalogText())}; });
  Get("/api/settings", [this](const Request&) { return AnswerWithSettings(); });
  Get("/api/store", [](const Request& request) {
    const auto entries = vconf::List(request.get_param_value("prefix"));
    if (!entries.ok()) {
      return Fail(entries.status());
    }
    Json keys = Json::array();
    for (const vconf::Entry& entry : *entries) {
      if (IsShared(entry.path)) {
        keys.push_back(DescribeKey(entry.path, entry.value));
      }
    }
    return Answer{.body = {{"keys", std::move(keys)}}};
  });

  constexpr char kKey[] = "/api/store/(.+)";
  Get(kKey, [](const Request& request) {
    const std::string path = request.matches[1];
    const vconf::Result<vconf::Value> value = IsShared(path) ? vconf::Get(path) : NoKey(path);
    return value.ok() ? Answer{.body = DescribeKey(path, *value)} : Fail(value.status());
  });
  PutJson(kKey, [](const Request& request, const ParsedJson& body) {
    const std::string path = request.matches[1];
    if (!IsShared(path)) {
      return Fail(400, path + ": a path begins with db/ or memory/");
    }
    const std::optional<vconf::Value> value =
        body.is_object() && body.contains("value") ? ToValue(body["value"]) : std::nullopt;
    if (!value) {
      return Fail(400, "\"value\" must be an integer of 32 bits, true, false or a text");
    }
    if (const vconf::Status status = Told(vconf::Set(path, *value)); !status.ok()) {
      return Fail(status);
    }
    return Answer{.body = DescribeKey(path, value)};
  });
  Delete(kKey, [](const Request& request) {
    const std::string path = request.matches[1];
    const vconf::Status status = IsShared(path) ? Told(vconf::Remove(path)) : NoKey(path);
    return status.ok() ? Answer{} : Fail(status);
  });
}

void DeskServer::Impl::AddSet() {
  Get("/api/set", [](const Request&) { return AnswerWithSet(); });
  PatchJson("/api/set", [](const Request&, const ParsedJson& body) {
    const vconf::Status status = Told(ChangeSet(body));
    return status.ok() ? AnswerWithSet() : Fail(status);
  });

  // A fault is no key of the store, so its changes have to be told from here.
  const auto answer_with_faults = [this](const vconf::Status& status) {
    if (!status.ok()) {
      return Fail(status);
    }
    everything_.Add("set", "{}");
    return AnswerWithFaults();
  };
  Get("/api/faults", [](const Request&) { return AnswerWithFaults(); });
  PostJson("/api/faults", [answer_with_faults](const Request&, const ParsedJson& body) {
    const vconf::Result<vconf::Fault> fault = FaultFromJson(body);
    return answer_with_faults(fault.ok() ? AddFault(*fault) : fault.status());
  });
  Delete("/api/faults", [answer_with_faults](const Request& request) {
    if (!request.has_param("call")) {
      return answer_with_faults(vconf::ClearFaults());
    }
    const std::string name = request.get_param_value("call");
    if (const auto call = FindFaultCall(name); !call.ok()) {
      return Fail(call.status());
    }
    const bool has_path = request.has_param("path");
    return answer_with_faults(vconf::ClearFault(name, has_path ? request.get_param_value("path") : kEveryPath));
  });
  Post("/api/reset", [this](const Request&) {
    const vconf::Status status = Told(ResetSet());
    everything_.Add("set", "{}");
    return status.ok() ? Answer{} : Fail(status);
  });
}

Answer DeskServer::Impl::Submit(Page& page, const ParsedJson& body) const {
  vconf::Result<std::vector<Page::Message>> messages = ReadMessages(body);
  if (!messages.ok()) {
    return Fail(messages.status());
  }
  Page::Result result = page.Submit(*std::move(messages));
  switch (result.outcome) {
    case Page::Outcome::kGone:
      return Fail(410, "the page's plug-in is gone");
    case Page::Outcome::kFull:
      return Fail(503, "the plug-in has fallen too far behind");
    case Page::Outcome::kRefused:
      return Fail(400, std::move(result.error));
    case Page::Outcome::kDone:
      break;
  }
  return result.reply ? Answer{.body = {{"reply", std::move(*result.reply)}}} : Answer{};
}

void DeskServer::Impl::AddPages() {
  Get("/api/pages", [this](const Request&) {
    Json list = Json::array();
    for (const auto& page : pages_.All()) {
      list.push_back(page->Describe());
    }
    return Answer{.body = {{"pages", std::move(list)}}};
  });
  PostJson("/api/pages", [this](const Request&, const ParsedJson& body) {
    vconf::Result<PageDescription> description = ReadDescription(body);
    if (!description.ok()) {
      return Fail(description.status());
    }
    const std::shared_ptr<Page> page = pages_.Open(*std::move(description));
    return page ? Answer{.status = 201, .body = page->Describe()}
                : Fail(503, std::to_string(PageBook::kMaxPages) + " pages are open already");
  });

  const std::string one = "/api/pages/([^/]+)";
  const Handler leave = WithPage([this](const Request&, Page& page) {
    pages_.Leave(page.id());
    return Answer{};
  });
  Get(one, WithPage([](const Request&, Page& page) { return Answer{.body = page.Describe()}; }));
  Delete(one, leave);
  Post(one + "/leave", leave);
  Post(one + "/kill", WithPage([](const Request&, Page& page) {
         page.Kill();
         return Answer{};
       }));
  PostJson(one + "/messages", [this](const Request& request, const ParsedJson& body) {
    return WithPage([&](const Request&, Page& page) { return Submit(page, body); })(request);
  });

  // What is text already, or grows long, goes out as it is.
  const auto add_text = [&](const std::string& name, const std::string& type, std::function<std::string(Page&)> text) {
    server_.Get(Known("GET", one + "/" + name),
                [this, type, text = std::move(text)](const Request& request, Response& response) {
                  if (const std::shared_ptr<Page> page = pages_.Find(request.matches[1])) {
                    response.set_content(text(*page), type);
                  } else {
                    Write(Fail(404, "there is no page " + request.matches[1].str()), response);
                  }
                });
  };
  add_text("dialogue", "application/json", [](Page& page) { return JoinEntries("dialogue", page.dialogue()); });
  add_text("log", "application/json", [](Page& page) { return JoinEntries("log", page.log()); });
  add_text("session", "application/jsonl", [](Page& page) { return page.Recording(); });
}

void DeskServer::Impl::AddStreams() {
  server_.Get(Known("GET", "/api/events"), [this](const Request& request, Response& response) {
    if (++event_streams_ > kMaxEventStreams) {
      --event_streams_;
      return Write(Fail(503, std::to_string(kMaxEventStreams) + " streams of events are open already"), response);
    }
    Stream(request, response, everything_, everything_.Position(), [this] { --event_streams_; });
  });
  server_.Get(Known("GET", "/api/pages/([^/]+)/deliveries"), [this](const Request& request, Response& response) {
    const std::shared_ptr<Page> page = pages_.Find(request.matches[1]);
    if (!page) {
      return Write(Fail(404, "there is no page " + request.matches[1].str()), response);
    }
    page->StreamOpened();
    Stream(request, response, page->deliveries(), 0, [page] { page->StreamClosed(); });
  });
}

// The desk's own page, `desk.js`, and the library for pages, which lies in a folder of its own.
void DeskServer::Impl::AddFiles() {
  server_.set_mount_point("/", WebFolder());
  server_.Get(Known("GET", "/mirado\\.js"), [](const Request&, Response& response) {
    std::ifstream file(std::filesystem::path(WebFolder()).parent_path() / "page/mirado.js");
    response.set_content(std::string(std::istreambuf_iterator(file), {}), "text/javascript");
  });
}

// `on_close` runs when the stream has ended, for whatever cause, and keeps alive what `events` belongs to.
void DeskServer::Impl::Stream(const Request& request, Response& response, const EventLog& events, std::uint64_t start,
                              std::function<void()> on_close) {
  const std::string last = request.get_header_value("Last-Event-ID");
  std::from_chars(last.data(), last.data() + last.size(), start);
  response.set_chunked_content_provider(
      "text/event-stream",
      [&events, position = start, head = std::string(kStreamHead), written = std::chrono::steady_clock::time_point()](
          std::size_t, httplib::DataSink& sink) mutable {
        EventLog::Batch batch = events.Next(position, head.empty() ? kStreamPatience : std::chrono::milliseconds(0));
        batch.text.insert(0, std::exchange(head, {}));
        position = batch.position;
        const auto now = std::chrono::steady_clock::now();
        if (batch.text.empty() && now - written > kHeartbeat) {
          batch.text = ": still here\n\n";
        }
        if (!batch.text.empty()) {
          written = now;
          if (!sink.write(batch.text.data(), batch.text.size())) {
            return false;
          }
        }
        if (batch.closed) {
          sink.done();
          return true;
        }
        return sink.is_writable();
      },
      [on_close = std::move(on_close)](bool) { on_close(); });
}

DeskServer::DeskServer(DeskOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

DeskServer::~DeskServer() = default;

vconf::Status DeskServer::Start() { return impl_->Start(); }

int DeskServer::port() const { return impl_->port(); }

}  // namespace desk
