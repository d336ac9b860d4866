#pragma once

// The desk: the state that its parts share, startup and shutdown.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/basic_stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/thread_pool.hpp>

#include "server/connection.h"
#include "server/event_log.h"
#include "server/listener.h"
#include "server/options.h"
#include "server/origin.h"
#include "server/pages.h"
#include "server/plugin_check.h"
#include "server/router.h"
#include "vconf_control.h"

namespace desk {

/// The limits that follow from the number of descriptors that this process may open.
struct Limits {
  std::size_t connections;
  std::size_t pages;
  std::size_t events;      ///< streams of `/api/events`
  std::size_t deliveries;  ///< streams of deliveries, of all pages
  std::ptrdiff_t sends;    ///< clients that wait for a reply, of all pages

  static constexpr std::size_t kReserve = 4;  ///< additional streams of each kind for the desk's own page

  /// `free`: the descriptors that are left for all of them.
  static Limits For(std::size_t free);
};

/// Whether programs on the set use the key, such as a setting. All others hold the state of the simulated set.
bool IsKeyOfPrograms(std::string_view path);

/// One event loop, on the main thread, owns pages, processes, connections and streams. Changes of the store, which may
/// wait for a disk or a lock, run one by one on the store's thread.
class Desk {
 public:
  explicit Desk(DeskOptions options);
  ~Desk();
  Desk(const Desk&) = delete;
  Desk& operator=(const Desk&) = delete;

  /// Starts listening and the query for the plug-in's version. Throws `std::system_error` if no process can be created.
  vconf::Status Start();

  /// Serves until a signal asks the desk to exit, and returns the exit status. If changes of the store take longer
  /// than two seconds then, such as when a disk hangs, it exits the process instead.
  int Run();

  /// The links to the desk's page with the token, if there is one; the first is for this machine.
  std::vector<std::string> Links() const;
  /// The address of desk.js for a page on this machine.
  std::string Script() const { return Link("localhost", "/desk.js"); }
  /// The words of a command line that starts this desk again.
  std::vector<std::string> Command() const;

  /// A handler that runs `work` on the store's thread and answers with its result. The events of its changes are sent
  /// before the answer.
  Router::Handler OnStore(std::function<Answer(const HttpRequest&)> work);

  /// The answer of `GET /api/desk`.
  Json Describe() const;
  /// Sends that answer as an event `desk`, after something in it changed.
  void SendDeskEvent() { events_.Add("desk", MakeText(ToText(Describe()))); }
  /// Sends an event `set`, for changes that the store does not report, such as those of faults. Any thread.
  void SendSetEvent();

  /// Opens the store, again if it is open, and subscribes to its changes. Not while the store's thread uses it.
  vconf::Status OpenStore();
  /// Moves the store's files aside and creates a new store. To be called on the store's thread.
  Answer ReplaceStore();

  boost::asio::io_context& loop() { return loop_; }
  const DeskOptions& options() const { return options_; }
  const Limits& limits() const { return limits_; }
  EventLog& events() { return events_; }  ///< of `/api/events`
  Pages& pages() { return pages_; }
  const Pages& pages() const { return pages_; }
  std::size_t delivery_streams = 0;  ///< counted by their route, also those of pages that have left

 private:
  std::string Link(const std::string& host, std::string_view path) const;
  void OnChange(const vconf::Change& change);
  void OnPluginCheck();
  void Handle(HttpRequest& request, const ConnectionPtr& connection);
  void End();
  void StopWhenAllHaveExited();

  boost::asio::io_context loop_{1};
  const DeskOptions options_;
  Limits limits_{};
  EventLog events_;
  Pages pages_;
  vconf::Status store_;  // of opening the store
  OriginCheck check_;
  Router router_;
  Connection::Handler handler_;
  Clients clients_;
  Listener listener_;
  boost::asio::signal_set signals_;
  boost::asio::posix::basic_stream_descriptor<boost::asio::io_context::executor_type> input_;
  std::unique_ptr<PluginCheck> plugin_check_;
  std::unique_ptr<vconf::Watch> watch_;
  boost::asio::thread_pool store_thread_{1};
  std::atomic<int> store_requests_ = 0;  // queued or running on the store's thread
  int status_ = 0;
  bool plugin_reported_ = false;
  bool ending_ = false;
  bool pages_closed_ = false;
};

void AddStoreRoutes(Router& router, Desk& desk);
void AddSetRoutes(Router& router, Desk& desk);
void AddPageRoutes(Router& router, Desk& desk);
void AddFiles(Router& router);

}  // namespace desk
