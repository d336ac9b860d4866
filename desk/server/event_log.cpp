#include "server/event_log.h"

#include <utility>

namespace desk {
namespace {

// With the overhead of the event, the shared text and its allocation.
std::size_t SizeOf(const EventLog::Event& event) { return event.data->size() + 96; }

}  // namespace

void EventLog::Add(const char* name, Text data) {
  if (closed_) {
    return;
  }
  events_.push_back({.name = name, .data = std::move(data)});
  bytes_ += SizeOf(events_.back());
  ++newest_;
  while (events_.size() > 1 && (events_.size() > limits_.events || bytes_ > limits_.bytes)) {
    bytes_ -= SizeOf(events_.front());
    events_.pop_front();
  }
  NotifyReaders();
}

std::optional<EventLog::Event> EventLog::Next(std::uint64_t& position) const {
  const std::uint64_t gone = newest_ - events_.size();
  if (position < gone || position > newest_) {
    const std::uint64_t count = position < gone ? gone - position : 0;
    position = position < gone ? gone : newest_;
    return Event{.name = "lost", .data = MakeText("{\"count\":" + std::to_string(count) + "}")};
  }
  if (position == newest_) {
    return std::nullopt;
  }
  return events_[static_cast<std::size_t>(position++ - gone)];
}

std::string EventLog::Join(std::string_view name) const {
  std::string text;
  text.reserve(bytes_);
  text.append("{\"").append(name).append("\":[");
  std::string_view separator;
  for (const Event& event : events_) {
    text.append(std::exchange(separator, ",")).append(*event.data);
  }
  return text + "]}";
}

void EventLog::Close() {
  closed_ = true;
  NotifyReaders();
}

void EventLog::Clear() {
  events_ = {};
  bytes_ = 0;
}

// A notified reader may detach itself and others.
void EventLog::NotifyReaders() const {
  for (std::size_t index = readers_.size(); index-- > 0;) {
    if (index < readers_.size()) {
      readers_[index]->OnEvents();
    }
  }
}

}  // namespace desk
