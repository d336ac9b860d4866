// 64 pages at once: what one of them feels while a second process drives the others.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include "desk.h"

namespace stress {
namespace {

using desk::Json;

constexpr int kOthers = 63;
constexpr std::chrono::milliseconds kBetweenRequests(100);
constexpr std::chrono::milliseconds kBetweenChanges(50);

/// What the crowd has done and heard so far.
struct Tally {
  std::atomic<int> asked;
  std::atomic<int> heard;
  std::atomic<int> failed;
  std::atomic<std::uint64_t> waited_us;  ///< for the answers to `asked`
};

/// A page that listens, watches a setting and asks ten times a second.
void BeAPage(int port, const std::string& id, Tally& tally) {
  Connection stream(port);
  stream.Send("GET /api/pages/" + id + "/deliveries HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_EQ(stream.Receive().value_or(Answer{}).status, 200);
  std::thread listening([&] {
    constexpr std::string_view kEvent = "MIRADO_EVENT";
    std::string text;
    for (std::string more = stream.ReadOn(); !more.empty(); more = stream.ReadOn()) {
      text += more;
      for (auto at = text.find(kEvent); at != std::string::npos; at = text.find(kEvent)) {
        text.erase(0, at + kEvent.size());
        ++tally.heard;
      }
    }
  });
  const std::string messages = "/api/pages/" + id + "/messages";
  Desk::Ask(port, "POST", messages, {{"send", {{"command", "registerVconfKeysForCaption"}, {"propertyKey", 0}}}});
  while (true) {  // until the process ends
    const auto before = Clock::now();
    const auto answer =
        Desk::Ask(port, "POST", messages, {{"send", {{"command", "getMenuValue"}, {"propertyKey", 0}}}});
    tally.waited_us += static_cast<std::uint64_t>(Milliseconds(Clock::now() - before) * 1000);
    ++(answer.status == 200 ? tally.asked : tally.failed);
    std::this_thread::sleep_for(kBetweenRequests);
  }
}

/// The second process: 63 pages, and a setting that all of them watch changes twenty times a second.
void Crowd(int port, Tally& tally, int pipe) {
  std::vector<std::thread> pages;
  for (int page = 0; page < kOthers; ++page) {
    const std::string id = Desk::Ask(port, "POST", "/api/pages", {{"grace", 60}}).json().value("id", "");
    EXPECT_NE(id, "");
    pages.emplace_back([port, id, &tally] { BeAPage(port, id, tally); });
  }
  EXPECT_EQ(write(pipe, "", 1), 1);
  for (int value = 0;; ++value) {
    Desk::Ask(port, "PUT", "/api/store/db/menu/caption/caption", {{"value", value}});
    std::this_thread::sleep_for(kBetweenChanges);
  }
}

/// The round trips of one page, in milliseconds.
std::vector<double> Measure(Progress& progress, const Desk& desk, const std::string& id, double requests, double done) {
  std::vector<double> times;
  while (static_cast<double>(times.size()) < requests && progress.GoesOn(done + static_cast<double>(times.size()))) {
    const auto before = Clock::now();
    const auto answer = desk.Ask("POST", "/api/pages/" + id + "/messages",
                                 {{"send", {{"command", "getMenuValue"}, {"propertyKey", 1}}}});
    times.push_back(Milliseconds(Clock::now() - before));
    EXPECT_EQ(answer.json()["reply"]["code"], 0) << answer.body;
  }
  return times;
}

}  // namespace

void RunLoad(double requests, unsigned /*seed*/) {
  Progress progress("load", 2 * requests, "requests");
  Desk desk;
  const std::string id = desk.Ask("POST", "/api/pages", {{"grace", 3600}}).json().value("id", "");
  const auto alone = Measure(progress, desk, id, requests, 0);
  auto& tally = SharedWithForks<Tally>();
  Process crowd([&](int pipe) { Crowd(desk.port(), tally, pipe); });
  char ready = 0;
  EXPECT_TRUE(crowd.Read(&ready));
  EXPECT_EQ(desk.Ask("GET", "/api/pages").json()["pages"].size(), kOthers + 1U);
  EXPECT_EQ(desk.Ask("POST", "/api/pages", Json::object()).status, 503);
  const int asked_before = tally.asked;
  const std::uint64_t waited_before = tally.waited_us;
  const int heard_before = tally.heard;
  const auto begun = Clock::now();
  const auto crowded = Measure(progress, desk, id, requests, requests);
  const double seconds = Milliseconds(Clock::now() - begun) / 1000;
  const int asked_meanwhile = tally.asked - asked_before;
  const double asked = asked_meanwhile / seconds;
  const double mean = static_cast<double>(tally.waited_us - waited_before) / 1000 / std::max(asked_meanwhile, 1);
  const double heard = (tally.heard - heard_before) / seconds / kOthers;
  crowd.Kill();
  crowd.Wait();
  desk.End();
  // The others ask as fast as they are answered, so on a slow machine all wait for one another; none waits much longer.
  EXPECT_LT(Quantile(crowded, 0.99), std::max(1'000.0, 10 * mean)) << "milliseconds; the others wait " << mean;
  EXPECT_EQ(tally.failed, 0) << "requests of the others";
  EXPECT_TRUE(Progress::Stopped() || heard > 0);
  std::printf(
      "load: alone p50 %.2f ms, p99 %.2f ms; among 64 pages that ask %.0f times a second and hear %.1f "
      "changes a second each: p50 %.2f ms, p99 %.2f ms%s\n",
      Quantile(alone, 0.5), Quantile(alone, 0.99), asked, heard, Quantile(crowded, 0.5), Quantile(crowded, 0.99),
      Progress::Remark().c_str());
}

}  // namespace stress
