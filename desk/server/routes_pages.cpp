// Routes of pages, their messages and the streams of events.

#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <boost/beast/websocket/rfc6455.hpp>

#include "host/protocol.h"
#include "host/verify.h"
#include "server/desk.h"
#include "server/stream.h"

namespace desk {
namespace {

constexpr std::chrono::seconds kMaxGrace(3600);

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
      return BadValue(
          "\"" + name +
          "\" is unknown or has a wrong value; allowed are title (text), url (text) and grace (1 to 3600 seconds)");
    }
  }
  return description;
}

// A message is {"send": M} or {"post": M}, optionally with a number "n".
std::optional<Page::Message> ReadMessage(std::string_view json) {
  const auto members = RawMembers(json);
  std::optional<Page::Message> message;
  std::optional<std::int64_t> number;
  for (const RawMember& member : members) {
    const bool waits = member.name == "send";
    if (!message && (waits || member.name == "post")) {
      message = Page::Message{.waits = waits, .body = member.value, .number = {}};
    } else if (!number && member.name == "n") {
      const char* const end = member.value.data() + member.value.size();
      const auto [last, error] = std::from_chars(member.value.data(), end, number.emplace());
      if (last != end || error != std::errc()) {
        return std::nullopt;
      }
    } else {
      return std::nullopt;
    }
  }
  if (message && json.front() == '{') {
    message->number = number;
    return message;
  }
  return std::nullopt;
}

// The messages in `json`, which is valid and must outlive them.
vconf::Result<std::vector<Page::Message>> ReadMessages(std::string_view json) {
  json.remove_prefix(json.find_first_not_of(" \t\r\n"));
  const std::vector<RawMember> entries =
      json.starts_with('[') ? RawMembers(json) : std::vector<RawMember>{{.name = {}, .value = json}};
  std::vector<Page::Message> messages;
  for (const RawMember& entry : entries) {
    const auto message = ReadMessage(entry.value);
    if (!message) {
      return BadValue(R"(a message is {"post": M} or {"send": M}, and may have an integer "n")");
    }
    if (!messages.empty() && messages.back().waits) {
      return BadValue("only the last message may be a send");
    }
    messages.push_back(*message);
  }
  return messages;
}

void Submit(Desk& desk, Page& page, const HttpRequest& request, const ConnectionPtr& connection) {
  const auto messages = ReadMessages(request.body);
  if (!messages.ok()) {
    return connection->Reply(Fail(messages.status()));
  }
  const bool waits = !messages->empty() && messages->back().waits;
  if (waits && (desk.pages().waiting() >= desk.limits().sends || page.waiting() >= Page::kMaxWaiting)) {
    return connection->Reply(Busy("too many requests are already waiting for a reply"));
  }
  switch (page.Submit(*messages, connection)) {
    case Page::Outcome::kDone:
      return connection->Reply({});
    case Page::Outcome::kWaits:
      return;
    case Page::Outcome::kGone:
      return connection->Reply(AnswerGone());
    case Page::Outcome::kFull:
      return connection->Reply(Busy("the plug-in has left too many messages unread"));
  }
}

// The number of the message in a text that is not valid; 0 if none is found.
std::int64_t NumberIn(std::string_view text) {
  constexpr std::string_view kName = "\"n\":";
  std::int64_t number = 0;
  if (const std::size_t at = text.find(kName); at != std::string_view::npos) {
    std::from_chars(text.data() + at + kName.size(), text.data() + text.size(), number);
  }
  return number;
}

// Handles a text from a page's WebSocket: posts with numbers, which are acknowledged. Empty while the plug-in has no
// room.
std::optional<std::string> TakePosts(Page& page, std::string_view text) {
  const auto refuse = [&](std::int64_t number, const std::string& cause) {
    return ToText({{"refused", number}, {"error", cause}});
  };
  const auto parsed = ParseJson(text);
  const auto messages = parsed.ok() ? ReadMessages(text) : parsed.status();
  if (!messages.ok()) {
    return refuse(NumberIn(text), messages.status().text());
  }
  for (const Page::Message& post : *messages) {
    if (post.waits || !post.number) {
      return refuse(post.number.value_or(0), R"(a socket takes {"n": N, "post": M})");
    }
  }
  const Page::Outcome outcome = page.Submit(*messages);
  if (outcome == Page::Outcome::kFull) {
    return std::nullopt;  // The next time, the posts that were passed on are skipped by their numbers.
  }
  if (outcome == Page::Outcome::kGone || messages->empty()) {
    return "";  // the crash is an event of its own
  }
  return "{\"ack\":" + std::to_string(*messages->back().number) + "}";
}

