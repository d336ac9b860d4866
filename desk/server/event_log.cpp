#include "server/event_log.h"

#include <utility>

namespace desk {
namespace {

// One batch is written in one go; a reader that is far behind gets several.
constexpr std::size_t kBatchBytes = 256UL * 1024;

void Append(std::string& text, std::uint64_t number, std::string_view name, std::string_view data) {
  text.append("id: ").append(std::to_string(number)).append("\nevent: ").append(name);
  text.append("\ndata: ").append(data).append("\n\n");
}

}  // namespace

void EventLog::Add(std::string_view name, std::string data) {
  {
    const std::lock_guard lock(mutex_);
    if (closed_) {
      return;
    }
    bytes_ += data.size();
    events_.push_back({std::string(name), std::move(data)});
    ++newest_;
    while (events_.size() > 1 && (events_.size() > limits_.events || bytes_ > limits_.bytes)) {
      bytes_ -= events_.front().data.size();
      events_.pop_front();
    }
  }
  changed_.notify_all();
}

EventLog::Batch EventLog::Next(std::uint64_t position, std::chrono::milliseconds patience) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, patience, [&] { return closed_ || newest_ != position; });
  Batch batch{.text = {}, .position = position, .closed = false};
  const std::uint64_t gone = newest_ - events_.size();
  if (position < gone || position > newest_) {
    // A position that was never reached is one of an earlier run; the reader cannot know what it missed either.
    const std::uint64_t start = position < gone ? gone : newest_;
    Append(batch.text, start, "lost", "{\"count\":" + std::to_string(position < gone ? gone - position : 0) + "}");
    batch.position = start;
  }
  while (batch.position < newest_ && batch.text.size() < kBatchBytes) {
    const Event& event = events_[batch.position - gone];
    Append(batch.text, ++batch.position, event.name, event.data);
  }
  batch.closed = closed_ && batch.position == newest_;
  return batch;
}

std::uint64_t EventLog::Position() const {
  const std::lock_guard lock(mutex_);
  return newest_;
}

std::vector<std::string> EventLog::Kept() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> kept;
  kept.reserve(events_.size());
  for (const Event& event : events_) {
    kept.push_back(event.data);
  }
  return kept;
}

void EventLog::Close() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  changed_.notify_all();
}

}  // namespace desk
