#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/json.h"
#include "base/shutdown_signal.h"
#include "browser_control.h"
#include "host/protocol.h"

namespace desk {

/// One parsed line of a session's input.
struct Request {
  In kind;
  ParsedJson argument;
};

/// Parses `line`; a failure is `kBadValue` with the cause.
vconf::Result<Request> ParseRequest(std::string_view line);

/// Reads lines from `input` until it ends or `shutdown` is raised, and passes each request to `handle`, which returns
/// its failure. For each line that fails it passes one `error` line with the line's number to `on_error`. Returns
/// true if no line failed.
bool ReadRequests(int input, const ShutdownSignal& shutdown,
                  const std::function<vconf::Status(std::string_view line, const Request& request)>& handle,
                  const std::function<void(const Json&)>& on_error);

/// The delay that the simulated set adds to `request`.
std::chrono::milliseconds Latency(const Request& request);

/// A page's session with the plug-in in this process: JSON lines in and out.
///
/// Created, used and destroyed on one thread, which is the plug-in's main thread. One session at a time.
class Session {
 public:
  /// Receives each line of output, on any thread, possibly on several at once.
  using Output = std::function<void(const Json&)>;

  /// Loads the plug-in and creates an instance; a failure names the file that could not be loaded, and the cause.
  static vconf::Result<std::unique_ptr<Session>> Start(const std::string& plugin, Output output);

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Ends the registration, after which there is no more output, then destroys the instance and unloads the plug-in.
  ~Session();

  /// Executes `request` and writes its answer, if there is one. Fails if the request was wrong.
  vconf::Status Handle(const Request& request);

  /// Waits until all messages posted so far have been handled and all changes made so far have been delivered.
  void Settle();

 private:
  explicit Session(Output output);

  Output output_;
  std::unique_ptr<pp::browser::Plugin> plugin_;
  std::shared_ptr<pp::browser::PageInstance> page_;
};

}  // namespace desk
