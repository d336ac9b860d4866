// A client that says everything a little wrong.
#include <algorithm>
#include <cstdio>

#include "desk.h"
#include "set/simulated_set.h"

namespace stress {
namespace {

using desk::Json;

struct Seed {
  const char* method;
  std::string path;
  std::string body;
};

class Mutator {
 public:
  Mutator(const std::string& page, unsigned seed)
      : seeds_{{"GET", "/api/settings", ""},
               {"GET", "/api/store?prefix=memory/", ""},
               {"GET", "/api/store/db/menu/caption/caption", ""},
               {"PUT", "/api/store/db/menu/caption/caption", R"({"value": 1})"},
               {"PUT", "/api/store/db/other", R"({"value": "text"})"},
               {"DELETE", "/api/store/db/other", ""},
               {"GET", "/api/set", ""},
               {"PATCH", "/api/set", R"({"b2b": true, "pictureSize": null, "embedder": {"replies": {"a": 1}}})"},
               {"PATCH", "/api/set", R"({"lists": {"primary-audio-language": [{"value": 1, "label": "English"}]}})"},
               {"GET", "/api/faults", ""},
               {"POST", "/api/faults", R"({"call": "vconf_get_int", "path": "*", "answer": -1, "times": 1})"},
               {"DELETE", "/api/faults?call=vconf_get_int&path=*", ""},
               {"GET", "/api/pages", ""},
               {"POST", "/api/pages", R"({"title": "App", "url": "http://localhost/", "grace": 1})"},
               {"GET", "/api/pages/" + page, ""},
               {"POST", "/api/pages/" + page + "/messages", R"({"send": {"command": "getVersion"}})"},
               {"POST", "/api/pages/" + page + "/messages", R"([{"post": {"command": "setMenuValue"}, "n": 7}])"},
               {"GET", "/api/pages/" + page + "/deliveries", ""},
               {"GET", "/api/pages/" + page + "/dialogue", ""},
               {"GET", "/api/pages/" + page + "/log", ""},
               {"GET", "/api/pages/" + page + "/recording", ""},
               {"POST", "/api/pages/" + page + "/recording", ""},
               {"POST", "/api/pages/" + page + "/verify", R"({"messages": ["getVersion"], "times": 1})"},
               {"GET", "/api/pages/" + page + "/socket", ""},
               {"GET", "/api/desk", ""},
               {"PUT", "/api/scenarios/odd", "{}"},
               {"POST", "/api/scenarios/odd/load", ""},
               {"GET", "/api/events", ""},
               {"POST", "/api/reset", "{}"},
               {"GET", "/desk.js", ""},
               {"GET", "/", ""}},
        random_(seed) {}

  /// A request of sound form with something odd in what it says.
  std::string OddRequest() {
    Seed seed = Pick(seeds_);
    std::string headers;
    for (int changes = Below(3) + 1; changes > 0; --changes) {
      switch (Below(6)) {
        case 0:
          seed.method = Pick(kMethods);
          break;
        case 1:
          seed.path = Encoded("/" + Mutated(seed.path.substr(1)));
          break;
        case 2:
          seed.body = Pick(seeds_).body;
          break;
        case 3:
          seed.body = Mutated(seed.body);
          break;
        case 4:
          headers += Pick(kHeaders);
          break;
        default:
          seed.path = Pick(seeds_).path;
      }
    }
    if (headers.find("Host:") == std::string::npos) headers += "Host: localhost\r\n";
    if (headers.find("Connection:") == std::string::npos) headers += "Connection: close\r\n";
    if (headers.find("Content-Type:") == std::string::npos) headers += "Content-Type: application/json\r\n";
    return std::string(seed.method) + " " + seed.path + " HTTP/1.1\r\n" + headers +
           "Content-Length: " + std::to_string(seed.body.size()) + "\r\n\r\n" + seed.body;
  }

  /// A request whose form is broken as well.
  std::string BrokenRequest() { return Mutated(OddRequest()); }

 private:
  static constexpr std::array kMethods = {"GET", "PUT", "POST", "DELETE", "PATCH", "OPTIONS", "HEAD"};
  static inline const std::array<std::string, 9> kHeaders = {
      "Host: evil.example\r\n", "Host: 127.0.0.1:1\r\n",          "Origin: http://evil.example\r\n",
      "Origin: null\r\n",       "Content-Type: text/plain\r\n",   "Last-Event-ID: 99999999999999999999\r\n",
      "Range: bytes=5-1,-\r\n", "Sec-Fetch-Site: cross-site\r\n", "X-Odd: \x01\x7f\r\n"};
  static inline const std::array<std::string, 13> kTokens = {"null",
                                                             "-1",
                                                             "1e400",
                                                             "{}",
                                                             "[]",
                                                             R"("\u0000")",
                                                             "\xff",
                                                             "../",
                                                             "%2e%2e%2f",
                                                             "\"a\":",
                                                             "\r\n",
                                                             std::string(200, '['),
                                                             std::string(70'000, 'x')};

  int Below(int bound) { return std::uniform_int_distribution<>(0, bound - 1)(random_); }
  std::size_t Place(const std::string& text) {
    return static_cast<std::size_t>(Below(static_cast<int>(text.size()) + 1));
  }
  template <typename Choices>
  const typename Choices::value_type& Pick(const Choices& choices) {
    return choices[static_cast<std::size_t>(Below(static_cast<int>(choices.size())))];
  }

  std::string Mutated(std::string text) {
    for (int changes = Below(4) + 1; changes > 0; --changes) {
      const std::size_t at = Place(text);
      switch (Below(5)) {
        case 0:
          text.insert(at, Below(20) == 0 ? kTokens.back() : Pick(kTokens).substr(0, 200));
          break;
        case 1:
          text.erase(at, static_cast<std::size_t>(Below(8)));
          break;
        case 2:
          text.insert(at, text.substr(Place(text), static_cast<std::size_t>(Below(32))));
          break;
        case 3:
          text.resize(at);
          break;
        default:
          if (at < text.size()) text[at] = static_cast<char>(text[at] ^ (1 << Below(8)));
      }
    }
    return text;
  }

  /// Keeps the request line in one piece, whatever bytes the path has.
  static std::string Encoded(const std::string& path) {
    std::string encoded;
    for (const char c : path) {
      std::array<char, 4> hex{};
      std::snprintf(hex.data(), hex.size(), "%%%02x", static_cast<unsigned char>(c));
      encoded += c > ' ' && c < '\x7f' ? std::string(1, c) : hex.data();
    }
    return encoded;
  }

  const std::vector<Seed> seeds_;
  std::mt19937 random_;
};

/// Beyond this many bytes a request may be closed without an answer.
constexpr std::size_t kMaxRequest = 131'072;

/// What a request of sound form is answered with.
void CheckAnswer(const std::string& request, const Answer& answer) {
  static constexpr std::array kStatuses = {200, 201, 204, 400, 403, 404, 405, 409, 410, 413, 415, 426, 431, 503};
  const std::string what = request.substr(0, 400) + "\n" + std::to_string(answer.status) + " " + answer.body;
  EXPECT_NE(std::ranges::find(kStatuses, answer.status), kStatuses.end()) << what;
  if (answer.status >= 400 && !request.starts_with("HEAD ")) {
    EXPECT_TRUE(answer.is_json() && answer.json()["error"].is_string()) << what;
  }
}

}  // namespace

void RunHttp(double requests, unsigned seed) {
  Progress progress("http", requests, "requests");
  Desk desk;
  const std::string page = desk.Ask("POST", "/api/pages", {{"grace", 3600}}).json().value("id", "");
  EXPECT_NE(page, "");
  Mutator mutator(page, seed);
  std::map<int, int> statuses;
  int request = 0;
  for (; progress.GoesOn(request); ++request) {
    const bool odd = request % 2 == 0;
    const std::string bytes = odd ? mutator.OddRequest() : mutator.BrokenRequest();
    Connection connection(desk.port());
    connection.Send(bytes);
    // Where the form is broken the server may wait for a rest that never comes.
    if (!odd && !connection.Hears(std::chrono::milliseconds(50))) connection.Finish();
    const auto answer = connection.Receive();
    EXPECT_TRUE(answer) << "no end to the answer for " << bytes.substr(0, 400);
    if (!answer) break;
    ++statuses[answer->status];
    const bool too_long = bytes.size() > kMaxRequest && answer->status == 0;
    if (odd && !too_long) {
      CheckAnswer(bytes, *answer);
    } else if (!odd) {
      EXPECT_LE(answer->status, 505) << bytes.substr(0, 400);
      EXPECT_NE(answer->status, 500) << bytes.substr(0, 400);
    }
    if (request % 100 == 99) {
      EXPECT_EQ(desk.Ask("POST", "/api/reset", Json::object()).status, 200);
      const Answer settings = desk.Ask("GET", "/api/settings");
      EXPECT_EQ(settings.json()["settings"].size(), 23U) << settings.body;
    }
  }
  const auto reply = desk.Ask("POST", "/api/pages/" + page + "/messages", {{"send", {{"command", "getVersion"}}}});
  EXPECT_TRUE(reply.status == 200 || reply.status == 404 || reply.status == 410) << "unless it was told to leave";
  desk.End();
  std::printf("http: %d requests%s, each answered or closed; the desk answers afterwards and leaves no process;",
              request, Progress::Remark().c_str());
  for (const auto& [status, count] : statuses) std::printf(" %d: %d", status, count);
  std::puts(" (0: closed)");
}

}  // namespace stress
