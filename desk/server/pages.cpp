#include "server/pages.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include <boost/asio/post.hpp>

namespace desk {

Pages::Pages(boost::asio::io_context& loop, std::vector<std::string> host_command, EventLog& events,
             std::function<void()> on_change)
    : loop_(loop), host_command_(std::move(host_command)), events_(events), on_change_(std::move(on_change)) {}

std::shared_ptr<Page> Pages::Open(PageDescription description, std::size_t limit) {
  if (on_closed_ || pages_.size() >= limit) {
    return nullptr;
  }
  const int number = last_number_ + 1;
  Page::Owner& owner = *this;
  auto page = std::make_shared<Page>(loop_, number, std::move(description), host_command_, events_, owner);
  pages_.emplace(number, page);
  last_number_ = number;
  on_change_();
  return page;
}

std::shared_ptr<Page> Pages::FindIn(const Map& pages, std::string_view id) {
  const auto found = std::ranges::find_if(pages, [&](const auto& entry) { return entry.second->id() == id; });
  return found == pages.end() ? nullptr : found->second;
}

std::ptrdiff_t Pages::waiting() const {
  return std::transform_reduce(pages_.begin(), pages_.end(), std::ptrdiff_t{0}, std::plus(),
                               [](const auto& entry) { return entry.second->waiting(); });
}

void Pages::Leave(Page& page, Keep keep, std::string_view reason) {
  auto node = pages_.extract(page.number());
  if (node.empty()) {
    return;
  }
  const std::shared_ptr<Page> held = node.mapped();
  if (keep == Keep::kHistory && page.dialogue().newest() > 0) {
    MakeRoomFor(page);
    ended_.emplace(++last_end_, held);
  }
  page.End(reason);
  if (page.crashed()) {
    SendGone(page);
    boost::asio::post(loop_, [held] {});  // its timer's handler may be queued already
  } else {
    leaving_.insert(std::move(node));
  }
  on_change_();
}

void Pages::OnEnded(Page& page) {
  const auto node = leaving_.extract(page.number());
  if (node.empty()) {
    return;  // it has crashed and stays open
  }
  SendGone(page);
  boost::asio::post(loop_, [held = node.mapped()] {});  // its timer's handler may be queued already
  if (on_closed_ && leaving_.empty()) {
    boost::asio::post(loop_, on_closed_);
  }
}

void Pages::MakeRoomFor(const Page& page) {
  const auto is_plain = [](const auto& entry) { return !entry.second->recording() && !entry.second->crashed(); };
  const auto is_same = [&](const auto& entry) {
    const PageDescription& other = entry.second->description();
    return is_plain(entry) && other.title == page.description().title && other.url == page.description().url;
  };
  if (const auto earlier = std::ranges::find_if(ended_, is_same); earlier != ended_.end()) {
    Drop(*earlier->second);
  }
  if (ended_.size() >= kMaxEnded) {
    const auto oldest = std::ranges::find_if(ended_, is_plain);
    Drop(*(oldest != ended_.end() ? oldest : ended_.begin())->second);
  }
}

void Pages::Drop(const Page& page) {
  const auto found = std::ranges::find_if(ended_, [&](const auto& entry) { return entry.second.get() == &page; });
  if (found == ended_.end()) {
    return;
  }
  const auto node = ended_.extract(found);  // which may be the last to hold the page
  if (!leaving_.contains(page.number())) {
    SendGone(page);  // again, to say that it is kept no more
  }
}

void Pages::SendGone(const Page& page) {
  const Json ended = FindEnded(page.id()) ? page.Describe() : Json();
  events_.Add("gone", MakeText(ToText({{"id", page.id()}, {"number", page.number()}, {"ended", ended}})));
}

void Pages::Close(std::function<void()> on_closed) {
  if (on_closed_) {
    return;
  }
  on_closed_ = std::move(on_closed);
  // All are asked to exit before any is waited for.
  while (!pages_.empty()) {
    Leave(*pages_.begin()->second, Keep::kNothing, "the desk has ended");
  }
  if (leaving_.empty()) {
    boost::asio::post(loop_, on_closed_);
  }
}

}  // namespace desk
