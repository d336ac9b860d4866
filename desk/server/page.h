#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/json.h"
#include "server/event_log.h"
#include "server/host_process.h"

namespace desk {

/// How a page's plug-in is started.
struct HostCommand {
  std::string program;
  std::string plugin;
  std::string store;
};

/// What a page says of itself.
struct PageDescription {
  std::string title;
  std::string url;
  std::chrono::seconds grace{5};  ///< how long it lives without a stream and without a message
};

/// One page with its plug-in process. Every function may be called on any thread.
class Page final : private HostProcess::Listener {
 public:
  struct Message {
    bool waits;  ///< a send, not a post
    ParsedJson body;
    std::optional<std::int64_t> number;  ///< the page's own, to recognise a message that it sends again
  };

  enum class Outcome {
    kDone,
    kGone,     ///< there is no plug-in process, or it ended before it replied
    kFull,     ///< the plug-in has fallen so far behind that no more is taken
    kRefused,  ///< the host would not take the message; the text is in `error`
  };
  struct Result {
    Outcome outcome = Outcome::kDone;
    std::optional<Json> reply;  ///< when there was a send
    std::string error;
  };

  /// Starts the plug-in. What happens to the page is told to `everything`, which must outlive it.
  Page(int number, PageDescription description, const HostCommand& command, EventLog& everything);
  ~Page();

  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  const std::string& id() const { return id_; }
  int number() const { return number_; }

  /// Hands `messages` to the plug-in in their order and waits for the reply where one does. Messages whose number is
  /// not above all that came before are skipped; a send that is skipped has no reply.
  Result Submit(std::vector<Message> messages);

  Json Describe() const;
  bool Watches(std::string_view path) const;

  /// What the plug-in sent to the page: `message` and `crash`.
  const EventLog& deliveries() const { return deliveries_; }
  const EventLog& dialogue() const { return dialogue_; }
  const EventLog& log() const { return log_; }

  /// The recording of the whole session so far.
  std::string Recording() const;

  void Kill() { host_->Kill(); }

  /// Asks the plug-in to end and lets everybody go who waits for it or reads its deliveries; these hear of `reason`
  /// unless they have heard of a crash. Returns at once.
  void End(std::string_view reason = "the desk has ended this page");

  /// A stream of deliveries begins or ends.
  void StreamOpened();
  void StreamClosed();

  /// No stream, and no sign of life for the page's grace. A page that waits for a reply can give none; it has as much
  /// time more as the set may hold a reply back.
  bool IsAbandoned() const;

 private:
  using Clock = std::chrono::steady_clock;

  // A message that has not been answered yet.
  struct Pending {
    std::uint64_t line;   // as the host counts its input
    std::uint64_t entry;  // as the dialogue counts
    Clock::time_point start;
    std::string watch_path;  // what a good reply means for the page's subscriptions; empty for most
    bool watch_begins;
    Result* result;  // where a send waits; null for a post
  };

  void OnLine(std::string_view line) override;
  void OnLogLine(std::string_view line) override;
  void OnEnd(int wait_status) override;

  // The following are called with mutex_ held.
  bool SubmitOne(const Message& message, Result* result);
  void OnReply(Json reply);
  void OnDelivery(const Json& message);
  void OnRefusal(const std::string& error);
  std::uint64_t Note(std::string_view kind, Json body, const Pending* answers = nullptr);
  void ReleaseWaiting();
  Json DescribeLocked() const;

  const int number_;
  const std::string id_;
  const PageDescription description_;
  const std::int64_t since_;
  EventLog& everything_;
  EventLog deliveries_;
  EventLog dialogue_;
  EventLog log_;
  UniqueFd recording_;

  mutable std::mutex mutex_;
  std::condition_variable answered_;
  std::deque<Pending> sends_;  // the host answers in order
  std::deque<Pending> posts_;
  std::set<std::string, std::less<>> watches_;
  std::optional<std::int64_t> last_number_;
  std::string last_log_line_;
  std::uint64_t lines_ = 0;
  std::uint64_t entries_ = 0;
  std::uint64_t sent_ = 0;
  std::uint64_t delivered_ = 0;
  int streams_ = 0;
  Clock::time_point last_sign_ = Clock::now();
  bool leaving_ = false;
  bool ended_ = false;

  std::unique_ptr<HostProcess> host_;  // last: its thread uses all of the above
};

/// All pages. A thread of its own ends those that have gone away, and waits for the processes of all that ended, so
/// that no request has to. Every function may be called on any thread.
class PageBook {
 public:
  static constexpr std::size_t kMaxPages = 64;

  PageBook(HostCommand command, EventLog& everything);
  /// As `Close`.
  ~PageBook();

  PageBook(const PageBook&) = delete;
  PageBook& operator=(const PageBook&) = delete;

  /// Null when there are `kMaxPages` already. A process that cannot be started throws `std::system_error`.
  std::shared_ptr<Page> Open(PageDescription description);

  /// Null for an unknown one.
  std::shared_ptr<Page> Find(const std::string& id) const;

  /// In the order in which they came.
  std::vector<std::shared_ptr<Page>> All() const;

  void Leave(const std::string& id);

  /// Ends all pages; none is opened any more. The processes are gone when everybody has let go of their pages.
  void Close();

 private:
  void Look();

  const HostCommand command_;
  EventLog& everything_;
  mutable std::mutex mutex_;
  std::condition_variable closing_;
  std::map<int, std::shared_ptr<Page>> pages_;
  std::vector<std::shared_ptr<Page>> ended_;  // until no request uses them any more
  int last_number_ = 0;
  bool closed_ = false;
  std::thread watcher_;
};

}  // namespace desk
