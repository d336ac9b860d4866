#pragma once

// The last of a row of numbered events: what streams read and what a page's history is made of.

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace desk {

/// Text that several logs and streams hold at once.
using Text = std::shared_ptr<const std::string>;

inline Text MakeText(std::string text) { return std::make_shared<const std::string>(std::move(text)); }

/// Numbered events for readers that come, go and come back. The first event has number 1. The loop's thread alone.
class EventLog {
 public:
  struct Limits {
    std::size_t events;
    std::size_t bytes;  ///< with what keeping an event takes beside its data
  };

  struct Event {
    const char* name;  ///< lives for ever
    Text data;         ///< one line of JSON
  };

  /// Who is told that there is something to read, or that no more will come.
  class Reader {
   public:
    virtual void OnEvents() = 0;

   protected:
    ~Reader() = default;
  };

  /// Keeps no more than `limits` allows, the newest event in any case.
  explicit EventLog(Limits limits) : limits_(limits) {}
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  /// After `Close` it does nothing.
  void Add(const char* name, Text data);

  /// The event behind `position`, which is moved on to it; nothing when there is none. Where some are gone, or the
  /// position was never reached, it is an event `lost` with their number, and the position is moved before the oldest.
  std::optional<Event> Next(std::uint64_t& position) const;

  /// The number of the newest event, 0 without one.
  std::uint64_t newest() const { return newest_; }

  bool closed() const { return closed_; }

  /// The data of all that is kept, oldest first, as {"NAME":[…]}.
  std::string Join(std::string_view name) const;

  const std::deque<Event>& kept() const { return events_; }

  /// No more events; the readers learn of it.
  void Close();

  /// Calls all readers.
  void Tell() const;

  /// `reader` stays until it is detached, also while it is called.
  void Attach(Reader* reader) { readers_.push_back(reader); }
  void Detach(Reader* reader) { std::erase(readers_, reader); }

 private:
  const Limits limits_;
  std::deque<Event> events_;
  std::vector<Reader*> readers_;
  std::size_t bytes_ = 0;
  std::uint64_t newest_ = 0;
  bool closed_ = false;
};

}  // namespace desk
