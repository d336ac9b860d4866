// How the desk's server ends when something goes wrong inside.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include "server/desk.h"
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
              testing::ExitedWithCode(0), "a disk may hang");
}

}  // namespace
