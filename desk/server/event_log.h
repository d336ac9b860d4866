#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace desk {

/// The last of a row of numbered events, for readers that come, go and come back. The first event has number 1. Every
/// function may be called on any thread.
class EventLog {
 public:
  struct Limits {
    std::size_t events;
    std::size_t bytes;
  };

  /// What a reader gets: server-sent events, ready to be written, and where it stands now.
  struct Batch {
    std::string text;
    std::uint64_t position;
    bool closed;  ///< no more will come
  };

  /// Keeps no more than `limits` allows, the newest event in any case.
  explicit EventLog(Limits limits) : limits_(limits) {}

  /// `data` must be one line. After `Close` it does nothing.
  void Add(std::string_view name, std::string data);

  /// The events behind `position`, waiting up to `patience` for one. Where some of them are gone, or the position was
  /// never reached, the batch begins with an event `lost` that says how many.
  Batch Next(std::uint64_t position, std::chrono::milliseconds patience) const;

  /// The number of the newest event, 0 without one.
  std::uint64_t Position() const;

  /// The data of all that is kept, oldest first.
  std::vector<std::string> Kept() const;

  /// Lets every reader go once it has read what is there.
  void Close();

 private:
  struct Event {
    std::string name;
    std::string data;
  };

  const Limits limits_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::deque<Event> events_;
  std::size_t bytes_ = 0;
  std::uint64_t newest_ = 0;
  bool closed_ = false;
};

}  // namespace desk
