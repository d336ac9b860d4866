#pragma once

// All pages of the desk.

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include <boost/asio/io_context.hpp>

#include "server/page.h"

namespace desk {

/// All open pages, the processes of those that have left until they have ended, and the last ended pages with what was
/// said on them. The loop's thread alone.
class PageBook final : private Page::Watcher {
 public:
  static constexpr std::size_t kMaxPages = 64;
  static constexpr std::size_t kMaxEnded = 8;

  /// `on_change` is called when a page has come or gone.
  PageBook(boost::asio::io_context& loop, HostCommand command, EventLog& everything, std::function<void()> on_change);

  PageBook(const PageBook&) = delete;
  PageBook& operator=(const PageBook&) = delete;

  /// Null when as many are open as may be; with `reserve` there may be one more. Throws `std::system_error` when the
  /// system has no room for a process.
  std::shared_ptr<Page> Open(PageDescription description, bool reserve);

  /// An open page; null for an unknown one.
  std::shared_ptr<Page> Find(std::string_view id) const { return FindIn(pages_, id); }
  /// An ended page; null for an unknown one.
  std::shared_ptr<Page> FindEnded(std::string_view id) const { return FindIn(ended_, id); }

  /// Those that are open, by number, in the order in which they came.
  const std::map<int, std::shared_ptr<Page>>& all() const { return pages_; }
  /// Those that have ended and are kept: at most `kMaxEnded`, and of a page that was loaded several times the last,
  /// with those that were recorded.
  const std::map<int, std::shared_ptr<Page>>& ended() const { return ended_; }

  std::size_t limit() const { return limit_; }
  void set_limit(std::size_t limit) { limit_ = limit; }

  enum class Keep { kNothing, kHistory };
  /// Ends an open page. With `kHistory` it is one of `ended` afterwards if anything was said on it.
  void Leave(Page& page, Keep keep, std::string_view reason = "the desk has ended this page");

  /// An ended page is kept no more.
  void Drop(Page& page);

  /// Ends all pages; none is opened any more. `on_closed` is called when all their processes are gone.
  void Close(std::function<void()> on_closed);

 private:
  using Map = std::map<int, std::shared_ptr<Page>>;

  static std::shared_ptr<Page> FindIn(const Map& pages, std::string_view id);
  void OnAbandoned(Page& page) override { Leave(page, Keep::kHistory); }
  void OnEnded(Page& page) override;
  void MakeRoomFor(const Page& page);
  void TellGone(const Page& page, bool kept);

  boost::asio::io_context& loop_;
  const HostCommand command_;
  EventLog& everything_;
  std::size_t limit_ = kMaxPages;
  const std::function<void()> on_change_;
  Map pages_;
  Map leaving_;              // until their processes have ended
  std::set<int> forgotten_;  // of these, the ones that are not kept
  Map ended_;
  std::function<void()> on_closed_;
  int last_number_ = 0;
};

}  // namespace desk
