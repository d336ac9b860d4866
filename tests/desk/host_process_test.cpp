#include "server/host_process.h"

#include <csignal>
#include <functional>
#include <future>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace desk {
namespace {

struct Listener final : HostProcess::Listener {
  void OnLine(std::string_view line) override { on_line(line); }
  void OnLogLine(std::string_view line) override { on_log_line(line); }
  void OnEnd(int /*wait_status*/) override { on_end(); }

  std::function<void(std::string_view)> on_line = [](std::string_view) {};
  std::function<void(std::string_view)> on_log_line = [](std::string_view) {};
  std::function<void()> on_end = [] {};
};

std::vector<std::string> Shell(std::string script) { return {"/bin/sh", "-c", std::move(script)}; }

TEST(HostProcess, TellsALogLineBeforeTheLineThatCameAfterIt) {
  Listener listener;
  std::promise<void> ended;
  listener.on_end = [&] { ended.set_value(); };
  int logged = 0;
  int lines = 0;
  int early = 0;
  listener.on_log_line = [&](std::string_view line) { logged = std::stoi(std::string(line)); };
  listener.on_line = [&](std::string_view line) {
    ++lines;
    early += std::stoi(std::string(line)) > logged ? 1 : 0;
  };
  const HostProcess process(Shell("i=0; while [ $i -lt 50000 ]; do i=$((i+1)); echo $i >&2; echo $i; done"), -1,
                            listener);
  ended.get_future().wait();
  EXPECT_EQ(lines, 50000);
  EXPECT_EQ(early, 0);
}

// Whoever writes may come between the end of the process and OnEnd.
TEST(HostProcess, CallsOnlyAChildThatLivesTooFarBehind) {
  std::signal(SIGPIPE, SIG_IGN);  // as the desk does
  const std::string line(1024UL * 1024, 'x');
  Listener listener;
  std::promise<bool> has_room;
  HostProcess process(Shell("exec sleep 1000"), -1, listener);
  listener.on_end = [&] { has_room.set_value(process.HasRoom(line)); };
  int taken = 0;
  for (; taken < 100 && process.HasRoom(line); ++taken) {
    process.Write(line);
  }
  EXPECT_GE(taken, 7);
  EXPECT_LT(taken, 10);
  process.Kill();
  EXPECT_TRUE(has_room.get_future().get());
}

}  // namespace
}  // namespace desk