// The position of a stream: the last event that the client has.
std::uint64_t StartOf(const HttpRequest& request, std::uint64_t otherwise) {
  const std::string_view last = request.query.contains("after") ? request.Query("after") : request.last_event_id;
  std::from_chars(last.data(), last.data() + last.size(), otherwise);
  return otherwise;
}

void StreamDeliveries(Desk& desk, const std::shared_ptr<Page>& page, const HttpRequest& request,
                      const ConnectionPtr& connection, bool takes_posts) {
  if (page->deliveries().readers() >= 4 ||
      desk.delivery_streams >= desk.limits().deliveries + (request.from_desk_page ? Limits::kReserve : 0)) {
    return connection->Reply(Busy("too many streams of deliveries are already open"));
  }
  ++desk.delivery_streams;
  StreamSource source{.log = &page->deliveries(),
                      .position = StartOf(request, 0),
                      .held = std::shared_ptr<void>(nullptr, [&desk, page](void*) {
                        page->OnStreamClosed();
                        --desk.delivery_streams;
                      })};
  if (takes_posts) {
    source.on_text = [&page = *page](std::string_view text) { return TakePosts(page, text); };
  }
  StartStream(connection, std::move(source));
}

void StreamEvents(Desk& desk, const HttpRequest& request, const ConnectionPtr& connection) {
  if (desk.events().readers() >= desk.limits().events + (request.from_desk_page ? Limits::kReserve : 0)) {
    return connection->Reply(Busy(std::to_string(desk.limits().events) + " streams of events are already open"));
  }
  StartStream(connection, {.log = &desk.events(), .position = StartOf(request, desk.events().newest())});
}

// Compares the messages that the page has sent with those that the body expects.
Answer Verify(const Page& page, const ParsedJson& body) {
  const auto expected = ExpectationFromJson(body);
  if (!expected.ok()) {
    return Fail(expected.status());
  }
  if (page.dialogue().newest() > page.dialogue().kept().size()) {
    return Fail(409, "the page has sent more than the desk keeps; verify it sooner");
  }
  std::vector<ParsedJson> sent;
  for (const EventLog::Event& event : page.dialogue().kept()) {
    ParsedJson entry = ParsedJson::parse(*event.data);
    if (entry["kind"] == "send" || entry["kind"] == "post") {
      sent.push_back(std::move(entry["body"]));
    }
  }
  const std::string difference = SentDifference(sent, *expected);
  return JsonAnswer({{"ok", difference.empty()}, {"difference", difference}});
}

Answer OpenPage(Desk& desk, const HttpRequest& request) {
  const auto description = ReadDescription(request.json);
  if (!description.ok()) {
    return Fail(description.status());
  }
  try {
    const auto page = desk.pages().Open(*description, desk.limits().pages + (request.from_desk_page ? 1 : 0));
    return page ? JsonAnswer(page->Describe(), 201)
                : Busy(desk.pages().is_closing() ? "the desk is ending"
                                                 : std::to_string(desk.limits().pages) + " pages are already open");
  } catch (const std::system_error& error) {
    return Busy(std::string("no plug-in can be started: ") + error.what() +
                "; close pages, or raise the desk's limits (ulimit -Hn, ulimit -u)");
  }
}

}  // namespace

