#pragma once

// One page with its plug-in process: its messages, what came of them, and how long it lives.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "base/desk_options.h"
#include "base/json.h"
#include "host/protocol.h"
#include "server/event_log.h"
#include "server/host_process.h"

namespace desk {

/// What a page says of itself.
struct PageDescription {
  std::string title;
  std::string url;
  std::chrono::seconds grace{5};  ///< how long it lives without a stream and without a message

  bool operator==(const PageDescription&) const = default;
};

/// One page. The loop's thread alone.
class Page final : private HostProcess::Listener {
 public:
  using Clock = std::chrono::steady_clock;

  struct Message {
    bool waits;                          ///< a send, not a post
    std::string_view body;               ///< JSON text
    std::optional<std::int64_t> number;  ///< the page's own, to recognise a message that it sends again
  };

  enum class Outcome {
    kDone,
    kGone,  ///< there is no plug-in process, or it ended before it replied
    kFull,  ///< the plug-in has fallen so far behind that no more is taken
  };
  struct Result {
    Outcome outcome = Outcome::kDone;
    std::string text = {};  ///< the reply as JSON when there was a send that was not skipped
  };
  using OnResult = std::function<void(const Result&)>;

  /// What a page reports of.
  class Watcher {
   public:
    /// The page is not heard of any more and should leave.
    virtual void OnAbandoned(Page& page) = 0;
    /// The last of its process is gone. The page may be destroyed in this call.
    virtual void OnEnded(Page& page) = 0;

   protected:
    ~Watcher() = default;
  };

  /// Starts the plug-in. What happens to the page is told to `everything`; both must outlive it. Throws
  /// `std::system_error` when there is no room for its process.
  Page(boost::asio::io_context& loop, int number, PageDescription description, const HostCommand& command,
       EventLog& everything, Watcher& watcher);
  ~Page() = default;

  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  const std::string& id() const { return id_; }
  int number() const { return number_; }
  const PageDescription& description() const { return description_; }

  /// Hands `messages` to the plug-in in their order. Only the last may be a send. `on_result` is called once: at
  /// once, or with the reply to the send. Messages whose number is not above all that came before are skipped; a send
  /// that is skipped has no reply. Returns a ticket for `Forget`, 0 when nothing waits.
  std::uint64_t Submit(const std::vector<Message>& messages, OnResult on_result);

  /// How many wait for a reply.
  static constexpr std::ptrdiff_t kMaxWaiting = 16;  ///< what a caller should allow; a page in a browser has one
  std::ptrdiff_t waiting() const {
    return std::ranges::count_if(sends_, [](const PendingSend& send) { return bool(send.on_result); });
  }

  /// Nobody waits for the reply any more.
  void Forget(std::uint64_t ticket);

  Json Describe() const;
  bool Watches(std::string_view path) const;

  /// What the plug-in sent to the page: `message` and `crash`. Its readers are also told when the plug-in takes
  /// messages again.
  EventLog& deliveries() { return deliveries_; }
  const EventLog& dialogue() const { return dialogue_; }
  const EventLog& log() const { return log_; }

  /// Begins a recording with the state at this moment; false when one runs already. It ends by itself when it is full.
  bool StartRecording();
  void StopRecording();
  /// Nothing when none was started.
  const std::optional<std::string>& recording() const { return recording_; }

  void Kill() { host_->Kill(); }

  /// Asks the plug-in to end and lets everybody go who waits for it or reads its deliveries; these hear of `reason`
  /// unless they have heard of a crash. Returns at once.
  void End(std::string_view reason = "the desk has ended this page");

  /// A stream of deliveries begins or ends.
  void StreamOpened() { ++streams_; }
  void StreamClosed();
  int streams() const { return streams_; }

  /// Its process has ended.
  bool crashed() const { return ended_; }

  /// Releases the descriptors of a process that has ended. Not from a call to the watcher.
  void ReleaseProcess() { host_.reset(); }

 private:
  // A message that has not been answered yet.
  struct Pending {
    std::uint64_t entry;  // its number in the dialogue
    Clock::time_point start;
  };
  struct PendingSend : Pending {
    OnResult on_result;  // empty when nobody waits any more
  };

  void OnLine(std::string_view line) override;
  void Take(const OutLine& out, std::string_view line);
  void OnLogLine(std::string_view line) override;
  void OnRoom() override { deliveries_.Tell(); }
  void OnEnd(int wait_status) override;

  void SubmitOne(const Message& message);
  void OnReply(std::string_view reply);
  void OnDelivery(std::string_view message);
  void OnWatches(std::string_view paths);
  void OnRecorded(std::string_view line);
  void Log(std::string_view parts);
  Json LastLog(std::ptrdiff_t count) const;
  std::uint64_t Note(std::string_view kind, std::string_view body, const Pending* answers = nullptr,
                     std::string_view now = {});
  void Tell() { everything_.Add("page", MakeText(ToText(Describe()))); }
  void ReleaseWaiting();
  void Look();

  const int number_;
  const std::string id_;
  const PageDescription description_;
  const std::int64_t since_;
  EventLog& everything_;
  Watcher& watcher_;
  EventLog deliveries_;
  EventLog dialogue_;
  EventLog log_;
  std::deque<PendingSend> sends_;  // the host answers in order
  std::deque<Pending> posts_;
  std::vector<std::string> watches_;
  std::optional<std::int64_t> last_number_;
  std::optional<std::string> recording_;
  std::int64_t recording_since_ = 0;
  int recorded_lines_ = 0;
  int recordings_asked_ = 0;
  int recordings_begun_ = 0;  // whose first line has come
  bool recording_runs_ = false;
  bool recording_full_ = false;
  std::uint64_t entries_ = 0;
  std::uint64_t sent_ = 0;
  std::uint64_t delivered_ = 0;
  int streams_ = 0;
  Clock::time_point last_sign_ = Clock::now();
  bool leaving_ = false;
  bool ended_ = false;
  bool crashed_ = false;  // its process ended before the page left
  boost::asio::steady_timer look_;
  std::shared_ptr<HostProcess> host_;
  const int pid_;
};

}  // namespace desk
