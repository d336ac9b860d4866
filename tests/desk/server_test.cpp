// The desk's server, where requests cannot cause the case: the exit after an internal failure, the output of a child
// process, and a host that stops reading.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <ranges>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/post.hpp>

#include "server/desk.h"
#include "server/host_process.h"
#include "server/pages.h"
#include "support/files.h"

namespace {

class ServerDeathTest : public testing::Test {
 protected:
  /// Runs a desk, calls `happens` on its loop, and exits with the desk's status.
  void Run(const std::function<void(desk::Desk&)>& happens) {
    int status = 0;
    {
      desk::Desk desk({.program = MIRADO_PROGRAM, .plugin = MIRADO_PLUGIN_PATH, .store = folder_ / "store", .port = 0});
      if (!desk.OpenStore().ok() || !desk.Start().ok()) _exit(99);
      boost::asio::post(desk.loop(), [&] { happens(desk); });
      status = desk.Run();
    }
    _exit(status);
  }

  TemporaryFolder folder_;
};

TEST_F(ServerDeathTest, ExitsWithStatus3AfterAnException) {
  EXPECT_EXIT(Run([](desk::Desk&) { throw std::runtime_error("something is wrong"); }), testing::ExitedWithCode(3),
              "something is wrong");
}

TEST_F(ServerDeathTest, ExitsAlthoughTheStoreHangs) {
  EXPECT_EXIT(Run([](desk::Desk& desk) {
                desk::HttpRequest request;
                desk.OnStore([](const desk::HttpRequest&) -> desk::Answer {
                  raise(SIGTERM);
                  while (true) pause();
                })(request, nullptr);
              }),
              testing::ExitedWithCode(3), "the disk may not be responding");
}

TEST(KeptTokenTest, IsTheSameForDesksThatStartAtTheSameMoment) {
  const TemporaryFolder folder;
  std::array<std::future<vconf::Result<std::string>>, 16> desks;
  std::ranges::generate(desks, [&] { return std::async(std::launch::async, desk::KeptToken, folder.path()); });
  const std::string token = *desks.front().get();
  EXPECT_EQ(token.size(), 32U);
  for (auto& other : desks | std::views::drop(1)) EXPECT_EQ(*other.get(), token);
}

class LineRecorder final : public desk::HostProcess::Listener {
 public:
  void OnLine(std::string_view line) override { lines.emplace_back(line); }
  void OnLogLine(std::string_view line) override { log.emplace_back(line); }
  void OnEnd(int wait_status) override { status = WEXITSTATUS(wait_status); }

  std::vector<std::string> lines;
  std::vector<std::string> log;
  int status = -1;
};

TEST(HostProcessTest, PassesOnAllOutputBeforeTheEnd) {
  boost::asio::io_context loop;
  LineRecorder child;
  LineRecorder none;
  const auto running = desk::HostProcess::Start(
      loop, {"/bin/sh", "-c", R"(head -c 200000 /dev/zero | tr '\0' x; echo; printf half; echo why >&2; exit 7)"},
      child);
  const auto failed = desk::HostProcess::Start(loop, {"/none"}, none);
  loop.run();
  EXPECT_EQ(child.lines, (std::vector<std::string>{std::string(200'000, 'x'), "half"}));
  EXPECT_EQ(child.log, std::vector<std::string>{"why"});
  EXPECT_EQ(child.status, 7);
  EXPECT_EQ(none.log, std::vector<std::string>{"cannot run /none: No such file or directory"});
  EXPECT_EQ(none.status, 127);
}

/// Pages whose host is a shell script.
class PagesTest : public testing::Test {
 protected:
  std::shared_ptr<desk::Page> Open(const std::string& script) {
    const std::string program = folder_ / "host";
    std::ofstream(program) << "#!/bin/sh\n" << script << '\n';
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    pages_ = std::make_unique<desk::Pages>(loop_, std::vector{program}, events_, [] {});
    return pages_->Open({.title = {}, .url = {}, .grace = std::chrono::hours(1)}, 1);
  }

  /// Whether `done` becomes true; the pages live meanwhile.
  bool Await(const std::function<bool()>& done) {
    while (!done()) {
      if (loop_.run_one_for(std::chrono::seconds(20)) == 0) return false;
    }
    return true;
  }

  TemporaryFolder folder_;
  boost::asio::io_context loop_;
  desk::EventLog events_{{.events = 100, .bytes = 100'000}};
  std::unique_ptr<desk::Pages> pages_;
};

TEST_F(PagesTest, AReaderIsNotifiedWhenAHostThatWasStoppedReadsAgain) {
  struct : desk::EventLog::Reader {
    void OnEvents() override { notified = true; }
    bool notified = false;
  } reader;
  const auto page = Open("exec cat >/dev/null");
  const pid_t pid = page->Describe()["pid"].get<int>();
  kill(pid, SIGSTOP);
  const std::string post = '"' + std::string(60'000, 'x') + '"';
  auto outcome = desk::Page::Outcome::kDone;
  while (outcome == desk::Page::Outcome::kDone) {
    outcome = page->Submit({{.waits = false, .body = post, .number = {}}});
  }
  EXPECT_EQ(outcome, desk::Page::Outcome::kFull);
  page->deliveries().Attach(&reader);
  kill(pid, SIGCONT);
  EXPECT_TRUE(Await([&] { return reader.notified; }));
  pages_->Leave(*page, desk::Pages::Keep::kHistory);
  EXPECT_FALSE(page->deliveries().kept().empty()) << "a reader gets the rest after the page has left";
  page->deliveries().Detach(&reader);
  page->OnStreamClosed();
  EXPECT_TRUE(page->deliveries().kept().empty());
}

}  // namespace
