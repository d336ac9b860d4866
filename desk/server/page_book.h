#pragma once

// All pages of the desk.

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "server/page.h"

namespace desk {

/// All pages, and the processes of those that have left until they have ended. The loop's thread alone.
class PageBook final : private Page::Watcher {
 public:
  static constexpr std::size_t kMaxPages = 64;

  /// `on_change` is called when a page has come or gone.
  PageBook(boost::asio::io_context& loop, HostCommand command, EventLog& everything, std::function<void()> on_change);

  PageBook(const PageBook&) = delete;
  PageBook& operator=(const PageBook&) = delete;

  /// Null when as many are open as may be; with `reserve` there may be one more. Throws `std::system_error` when the
  /// system has no room for a process.
  std::shared_ptr<Page> Open(PageDescription description, bool reserve);

  /// Null for an unknown one.
  std::shared_ptr<Page> Find(std::string_view id) const;

  /// By number, in the order in which they came.
  const std::map<int, std::shared_ptr<Page>>& all() const { return pages_; }

  std::size_t limit() const { return limit_; }
  void set_limit(std::size_t limit) { limit_ = limit; }

  void Leave(Page& page, std::string_view reason = "the desk has ended this page");

  /// Ends all pages; none is opened any more. `on_closed` is called when all their processes are gone.
  void Close(std::function<void()> on_closed);

 private:
  void OnAbandoned(Page& page) override { Leave(page); }
  void OnEnded(Page& page) override;

  boost::asio::io_context& loop_;
  const HostCommand command_;
  EventLog& everything_;
  std::size_t limit_ = kMaxPages;
  const std::function<void()> on_change_;
  std::map<int, std::shared_ptr<Page>> pages_;
  std::map<int, std::shared_ptr<Page>> leaving_;  // until their processes have ended
  std::function<void()> on_closed_;
  int last_number_ = 0;
};

}  // namespace desk