void AddPageRoutes(Router& router, Desk& desk) {
  using http::verb;
  using PagePtr = std::shared_ptr<Page>;
  enum class Of { kOpen, kEndedToo };
  // Routes of one page; `suffix` follows its id.
  const auto add = [&](verb method, const char* suffix, Body body, Of which,
                       std::function<void(const PagePtr&, const HttpRequest&, const ConnectionPtr&)> handler) {
    router.Add(method, std::string("/api/pages/*") + suffix, body,
               [&desk, which, handler = std::move(handler)](HttpRequest& request, const ConnectionPtr& connection) {
                 const std::string& id = request.parts[0];
                 const PagePtr open = desk.pages().Find(id);
                 if (const PagePtr page = open || which == Of::kOpen ? open : desk.pages().FindEnded(id)) {
                   return handler(page, request, connection);
                 }
                 connection->Reply(Fail({vconf::Code::kMissing, "there is no page " + id}));
               });
  };
  // The same for those that are answered at once.
  const auto add_now = [&](verb method, const char* suffix, Of which, std::function<Answer(Page&)> answer) {
    add(method, suffix, Body::kNone, which,
        [answer = std::move(answer)](const PagePtr& page, const auto&, const auto& to) { to->Reply(answer(*page)); });
  };
  const auto describe_all = [](const auto& pages) {
    Json all = Json::array();
    for (const auto& [number, page] : pages) {
      all.push_back(page->Describe());
    }
    return all;
  };

  router.Get("/api/pages", [&desk, describe_all](const HttpRequest&) {
    return JsonAnswer({{"pages", describe_all(desk.pages().all())}, {"ended", describe_all(desk.pages().ended())}});
  });
  router.Add(verb::post, "/api/pages", Body::kJson,
             [&desk](const HttpRequest& request, const ConnectionPtr& to) { to->Reply(OpenPage(desk, request)); });
  add_now(verb::get, "", Of::kOpen, [](Page& page) { return JsonAnswer(page.Describe()); });
  add_now(verb::delete_, "", Of::kEndedToo, [&desk](Page& page) {
    desk.pages().Leave(page, Pages::Keep::kNothing);
    desk.pages().Drop(page);
    return Answer{};
  });
  add_now(verb::post, "/leave", Of::kOpen, [&desk](Page& page) {
    desk.pages().Leave(page, Pages::Keep::kHistory);
    return Answer{};
  });
  add_now(verb::post, "/kill", Of::kOpen, [](Page& page) {
    page.Kill();
    return Answer{};
  });
  add_now(verb::get, "/dialogue", Of::kEndedToo,
          [](Page& page) { return Answer{.body = page.dialogue().Join("dialogue")}; });
  add_now(verb::get, "/log", Of::kEndedToo, [](Page& page) { return Answer{.body = page.log().Join("log")}; });

  add_now(verb::post, "/recording", Of::kOpen, [](Page& page) {
    return page.StartRecording() ? JsonAnswer(page.Describe(), 201)
                                 : Fail(409, "the page is being recorded already, or its plug-in is gone");
  });
  add_now(verb::delete_, "/recording", Of::kOpen, [](Page& page) {
    page.StopRecording();
    return JsonAnswer(page.Describe());
  });
  add_now(verb::get, "/recording", Of::kEndedToo, [](Page& page) {
    return page.recording() ? Answer{.body = page.recording()->text, .type = "application/jsonl"}
                            : Fail({vconf::Code::kMissing, "no recording of this page was started"});
  });

  add(verb::post, "/messages", Body::kJson, Of::kOpen,
      [&desk](const PagePtr& page, const auto& request, const auto& to) { Submit(desk, *page, request, to); });
  add(verb::post, "/verify", Body::kJson, Of::kOpen,
      [](const PagePtr& page, const auto& request, const auto& to) { to->Reply(Verify(*page, request.json)); });
  add(verb::get, "/deliveries", Body::kNone, Of::kOpen,
      [&desk](const PagePtr& page, const auto& request, const auto& to) {
        StreamDeliveries(desk, page, request, to, false);
      });
  add(verb::get, "/socket", Body::kNone, Of::kOpen, [&desk](const PagePtr& page, const auto& request, const auto& to) {
    if (!boost::beast::websocket::is_upgrade(to->message())) {
      return to->Reply(Fail(426, "this is a WebSocket; /deliveries sends the same as server-sent events"));
    }
    StreamDeliveries(desk, page, request, to, true);
  });
  router.Add(verb::get, "/api/events", Body::kNone,
             [&desk](const HttpRequest& request, const ConnectionPtr& to) { StreamEvents(desk, request, to); });
}

}  // namespace desk
