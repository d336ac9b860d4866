#pragma once

// One page: its plug-in process, its messages with their results, and its lifetime.

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

#include "base/json.h"
#include "host/protocol.h"
#include "server/connection.h"
#include "server/event_log.h"
#include "server/host_process.h"

namespace desk {

/// What a client states when it opens a page.
struct PageDescription {
  std::string title;
  std::string url;
  std::chrono::seconds grace{5};  ///< how long the page lives without a stream or a message
};

/// The answer if the plug-in's process has ended.
Answer AnswerGone();

/// A page as clients see it under `/api/pages/ID`. To be used on the loop's thread only.
class Page final : private HostProcess::Listener {
 public:
  using Clock = std::chrono::steady_clock;

  struct Message {
    bool waits;                          ///< a send, not a post
    std::string_view body;               ///< JSON text
    std::optional<std::int64_t> number;  ///< increasing; a message with a number that was already received is skipped
  };

  enum class Outcome {
    kDone,
    kWaits,  ///< the page answers the client when the plug-in has replied, or has gone
    kGone,   ///< there is no plug-in process
    kFull,   ///< the plug-in has left too much unread
  };

  struct Recording {
    std::int64_t since;  ///< milliseconds since 1970
    std::string text;    ///< whole lines
    int lines = 0;
    bool running = true;
    bool full = false;
  };

  /// Ends and destroys the page.
  class Owner {
   public:
    /// The page has had no stream and no message for its grace and should be ended.
    virtual void OnAbandoned(Page& page) = 0;
    /// The process has ended and its output was read. The last call; the page may be destroyed in it.
    virtual void OnEnded(Page& page) = 0;

   protected:
    ~Owner() = default;
  };

  /// Starts the plug-in. Events of the page are added to `events`, which must outlive the page, as must `owner`. Throws
  /// `std::system_error` if no process or pipe can be created.
  Page(boost::asio::io_context& loop, int number, PageDescription description,
       const std::vector<std::string>& host_command, EventLog& events, Owner& owner);
  ~Page() = default;

  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  const std::string& id() const { return id_; }
  int number() const { return number_; }
  const PageDescription& description() const { return description_; }

  /// Passes `messages` to the plug-in in order. Only the last may be a send; `client` waits for its reply. Messages
  /// whose number is not above all earlier ones are skipped; a skipped send has no reply.
  Outcome Submit(const std::vector<Message>& messages, const std::shared_ptr<Connection>& client = nullptr);

  /// The number of clients that wait for a reply.
  static constexpr std::ptrdiff_t kMaxWaiting = 16;  ///< to be checked before `Submit`; a page in a browser has one
  std::ptrdiff_t waiting() const {
    return std::ranges::count_if(sends_, [](const PendingSend& send) { return send.client->is_waiting(); });
  }

  Json Describe() const;
  bool Watches(std::string_view path) const;

  /// The events `message` and `crash`. The readers are also notified when there is room for messages again.
  EventLog& deliveries() { return deliveries_; }
  const EventLog& dialogue() const { return dialogue_; }
  const EventLog& log() const { return log_; }

  /// Starts a recording with the current state; false if one is running or the plug-in is gone. A full one ends.
  bool StartRecording();
  void StopRecording();
  /// The last recording, if one was started.
  const std::optional<Recording>& recording() const { return recording_; }

  void Kill();

  /// Asks the process to exit, ends waiting sends, and ends the streams of deliveries, after an event `crash` with
  /// `reason` unless there was a crash. Does not wait.
  void End(std::string_view reason);

  /// A stream has ended reading the deliveries.
  void OnStreamClosed();

  /// The process has ended before the page left.
  bool crashed() const { return !crash_.is_null(); }

 private:
  // A message that the plug-in has not answered yet.
  struct Pending {
    std::uint64_t entry;  // its number in the dialogue
    Clock::time_point start;
  };
  struct PendingSend : Pending {
    std::shared_ptr<Connection> client;
  };

  void OnLine(std::string_view line) override;
  void OnLogLine(std::string_view line) override;
  void OnRoom() override { deliveries_.NotifyReaders(); }
  void OnEnd(int wait_status) override;

  void OnReply(std::string_view reply);
  void OnDelivery(std::string_view message);
  void OnWatches(std::string_view paths);
  void OnRecorded(std::string_view line);
  void AddRow(EventLog& log, const char* name, std::string_view members);
  Json LastLog(std::ptrdiff_t count) const;
  std::uint64_t AddToDialogue(std::string_view kind, std::string_view body, const Pending* answers = nullptr,
                              std::string_view now = {});
  void SendPageEvent() { events_.Add("page", MakeText(ToText(Describe()))); }
  bool CanHear() const { return host_ && !left_; }
  void EndWaiting();
  void ReleaseDeliveries();
  void CheckAbandoned();

  const int number_;
  const std::string id_;
  const PageDescription description_;
  const std::int64_t since_;
  EventLog& events_;
  Owner& owner_;
  EventLog deliveries_;
  EventLog dialogue_;
  EventLog log_;
  std::deque<PendingSend> sends_;  // the host answers in order
  std::deque<Pending> posts_;
  std::vector<std::string> watches_;
  std::optional<std::int64_t> last_number_;
  std::optional<Recording> recording_;
  int recordings_awaited_ = 0;  // started, but their first lines have not arrived
  std::uint64_t sent_ = 0;
  std::uint64_t delivered_ = 0;
  Clock::time_point last_activity_ = Clock::now();
  bool left_ = false;
  Json crash_;  // how and when, if its process ended before the page left
  boost::asio::steady_timer abandon_timer_;
  std::shared_ptr<HostProcess> host_;  // null once the process has ended
  const int pid_;
};

}  // namespace desk
