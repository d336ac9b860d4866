// The exits of the desk after an internal failure, and what it reads of a child process.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include "server/desk.h"
#include "server/host_process.h"
#include "support/files.h"

namespace {

using boost::asio::ip::tcp;

class ServerDeathTest : public testing::Test {
 protected:
  /// Runs a desk in which `happens` is called while a client is connected. Ends the process with its exit status.
  void Run(const std::function<void(desk::Desk&)>& happens) {
    {
      desk::DeskOptions options;
      options.port = 0;
      options.host = {.program = MIRADO_PROGRAM, .plugin = MIRADO_PLUGIN_PATH, .store = folder_ / "store"};
      desk::Desk desk(options);
      if (!desk.OpenStore().ok() || !desk.Start().ok()) _exit(99);
      const std::string link = desk.Links().front();
      tcp::socket client(desk.loop);
      client.connect({boost::asio::ip::address_v4::loopback(),
                      static_cast<unsigned short>(std::stoi(link.substr(link.rfind(':') + 1)))});
      boost::asio::write(client,
                         boost::asio::buffer(std::string("GET /api/events HTTP/1.1\r\nHost: localhost\r\n\r\n")));
      std::array<char, 1024> head{};
      client.async_read_some(boost::asio::buffer(head), [&](auto, std::size_t) { happens(desk); });
      status_ = desk.Run();
    }
    _exit(status_);
  }

  TemporaryFolder folder_;
  int status_ = 0;
};

TEST_F(ServerDeathTest, EndsInGoodOrderAfterAnException) {
  EXPECT_EXIT(Run([](desk::Desk&) { throw std::runtime_error("something is wrong"); }), testing::ExitedWithCode(3),
              "something is wrong");
}

TEST_F(ServerDeathTest, EndsThoughTheStoreHangs) {
  EXPECT_EXIT(Run([](desk::Desk& desk) {
                desk::HttpRequest request;
                desk.OnStore(desk::StoreUse::kReads, [](const desk::HttpRequest&) -> desk::Answer {
                  raise(SIGTERM);
                  while (true) pause();
                })(request, nullptr);
              }),
              testing::ExitedWithCode(0), "the disk may not be responding");
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

}  // namespace
