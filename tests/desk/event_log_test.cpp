#include "server/event_log.h"

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace desk {
namespace {

constexpr std::chrono::milliseconds kNone(0);
constexpr std::chrono::minutes kLong(1);

std::string Event(int number) {
  return "id: " + std::to_string(number) + "\nevent: e\ndata: " + std::to_string(number) + "\n\n";
}

TEST(EventLog, TellsWhatIsLost) {
  EventLog log({.events = 3, .bytes = 1000});
  for (int number = 1; number <= 5; ++number) {
    log.Add("e", std::to_string(number));
  }
  EXPECT_EQ(log.Next(2, kNone).text, Event(3) + Event(4) + Event(5)) << "just in time";
  EXPECT_EQ(log.Next(0, kNone).text, "id: 2\nevent: lost\ndata: {\"count\":2}\n\n" + Event(3) + Event(4) + Event(5));
  EXPECT_EQ(log.Next(9, kNone).text, "id: 5\nevent: lost\ndata: {\"count\":0}\n\n") << "from before a restart";
}

TEST(EventLog, BoundsBytesButKeepsTheNewest) {
  EventLog log({.events = 100, .bytes = 10});
  for (const char* data : {"aaaa", "bbbb", "cccc"}) {
    log.Add("e", data);
  }
  EXPECT_EQ(log.Kept(), (std::vector<std::string>{"bbbb", "cccc"}));
  log.Add("e", std::string(50, 'd'));
  EXPECT_EQ(log.Kept(), std::vector<std::string>{std::string(50, 'd')});
}

TEST(EventLog, GivesAReaderThatIsFarBehindAllInSeveralBatches) {
  EventLog log({.events = 10'000, .bytes = 100'000'000});
  for (int i = 0; i < 1000; ++i) {
    log.Add("e", std::string(1000, 'x'));
  }
  std::uint64_t position = 0;
  int batches = 0;
  for (; position < log.Position(); ++batches) {
    const EventLog::Batch batch = log.Next(position, kNone);
    ASSERT_GT(batch.position, position);
    ASSERT_LT(batch.text.size(), 512U * 1024);
    position = batch.position;
  }
  EXPECT_EQ(position, 1000U);
  EXPECT_GT(batches, 1);
}

TEST(EventLog, WakesItsReadersForAnEventAndForTheEnd) {
  EventLog log({.events = 3, .bytes = 1000});
  std::thread writer([&] {
    log.Add("e", "1");
    log.Close();
    log.Add("e", "too late");
  });
  std::string text;
  std::uint64_t position = 0;
  for (bool closed = false; !closed;) {
    const EventLog::Batch batch = log.Next(position, kLong);
    text += batch.text;
    position = batch.position;
    closed = batch.closed;
  }
  writer.join();
  EXPECT_EQ(text, Event(1));
}

}  // namespace
}  // namespace desk
