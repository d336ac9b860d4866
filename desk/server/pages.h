#pragma once

// The pages of the desk: those that are open, and those that have left.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "server/page.h"

namespace desk {

/// Owns the open pages, those whose processes are still ending, and the last that have left, with their history. To be
/// used on the loop's thread only.
class Pages final : private Page::Owner {
 public:
  static constexpr std::size_t kMaxPages = 64;
  static constexpr std::size_t kMaxEnded = 8;

  /// `on_change` is called after a page was opened or has left.
  Pages(boost::asio::io_context& loop, std::vector<std::string> host_command, EventLog& events,
        std::function<void()> on_change);

  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;

  /// Starts a page. Null if `limit` pages are open, or after `Close`. Throws `std::system_error` if no process or pipe
  /// can be created.
  std::shared_ptr<Page> Open(PageDescription description, std::size_t limit);

  /// An open page; null for an unknown one.
  std::shared_ptr<Page> Find(std::string_view id) const { return FindIn(pages_, id); }
  /// One of `ended`; null for another one.
  std::shared_ptr<Page> FindEnded(std::string_view id) const { return FindIn(ended_, id); }

  /// The open pages by number, in the order in which they were opened.
  const std::map<int, std::shared_ptr<Page>>& all() const { return pages_; }
  /// The pages that have left and are kept, in the order in which they left: at most `kMaxEnded`. Of pages with the
  /// same title and URL only the last is kept, and those that were recorded or crashed. The process may still be
  /// ending.
  const std::map<int, std::shared_ptr<Page>>& ended() const { return ended_; }

  /// The number of clients that wait for a reply of a page.
  std::ptrdiff_t waiting() const;

  bool is_closing() const { return static_cast<bool>(on_closed_); }

  enum class Keep { kNothing, kHistory };
  /// Ends an open page. With `kHistory` it becomes one of `ended` if its dialogue is not empty.
  void Leave(Page& page, Keep keep, std::string_view reason = "the desk has ended this page");

  /// Removes a page from `ended`, if it is there.
  void Drop(const Page& page);

  /// Ends all pages and opens no more. `on_closed` is called when all processes have ended.
  void Close(std::function<void()> on_closed);

 private:
  using Map = std::map<int, std::shared_ptr<Page>>;

  static std::shared_ptr<Page> FindIn(const Map& pages, std::string_view id);
  void OnAbandoned(Page& page) override { Leave(page, Keep::kHistory); }
  void OnEnded(Page& page) override;
  void MakeRoomFor(const Page& page);
  void SendGone(const Page& page);

  boost::asio::io_context& loop_;
  const std::vector<std::string> host_command_;
  EventLog& events_;
  const std::function<void()> on_change_;
  Map pages_;
  Map leaving_;  // until their processes have ended
  Map ended_;    // by the order in which they left; some are also in `leaving_`
  std::function<void()> on_closed_;
  int last_number_ = 0;
  int last_end_ = 0;
};

}  // namespace desk
