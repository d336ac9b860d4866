#pragma once

// A bounded log of numbered events, for streams and for a page's history.

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace desk {

/// Text that several logs and streams share.
using Text = std::shared_ptr<const std::string>;

/// JSON as one line: a client may send line ends between its parts.
inline Text MakeText(std::string json) {
  std::ranges::replace_if(
      json, [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return std::make_shared<const std::string>(std::move(json));
}

/// Keeps the newest events, numbered from 1. A reader keeps its own position, so it can continue after a break. To be
/// used on the loop's thread only.
class EventLog {
 public:
  struct Limits {
    std::size_t events;
    std::size_t bytes;  ///< including the overhead of each event
  };

  struct Event {
    const char* name;  ///< a literal
    Text data;         ///< one line of JSON
  };

  /// Is notified of new events and of the end of the log.
  class Reader {
   public:
    virtual void OnEvents() = 0;

   protected:
    ~Reader() = default;
  };

  /// The newest event is kept even if it exceeds `limits`.
  explicit EventLog(Limits limits) : limits_(limits) {}
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  /// Does nothing after `Close`.
  void Add(const char* name, Text data);

  /// Returns the event after `position` and advances `position`; empty if there is none. If events after `position`
  /// were dropped, returns an event `lost` with their count and moves `position` before the oldest event. A `position`
  /// that does not exist yet is one of an earlier run: `lost` with count 0, and `position` moves to the newest event.
  std::optional<Event> Next(std::uint64_t& position) const;

  /// The number of the newest event, 0 if there was none.
  std::uint64_t newest() const { return newest_; }

  bool closed() const { return closed_; }

  /// The data of the kept events, oldest first, as {"NAME":[…]}.
  std::string Join(std::string_view name) const;

  const std::deque<Event>& kept() const { return events_; }

  /// Ends the log; its events can still be read.
  void Close();

  /// Drops all events.
  void Clear();

  void NotifyReaders() const;

  /// `reader` must live until it is detached.
  void Attach(Reader* reader) { readers_.push_back(reader); }
  void Detach(Reader* reader) { std::erase(readers_, reader); }
  std::size_t readers() const { return readers_.size(); }

 private:
  const Limits limits_;
  std::deque<Event> events_;
  std::vector<Reader*> readers_;
  std::size_t bytes_ = 0;
  std::uint64_t newest_ = 0;
  bool closed_ = false;
};

}  // namespace desk
